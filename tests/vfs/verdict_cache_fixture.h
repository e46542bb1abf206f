// A verdict cache by itself, short ways to call it, and what its arrays hold.
#pragma once

#include "connection_fixture.h"

namespace kvtest {

constexpr int kSlots = 1024;
constexpr e_vfs_enforce_perms_t kYes = KVPERMS_HAS_PERMS;
constexpr e_vfs_enforce_perms_t kNo = KVPERMS_NO_PERM;

class VerdictCache : public testing::Test {
protected:
    VerdictCache() : cache_(static_cast<kv_vfs_table_cache_t*>(std::calloc(1, sizeof *cache_))) {
        init_tlb(cache_);
        cache_->flush_tlb = 9;
    }
    ~VerdictCache() override {
        for (char* path : cache_->tlb_paths) std::free(path);
        std::free(cache_);
    }

    void add(const std::string& path, int op = FSOP_STAT, int value = kYes, int slot = -1) {
        add_tlb_entry(std::string(path).data(), slot, static_cast<e_fsop_type_t>(op),
                      static_cast<e_vfs_enforce_perms_t>(value), cache_);
    }
    void update(int slot, int op, int value) {
        update_tlb_entry(slot, static_cast<e_fsop_type_t>(op),
                         static_cast<e_vfs_enforce_perms_t>(value), cache_);
    }
    void remove(const std::string& path) { del_tlb_entry(std::string(path).data(), cache_); }
    int check(const std::string& path, int op = FSOP_STAT) {
        index = 55;
        return check_tlb(std::string(path).data(), static_cast<e_fsop_type_t>(op), &index, cache_);
    }
    int position(const std::string& path) {
        return _tlb_lookup_path(std::string(path).data(), cache_);
    }
    void fill() {
        for (int i = 0; i < kSlots; ++i) add("path" + std::to_string(i));
    }

    // The slots in the order of their use.
    std::vector<int> order() const {
        return {cache_->tlb_index_table, cache_->tlb_index_table + cache_->vfs_tlb_end};
    }
    // Both bitmaps of a slot: `set` and `value`, each with word 1 in its upper half.
    std::uint64_t set_of(int slot) const { return joined(cache_->tlb_perms[slot].set); }
    std::uint64_t value_of(int slot) const { return joined(cache_->tlb_perms[slot].value); }
    static std::uint64_t joined(const std::uint32_t (&words)[2]) {
        return words[0] | std::uint64_t{words[1]} << 32;
    }
    static std::uint64_t bit(int op) { return std::uint64_t{1} << op; }

    // The numbers from vfs_tlb_end on.
    void expect_free_from(int first) const {
        for (int i = cache_->vfs_tlb_end; i < kSlots; ++i)
            ASSERT_EQ(cache_->tlb_index_table[i], first + i - cache_->vfs_tlb_end);
    }
    void expect_blank() const {
        EXPECT_EQ(cache_->vfs_tlb_end, 0);
        for (int i = 0; i < kSlots; ++i) {
            ASSERT_EQ(cache_->tlb_index_table[i], i);
            ASSERT_EQ(cache_->tlb_paths[i], nullptr);
            ASSERT_EQ(set_of(i) | value_of(i), 0u);
        }
    }

    ConfigTable config;
    kv_vfs_table_cache_t* cache_;
    int index = 55;
};

}  // namespace kvtest
