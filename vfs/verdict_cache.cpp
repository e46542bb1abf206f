// The verdict cache of a connection (the TLB of the traces): a listing makes the client stat every
// entry, and each of those finds its verdict here.
//
// A fixed number of slots, one path each, and a table of slots in the order of their use. Look-ups
// scan that table from the front, where repeated ones end at once. A listing that comes again asks
// for its entries in the order of last time, so each is the one that has not been used for longest:
// the last positions are tried after the first ones.
#include <malloc.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "kavrin_vfs_utils.h"
#include "utils/trace.h"

namespace {

using kavrin::kAlways;
using kavrin::kDecision;
using kavrin::kTrace;

static_assert(sizeof(tlb_perms_t) == 16);

constexpr std::size_t kLongestPath = 4096;

// One operation's bit in the bitmaps of a slot.
struct Bit {
    explicit Bit(e_fsop_type_t op) : word(op < 32 ? 0 : 1), mask(std::uint32_t{1} << (op & 31)) {}
    int word;
    std::uint32_t mask;
};

// The path that a scan looks for. Entries of one listing begin alike for fifty bytes and more, so
// their ends are compared first, where the cached path's block is long enough to have one there.
class Wanted {
public:
    explicit Wanted(const char* path) : path_(path), length_(strnlen(path, kLongestPath)) {
        if (has_tail()) std::memcpy(&tail_, path + length_ - sizeof tail_, sizeof tail_);
    }
    bool equals(const char* cached) const {
        if (has_tail()) {
            if (malloc_usable_size(const_cast<char*>(cached)) <= length_) return false;
            std::uint64_t tail;
            std::memcpy(&tail, cached + length_ - sizeof tail, sizeof tail);
            if (tail != tail_) return false;
        }
        return std::strncmp(path_, cached, kLongestPath) == 0;
    }

private:
    bool has_tail() const { return length_ >= sizeof tail_ && length_ < kLongestPath; }

    const char* path_;
    std::size_t length_;
    std::uint64_t tail_ = 0;
};

// The path that was looked for last and not found: it is in no slot.
const char* missed_path = nullptr;
const kv_vfs_table_cache_t* missed_in = nullptr;
// A path that was put in without that may be there twice, and then only a scan finds the first one.
bool may_have_twins = false;

constexpr int kEnds = 8;  // positions at each end that most look-ups are found at

int scan(const kv_vfs_table_cache_t& cache, const Wanted& wanted, int from, int to) {
    for (int position = from; position < to; ++position) {
        const char* const cached = cache.tlb_paths[cache.tlb_index_table[position]];
        if (cached != nullptr && wanted.equals(cached)) return position;
    }
    return -1;
}

bool allows(e_vfs_enforce_perms_t value) {
    return value == KVPERMS_HAS_PERMS;
}

void move_to_front(kv_vfs_table_cache_t& cache, int position) {
    std::int32_t* const table = cache.tlb_index_table;
    const std::int32_t slot = table[position];
    std::memmove(table + 1, table, static_cast<std::size_t>(position) * sizeof *table);
    table[0] = slot;
}

// Gives a new path a position; -1 without memory for it.
int take_position(kv_vfs_table_cache_t& cache, const char* path) {
    if (cache.vfs_tlb_end < KAVRIN_TLB_SLOTS) {
        const std::int32_t index = cache.tlb_index_table[cache.vfs_tlb_end];
        ++cache.vfs_tlb_end;
        KV_ASSERT_AS(cache.tlb_paths[index] == nullptr, "tlb_cache->tlb_paths[index] == NULL");
    } else {
        std::free(cache.tlb_paths[cache.tlb_index_table[cache.vfs_tlb_end - 1]]);
    }
    const int position = cache.vfs_tlb_end - 1;
    const std::int32_t slot = cache.tlb_index_table[position];
    cache.tlb_paths[slot] = strdup(path);
    if (cache.tlb_paths[slot] == nullptr) {
        KV_TRACE(kAlways, "Cannot create path for TLB cache, out of memory");
        return -1;
    }
    cache.tlb_perms[slot] = {};
    return position;
}

}  // namespace

extern "C" void init_tlb(kv_vfs_table_cache_t* c) {
    for (int i = 0; i < KAVRIN_TLB_SLOTS; ++i) {
        c->tlb_index_table[i] = i;
        c->tlb_paths[i] = nullptr;
        c->tlb_perms[i] = {};
    }
    c->vfs_tlb_end = 0;
}

extern "C" void destroy_tlb(kv_vfs_table_cache_t* c) {
    for (char* path : c->tlb_paths) std::free(path);
    init_tlb(c);
}

extern "C" int _tlb_lookup_path(char* path, kv_vfs_table_cache_t* c) {
    const Wanted wanted(path);
    const int end = c->vfs_tlb_end;
    const int front = std::min(end, kEnds);
    int position = scan(*c, wanted, 0, front);
    if (position != -1) return position;
    if (may_have_twins) return scan(*c, wanted, front, end);
    const int back = std::max(front, end - kEnds);
    position = scan(*c, wanted, back, end);
    return position != -1 ? position : scan(*c, wanted, front, back);
}

extern "C" int _update_tlb_hit(int position, kv_vfs_table_cache_t* c) {
    KV_TRACE(kTrace, "TLB: Updating slot %d", position);
    move_to_front(*c, position);
    return 0;
}

extern "C" e_vfs_enforce_perms_t check_tlb(char* path, e_fsop_type_t op, int* index,
                                           kv_vfs_table_cache_t* c) {
    *index = -1;
    if (c->flush_tlb == KAVRIN_TLB_FLUSH) {
        KV_TRACE(kTrace, "Flushing and rebuilding tlb ");
        destroy_tlb(c);
        c->flush_tlb = KAVRIN_TLB_NO_FLUSH;
    }
    const int position = _tlb_lookup_path(path, c);
    if (position == -1) {
        missed_path = path;
        missed_in = c;
        return KVPERMS_NOT_FOUND;
    }
    const tlb_perms_t& perms = c->tlb_perms[c->tlb_index_table[position]];
    const Bit bit(op);
    if ((perms.set[bit.word] & bit.mask) == 0) {
        *index = position;
        return KVPERMS_NOT_SET;
    }
    const bool allowed = (perms.value[bit.word] & bit.mask) != 0;
    *index = _update_tlb_hit(position, c);
    return allowed ? KVPERMS_HAS_PERMS : KVPERMS_NO_PERM;
}

extern "C" void add_tlb_entry(char* path, int slot, e_fsop_type_t op, e_vfs_enforce_perms_t value,
                              kv_vfs_table_cache_t* c) {
    if (slot == -1 && (path != missed_path || c != missed_in)) may_have_twins = true;
    missed_path = nullptr;
    const int position = slot == -1 ? take_position(*c, path) : slot;
    if (position == -1) return;
    KV_ASSERT(op != 0);
    tlb_perms_t& perms = c->tlb_perms[c->tlb_index_table[position]];
    const Bit bit(op);
    perms.set[bit.word] |= bit.mask;
    if (allows(value)) perms.value[bit.word] |= bit.mask;  // and never cleared here
    move_to_front(*c, position);
}

extern "C" void update_tlb_entry(int slot, e_fsop_type_t op, e_vfs_enforce_perms_t value,
                                 kv_vfs_table_cache_t* c) {
    KV_ASSERT_AS(slot >= 0 && slot < c->vfs_tlb_end, "slot >= 0 && slot < tlb_cache->vfs_tlb_end");
    KV_ASSERT(op != 0);
    // The number is the slot's own, and the path keeps its place: callers hand in a position.
    tlb_perms_t& perms = c->tlb_perms[slot];
    const Bit bit(op);
    perms.set[bit.word] |= bit.mask;
    if (allows(value))
        perms.value[bit.word] |= bit.mask;
    else
        perms.value[bit.word] &= ~bit.mask;
}

extern "C" void del_tlb_entry(char* path, kv_vfs_table_cache_t* c) {
    const int position = _tlb_lookup_path(path, c);
    if (position == -1) {
        KV_TRACE(kDecision, "%s: did not find path %s", __func__, path);
        return;
    }
    std::int32_t* const table = c->tlb_index_table;
    const std::int32_t slot = table[position];
    std::free(c->tlb_paths[slot]);
    c->tlb_paths[slot] = nullptr;
    c->tlb_perms[slot] = {};
    std::copy(table + position + 1, table + c->vfs_tlb_end, table + position);
    // The number that now stands at the position, not the freed slot's: see the declaration.
    table[c->vfs_tlb_end - 1] = table[position];
    --c->vfs_tlb_end;
}
