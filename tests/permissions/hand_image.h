// Permission map images written byte by byte from the layout's numbers, without a call of the
// library and without its record types: what the readers make of one is then a second opinion on
// both. Also the name hash once more, and places inside an image to damage.
#pragma once

#include <cstdint>
#include <cstring>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace kvtest {

inline std::uint32_t reference_hash(std::string_view name) {
    std::uint64_t hash = 0;
    const auto cut = [](std::uint64_t value) { return value % 0x100000000ull; };
    for (const char c : name) {
        const unsigned byte = static_cast<unsigned char>(c);
        if (byte > 127) continue;
        const bool lower = byte >= 'a' && byte <= 'z';
        hash = cut(hash + (lower ? byte - 32 : byte));
        hash = cut(hash * 1025);
        hash ^= hash / 64;
    }
    hash = cut(hash * 9);
    hash ^= hash / 2048;
    return static_cast<std::uint32_t>(cut(hash * 32769));
}

struct HandAce {
    std::uint32_t idtype = 1;
    std::uint32_t id = 0;
    std::uint16_t mask = 0;
};

struct HandNode {
    std::string name;
    std::vector<HandAce> aces;  // in record order
    std::vector<HandNode> children;
};

class HandImage {
public:
    explicit HandImage(const HandNode& root) {
        count(root);
        names_at_ = 176 + 24 * elements_;
        acls_at_ = names_at_ + name_bytes_ + 12 * elements_;
        lists_at_ = acls_at_ + 12 * aces_ + 8 * elements_;
        bytes_.resize(lists_at_ + 16 * elements_);
        const std::uint32_t region[] = {
            176,      24 * elements_,       names_at_, acls_at_ - names_at_,
            acls_at_, lists_at_ - acls_at_, lists_at_, 16 * elements_};
        place(root, 0xFFFFFFFEu);
        const std::uint32_t used[] = {element_used_, name_used_, acl_used_, list_used_};
        put32(112, elements_);
        put32(116, aces_);
        for (std::uint32_t i = 0; i < 4; ++i) {
            put32(124 + 12 * i, region[2 * i]);
            put32(128 + 12 * i, region[2 * i + 1]);
            put32(132 + 12 * i, used[i]);
        }
        put32(172, 0x1EA78EAFu);
    }

    void* data() { return bytes_.data(); }
    const std::vector<std::uint8_t>& bytes() const { return bytes_; }

    // Offset of the element of that name in its region; names are told apart by the test.
    std::uint32_t offset(const std::string& name) const { return offsets_.at(name); }

    // Positions of an element's records, from the image's start.
    std::uint32_t element_at(const std::string& name) const { return 176 + offset(name); }
    std::uint32_t name_at(const std::string& name) const {
        return names_at_ + get32(element_at(name) + 8);
    }
    std::uint32_t list_at(const std::string& name) const {
        return lists_at_ + get32(element_at(name) + 12);
    }
    std::uint32_t acl_at(const std::string& name) const {
        return acls_at_ + get32(element_at(name) + 16);
    }

    std::uint32_t get32(std::uint32_t position) const {
        std::uint32_t value = 0;
        for (std::uint32_t i = 0; i < 4; ++i)
            value |= static_cast<std::uint32_t>(bytes_.at(position + i)) << (8 * i);
        return value;
    }
    void put32(std::uint32_t position, std::uint32_t value) {
        for (std::uint32_t i = 0; i < 4; ++i)
            bytes_.at(position + i) = static_cast<std::uint8_t>(value >> (8 * i));
    }
    void put16(std::uint32_t position, std::uint16_t value) {
        bytes_.at(position) = static_cast<std::uint8_t>(value);
        bytes_.at(position + 1) = static_cast<std::uint8_t>(value >> 8);
    }

private:
    void count(const HandNode& node) {
        ++elements_;
        aces_ += static_cast<std::uint32_t>(node.aces.size());
        name_bytes_ += static_cast<std::uint32_t>(node.name.size()) + 1;
        for (const HandNode& child : node.children) count(child);
    }

    std::uint32_t place(const HandNode& node, std::uint32_t parent) {
        const std::uint32_t offset = element_used_;
        const bool root = parent == 0xFFFFFFFEu;
        const std::uint32_t at = 176 + offset;
        element_used_ += 24;
        offsets_.emplace(node.name, offset);
        put32(at, 0x67896789u);
        put32(at + 4, parent);
        put32(at + 8, name_used_);
        put_name(node.name);
        put32(at + 16, acl_used_);
        put_acl(node.aces);
        const bool childless = node.children.empty();
        put32(at + 20, (root ? 1u : 0u) | (childless ? 2u : 0u));
        if (childless && !root) return offset;
        put32(at + 12, list_used_);
        std::uint32_t slot = put_list(static_cast<std::uint32_t>(node.children.size()));
        for (const HandNode& child : node.children) {
            put32(slot, place(child, offset));
            slot += 4;
        }
        return offset;
    }

    void put_name(const std::string& name) {
        const std::uint32_t at = names_at_ + name_used_;
        put16(at, static_cast<std::uint16_t>(name.size()));
        put32(at + 4, 0xABCDABCDu);
        put32(at + 8, reference_hash(name));
        std::memcpy(&bytes_.at(at + 12), name.data(), name.size());
        name_used_ += static_cast<std::uint32_t>(name.size()) + 13;
    }

    void put_acl(const std::vector<HandAce>& aces) {
        std::uint32_t at = acls_at_ + acl_used_;
        put32(at, 0xCDEFCDEFu);
        put32(at + 4, static_cast<std::uint32_t>(aces.size()));
        at += 8;
        for (const HandAce& ace : aces) {
            put32(at, ace.idtype);
            put32(at + 4, ace.id);
            put16(at + 8, ace.mask);
            at += 12;
        }
        acl_used_ = at - acls_at_;
    }

    // Returns where the slots begin.
    std::uint32_t put_list(std::uint32_t children) {
        const std::uint32_t at = lists_at_ + list_used_;
        put32(at, 0x789A789Au);
        put32(at + 4, children);
        put32(at + 8, children);
        list_used_ += 12 + 4 * children;
        return at + 12;
    }

    std::vector<std::uint8_t> bytes_;
    std::map<std::string, std::uint32_t> offsets_;
    std::uint32_t elements_ = 0, aces_ = 0, name_bytes_ = 0;
    std::uint32_t names_at_ = 0, acls_at_ = 0, lists_at_ = 0;
    std::uint32_t element_used_ = 0, name_used_ = 0, acl_used_ = 0, list_used_ = 0;
};

}  // namespace kvtest
