// Files of framed records, as the library leaves them for the event store and for audit: pending
// files and audit files, and what a process that died left of one.
//
// A file is read in one pass through a small buffer, whatever its size, and believed in nothing:
// the size of a record is held against the file before a byte of it is fetched. Reading ends at the
// first damage; every whole record before it has been given by then.
#pragma once

#include <fmt/format.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "vfs_common.h"

namespace kvadmin {

// Larger payloads are taken for damage: an event holds two paths and a name. It bounds the memory
// that a hostile file can ask for.
inline constexpr std::uint32_t kLargestPayload = 16U << 20;

struct RecordDamage {
    enum class Kind { kCutOff, kSignature, kSize, kPayload };
    Kind kind;
    std::uint64_t offset;  // of the record that is damaged
    std::string what;
};

class RecordReader {
public:
    // Reads the file from `offset`, where a record begins. The descriptor stays the caller's.
    explicit RecordReader(int file, std::uint64_t offset = 0);

    // The next record's payload, valid until the next call. Nothing at the end of the file, at
    // damage, and when the file cannot be read.
    std::optional<std::span<const std::uint8_t>> next();

    // Where the next record begins: behind the last whole one.
    std::uint64_t offset() const { return offset_; }
    const std::optional<RecordDamage>& damage() const { return damage_; }
    // errno of a failed read, else 0.
    int error() const { return error_; }

    // The record given last is no message of the kind that the file should hold.
    void refuse(std::string what);

private:
    bool fetch(std::size_t size);
    std::nullopt_t stop(RecordDamage::Kind kind, std::string what);

    int file_;
    std::uint64_t size_ = 0;  // of the file, when it was opened
    std::uint64_t offset_;
    std::uint64_t previous_ = 0;  // the record given last
    std::vector<std::uint8_t> buffer_;
    std::size_t begin_ = 0;  // of what is fetched and not yet given
    std::size_t end_ = 0;
    std::optional<RecordDamage> damage_;
    int error_ = 0;
};

// What the generator of message code names after the message.
template <typename Message>
struct Codec;
template <>
struct Codec<VFSEvent> {
    static constexpr const char* kName = "VFSEvent";
    static constexpr auto kUnpack = vfsevent__unpack;
    static constexpr auto kFree = vfsevent__free_unpacked;
};
template <>
struct Codec<AuditEvent> {
    static constexpr const char* kName = "AuditEvent";
    static constexpr auto kUnpack = audit_event__unpack;
    static constexpr auto kFree = audit_event__free_unpacked;
};

struct FreeMessage {
    template <typename Message>
    void operator()(Message* message) const {
        Codec<Message>::kFree(message, nullptr);
    }
};

// Null when the payload is no such message.
template <typename Message>
std::unique_ptr<Message, FreeMessage> unpack(std::span<const std::uint8_t> payload) {
    return std::unique_ptr<Message, FreeMessage>(
        Codec<Message>::kUnpack(nullptr, payload.size(), payload.data()));
}

// How far a file could be read.
struct RecordWalk {
    std::uint64_t records = 0;
    std::uint64_t end = 0;  // behind the last whole record
    std::optional<RecordDamage> damage;
    int error = 0;  // errno of a failed read
    bool whole() const { return !damage && error == 0; }
};

// Gives every message of a file to `use`, as far as the file is sound.
template <typename Message, typename Use>
RecordWalk walk_records(int file, std::uint64_t from, Use&& use) {
    RecordReader reader(file, from);
    RecordWalk walk;
    while (const auto payload = reader.next()) {
        const auto message = unpack<Message>(*payload);
        if (message == nullptr) {
            reader.refuse(fmt::format("its payload is no {}", Codec<Message>::kName));
            break;
        }
        ++walk.records;
        use(*message);
    }
    walk.end = reader.offset();
    walk.damage = reader.damage();
    walk.error = reader.error();
    return walk;
}

}  // namespace kvadmin
