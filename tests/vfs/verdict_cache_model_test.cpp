// The verdict cache against a model of its arrays: random calls, everything compared after each.
// A call that the model knows to end the process is made in a child, and the cache flushed after.
#include <array>
#include <optional>
#include <random>

#include "connection_fixture.h"

namespace kvtest {
namespace {

constexpr int kSlots = 1024;
constexpr int kSteps = 100000;
constexpr int kPhase = 4000;     // steps with one mix of calls
constexpr int kSmallSet = 40;    // paths that meet again and again
constexpr int kLargeSet = 3000;  // paths that fill the cache and push each other out
constexpr int kDeaths = 40;      // of the calls that end the process, this many are made

struct Model {
    struct Slot {
        std::optional<std::string> path;
        std::uint64_t set = 0;
        std::uint64_t value = 0;
    };
    struct Answer {
        int verdict;
        int index;
    };
    std::array<Slot, kSlots> slots;
    std::array<int, kSlots> order;
    int used = 0;
    bool flush = false;

    Model() { empty(); }

    void empty() {
        slots.fill({});
        for (int i = 0; i < kSlots; ++i) order[i] = i;
        used = 0;
    }
    int find(const std::string& path) const {
        for (int p = 0; p < used; ++p)
            if (slots[order[p]].path == path) return p;
        return -1;
    }
    void to_front(int p) { std::rotate(order.begin(), order.begin() + p, order.begin() + p + 1); }

    Answer check(const std::string& path, int op) {
        if (flush) {
            empty();
            flush = false;
        }
        const int p = find(path);
        if (p == -1) return {KVPERMS_NOT_FOUND, -1};
        const Slot& slot = slots[order[p]];
        if ((slot.set >> op & 1) == 0) return {KVPERMS_NOT_SET, p};
        const int verdict = (slot.value >> op & 1) != 0 ? KVPERMS_HAS_PERMS : KVPERMS_NO_PERM;
        to_front(p);
        return {verdict, 0};
    }
    // Whether a new path would take a slot that is not free, which ends the process.
    bool new_path_is_deadly() const { return used < kSlots && slots[order[used]].path.has_value(); }
    void add(const std::string& path, int position, int op, int value) {
        if (position == -1) {
            if (used < kSlots) ++used;
            position = used - 1;
            slots[order[position]] = {path, 0, 0};
        }
        Slot& slot = slots[order[position]];
        slot.set |= std::uint64_t{1} << op;
        slot.value |= std::uint64_t{value == KVPERMS_HAS_PERMS} << op;
        to_front(position);
    }
    void update(int number, int op, int value) {
        Slot& slot = slots[number];
        const std::uint64_t bit = std::uint64_t{1} << op;
        slot.set |= bit;
        slot.value = value == KVPERMS_HAS_PERMS ? slot.value | bit : slot.value & ~bit;
    }
    void remove(const std::string& path) {
        const int p = find(path);
        if (p == -1) return;
        slots[order[p]] = {};
        for (int q = p + 1; q < used; ++q) order[q - 1] = order[q];
        order[used - 1] = order[p];
        --used;
    }
};

struct Counts {
    int hits = 0, not_set = 0, not_found = 0, pushed_out = 0, removed = 0, deaths = 0, flushes = 0;
};

class CacheModel : public testing::Test {
protected:
    CacheModel() : cache(static_cast<kv_vfs_table_cache_t*>(std::calloc(1, sizeof *cache))) {
        init_tlb(cache);
        cache->flush_tlb = 9;
    }
    ~CacheModel() override {
        destroy_tlb(cache);
        std::free(cache);
    }

    bool same_slot(int number) const {
        const Model::Slot& slot = model.slots[static_cast<std::size_t>(number)];
        const char* const path = cache->tlb_paths[number];
        const tlb_perms_t& perms = cache->tlb_perms[number];
        return (path != nullptr) == slot.path.has_value() &&
               (path == nullptr || std::strcmp(path, slot.path->c_str()) == 0) &&
               perms.set[0] == static_cast<std::uint32_t>(slot.set) &&
               perms.set[1] == slot.set >> 32 &&
               perms.value[0] == static_cast<std::uint32_t>(slot.value) &&
               perms.value[1] == slot.value >> 32;
    }
    // The part in use, or all of it: free slots and their numbers too.
    bool same(bool whole) const {
        if (cache->vfs_tlb_end != model.used || cache->flush_tlb != (model.flush ? 21 : 9))
            return false;
        const int end = whole ? kSlots : model.used;
        for (int i = 0; i < end; ++i) {
            const int number = cache->tlb_index_table[i];
            if (number != model.order[static_cast<std::size_t>(i)] || !same_slot(number))
                return false;
        }
        for (int number = 0; whole && number < kSlots; ++number)
            if (!same_slot(number)) return false;
        return true;
    }

    int pick(int count) { return std::uniform_int_distribution<int>(0, count - 1)(random); }
    int pick_op() { return pick(10) == 0 ? 31 + pick(33) : 1 + pick(30); }
    int pick_value() {
        constexpr int kValues[] = {KVPERMS_HAS_PERMS, KVPERMS_HAS_PERMS, KVPERMS_NO_PERM,
                                   KVPERMS_NO_PERM, KVPERMS_SYSTEM_ERR};
        return kValues[pick(std::size(kValues))];
    }
    std::string pick_path(bool small) {
        return small ? "Shared/small/" + std::to_string(pick(kSmallSet))
                     : "Shared/large/folder/" + std::to_string(pick(kLargeSet));
    }

    void request_flush() {
        cache->flush_tlb = 21;
        model.flush = true;
        ++counts.flushes;
    }
    void add(std::string path, int position, int op, int value) {
        const auto call = [&] {
            add_tlb_entry(path.data(), position, static_cast<e_fsop_type_t>(op),
                          static_cast<e_vfs_enforce_perms_t>(value), cache);
        };
        if (position == -1 && model.new_path_is_deadly()) {
            if (counts.deaths++ < kDeaths) {
                ASSERT_TRUE(run_child_void(call).asserted("tlb_cache->tlb_paths[index] == NULL"));
            }
            request_flush();
            return;
        }
        if (position == -1 && model.used == kSlots) ++counts.pushed_out;
        call();
        model.add(path, position, op, value);
    }
    // What a permission check does: look up, and remember what was not known.
    void check(std::string path, int op, bool remember) {
        int index = 55;
        const int verdict = check_tlb(path.data(), static_cast<e_fsop_type_t>(op), &index, cache);
        const Model::Answer expected = model.check(path, op);
        ASSERT_EQ(verdict, expected.verdict);
        ASSERT_EQ(index, expected.index);
        if (verdict == KVPERMS_NOT_FOUND) {
            ++counts.not_found;
            if (remember) add(path, index, op, pick_value());
        } else if (verdict == KVPERMS_NOT_SET) {
            ++counts.not_set;
            if (remember) update(index, op, pick_value());
        } else {
            ++counts.hits;
        }
    }
    void update(int number, int op, int value) {
        update_tlb_entry(number, static_cast<e_fsop_type_t>(op),
                         static_cast<e_vfs_enforce_perms_t>(value), cache);
        model.update(number, op, value);
    }
    void remove(std::string path) {
        if (model.find(path) != -1) ++counts.removed;
        del_tlb_entry(path.data(), cache);
        model.remove(path);
    }

    // One call. In a phase that is not wild, only the last position is deleted, as callers have to.
    void step(int phase) {
        const bool small = phase % 3 == 0 || (phase % 3 == 1 && pick(4) == 0);
        const bool wild = phase % 4 == 0;
        const int chosen = pick(1000);
        if (chosen < 700) {
            check(pick_path(small), pick_op(), true);
        } else if (chosen < 780) {
            check(pick_path(small), pick_op(), false);
        } else if (chosen < 800) {
            add(pick_path(small), -1, pick_op(), pick_value());
        } else if (chosen < 880 && model.used > 0) {
            add("ignored", pick(model.used), pick_op(), pick_value());
        } else if (chosen < 960 && model.used > 0) {
            update(pick(model.used), pick_op(), pick_value());
        } else if (chosen < 999) {
            const auto last = static_cast<std::size_t>(
                model.order[static_cast<std::size_t>(model.used > 0 ? model.used - 1 : 0)]);
            if (wild) {
                remove(pick_path(small));
            } else if (model.used > 0 && model.find(*model.slots[last].path) == model.used - 1) {
                remove(*model.slots[last].path);
            }
        } else if (pick(3) == 0) {
            request_flush();
        }
    }

    ConfigTable config;
    kv_vfs_table_cache_t* cache;
    Model model;
    Counts counts;
    std::mt19937 random{20240229};
};

TEST_F(CacheModel, HundredThousandStepsLeaveTheSameArrays) {
    for (int number = 0; number < kSteps; ++number) {
        step(number / kPhase);
        ASSERT_FALSE(HasFatalFailure()) << "step " << number;
        ASSERT_TRUE(same(number % 100 == 99)) << "step " << number;
    }
    ASSERT_TRUE(same(true));
    // The walk has been where it was meant to go.
    EXPECT_GT(counts.hits, 3000);
    EXPECT_GT(counts.not_set, 10000);
    EXPECT_GT(counts.not_found, 10000);
    EXPECT_GT(counts.pushed_out, 5000);
    EXPECT_GT(counts.removed, 1000);
    EXPECT_GT(counts.deaths, 20);
    EXPECT_GT(counts.flushes, 20);
}

}  // namespace
}  // namespace kvtest
