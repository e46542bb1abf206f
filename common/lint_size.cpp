// See lint_size.h. Findings come in two kinds here: those that new counts cure (--fix writes them),
// and all others.
#include "lint_size.h"

#include <cstddef>
#include <iterator>
#include <string_view>

namespace kvadmin {
namespace {

constexpr std::size_t kMapNameField = 32;  // of the image; a terminator must fit, too
constexpr std::size_t kVersionField = 36;  // may be filled to its end

enum class Field { kMapName, kVersion, kGeneration, kTimestamp, kElements, kAces, kNameBytes };
constexpr std::string_view kKeys[] = {"MAPNAME",      "VERSION",   "GENERATIONNUM", "TIMESTAMP",
                                      "TOTALFSELEMS", "TOTALACES", "TOTALNAMELEN"};
constexpr std::size_t kFirstCount = static_cast<std::size_t>(Field::kElements);

// The counts in the order of their keys.
constexpr std::uint64_t LintCounts::*kCounts[] = {&LintCounts::elements, &LintCounts::aces,
                                                  &LintCounts::name_bytes};
constexpr std::string_view kCountNames[] = {"elements", "user and group entries",
                                            "bytes of names (each name counts one more)"};
static_assert(kFirstCount + std::size(kCounts) == std::size(kKeys));

class SizeLint {
public:
    SizeLint(ByteSource& source, Findings& findings, const DataResult& data, LintReport& report)
        : walk_(source, findings), findings_(findings), data_(data), report_(report) {}

    void run();

private:
    void member(std::size_t key, const Token& value);
    void text(Field field, const Token& value);
    void count(std::size_t which, const Token& value);
    void check_missing(const Place& place);

    JsonWalk walk_;
    Findings& findings_;
    const DataResult& data_;
    LintReport& report_;
    bool has_[std::size(kKeys)] = {};
    std::uint64_t cured_ = 0;  // violations that new counts remove
};

void SizeLint::run() {
    try {
        const Token open = walk_.begin();
        if (walk_.expect(open, TokenKind::kBeginObject, "the document")) {
            bool first = true;
            Token key;
            while (walk_.next_key(first, key)) {
                const std::size_t index = index_of(kKeys, key.text);
                if (index == std::size(kKeys)) {
                    walk_.violation(key.place, "unknown key {}; remove it", quoted(key.text));
                    walk_.skip(walk_.value());
                } else if (std::exchange(has_[index], true)) {
                    walk_.violation(key.place, "\"{}\" is given twice; keep one", kKeys[index]);
                    if (index >= kFirstCount) ++cured_;
                    walk_.skip(walk_.value());
                } else {
                    member(index, walk_.value());
                }
            }
            check_missing(key.place);
            report_.size_read = true;
        }
        walk_.end();
    } catch (const CannotGoOn&) {
        report_.size_read = false;
    }
    const std::uint64_t violations = findings_.total(Severity::kViolation);
    report_.fixable = report_.size_read && violations > 0 && violations == cured_;
}

void SizeLint::member(std::size_t key, const Token& value) {
    const auto field = static_cast<Field>(key);
    LintReport::Identity& identity = report_.identity;
    if (field == Field::kMapName || field == Field::kVersion) return text(field, value);
    if (key >= kFirstCount) return count(key - kFirstCount, value);
    if (field == Field::kGeneration) {
        const auto number = walk_.number(value, UINT32_MAX, "\"GENERATIONNUM\"");
        identity.has_generation = number.has_value();
        identity.generation = static_cast<std::uint32_t>(number.value_or(0));
    } else {
        const auto number = walk_.number(value, INT64_MAX, "\"TIMESTAMP\"");
        identity.has_timestamp = number.has_value();
        identity.timestamp = static_cast<std::int64_t>(number.value_or(0));
    }
}

void SizeLint::text(Field field, const Token& value) {
    const bool is_name = field == Field::kMapName;
    const std::string_view what = is_name ? "\"MAPNAME\"" : "\"VERSION\"";
    const std::size_t longest = is_name ? kMapNameField - 1 : kVersionField;
    if (!walk_.expect(value, TokenKind::kString, what) || !walk_.sound_string(value, what)) return;
    if (value.has_nul)
        return walk_.violation(value.place, "{} holds a NUL character, which would end it", what);
    if (value.length > longest)
        return walk_.violation(value.place, "{} is {} bytes long; at most {} fit", what,
                               value.length, longest);
    if (!is_name && value.length == kVersionField)
        walk_.warning(value.place,
                      "\"VERSION\" fills its {} bytes, so the image holds it without an end",
                      kVersionField);
    LintReport::Identity& identity = report_.identity;
    (is_name ? identity.has_map_name : identity.has_version) = true;
    (is_name ? identity.map_name : identity.version) = value.text;
}

void SizeLint::count(std::size_t which, const Token& value) {
    const std::string_view key = kKeys[kFirstCount + which];
    const std::uint64_t before = findings_.total(Severity::kViolation);
    const auto number = walk_.number(value, UINT32_MAX, fmt::format("\"{}\"", key));
    report_.announced.*kCounts[which] = number.value_or(0);
    const std::uint64_t actual = data_.counts.*kCounts[which];
    if (number && data_.complete && *number != actual)
        walk_.violation(value.place, "\"{}\" is {}, but the data file holds {} {}; write {}", key,
                        *number, actual, kCountNames[which], actual);
    cured_ += findings_.total(Severity::kViolation) - before;
}

void SizeLint::check_missing(const Place& place) {
    for (std::size_t key = 0; key < std::size(kKeys); ++key) {
        if (has_[key]) continue;
        if (key < kFirstCount) {
            walk_.warning(place, "\"{}\" is missing; the map will hold none", kKeys[key]);
            continue;
        }
        ++cured_;
        if (data_.complete)
            walk_.violation(place, "\"{}\" is missing; write {}", kKeys[key],
                            data_.counts.*kCounts[key - kFirstCount]);
        else
            walk_.violation(place, "\"{}\" is missing; add it", kKeys[key]);
    }
}

}  // namespace

void lint_size(ByteSource& source, Findings& findings, const DataResult& data, LintReport& report) {
    SizeLint(source, findings, data, report).run();
}

}  // namespace kvadmin
