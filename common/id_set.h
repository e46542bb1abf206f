// The ids of one USERS or GROUPS object, to find one that is given twice. Emptied in no time and
// keeping its memory, because a map has an ACL for every file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace kvadmin {

class IdSet {
public:
    void clear() {
        used_ = 0;
        if (++round_ != 0) return;
        for (Slot& slot : slots_) slot.round = 0;
        round_ = 1;
    }

    // False when the id is in it already.
    bool insert(std::uint32_t id) {
        if (used_ * 2 >= slots_.size()) grow();
        Slot& slot = slot_of(id);
        if (slot.round == round_) return false;
        slot = {id, round_};
        ++used_;
        return true;
    }

private:
    struct Slot {
        std::uint32_t id = 0;
        std::uint32_t round = 0;  // in use when it is the current one
    };

    // The slot that holds the id, or the free one where it belongs.
    Slot& slot_of(std::uint32_t id) {
        const std::size_t mask = slots_.size() - 1;
        std::size_t at = (id * std::uint64_t{0x9E3779B97F4A7C15} >> 32) & mask;
        while (slots_[at].round == round_ && slots_[at].id != id) at = (at + 1) & mask;
        return slots_[at];
    }

    void grow() {
        std::vector<Slot> old = std::exchange(slots_, std::vector<Slot>(slots_.size() * 2));
        for (const Slot& slot : old)
            if (slot.round == round_) slot_of(slot.id) = slot;
    }

    std::vector<Slot> slots_ = std::vector<Slot>(16);
    std::size_t used_ = 0;
    std::uint32_t round_ = 1;
};

}  // namespace kvadmin
