// See lint_data.h. Recursive descent, one C++ frame a nested element: depth is bounded because an
// element that is nested deeper than kDeepest has a path that no lookup can carry.
#include "lint_data.h"

#include <algorithm>
#include <cstddef>
#include <iterator>

#include "lint_acl.h"

namespace kvadmin {
namespace {

constexpr std::uint64_t kLongestName = 65'535;   // the image keeps the length in 16 bits
constexpr std::uint64_t kLongestPath = 4'095;    // what any system call takes
constexpr std::uint64_t kLongestFileName = 255;  // what any file system takes
constexpr unsigned kDeepest = kLongestPath / 2;  // each level costs a slash and a byte
constexpr std::size_t kKeptPath = 4'352;         // of a path that is shown

constexpr std::string_view kElementKeys[] = {"DIR", "ACL", "CHILDREN"};
enum ElementKey : std::size_t { kDir, kAcl, kChildren };

constexpr std::string_view kCountKey = "NUMCHILDREN";

// An element whose object is open.
struct Element {
    Place place;
    std::size_t parent_text = 0;     // bytes of the shown path without this element
    std::uint64_t parent_bytes = 0;  // bytes of the real path without it, as far as names are known
    std::uint64_t path_bytes = 0;    // and with it
    std::uint64_t below = 0;         // bytes that the longest path below adds to this one
    unsigned depth = 0;
    bool has[std::size(kElementKeys)] = {};
    bool too_long = false;  // reported, and so is everything below
};

class DataLint {
public:
    DataLint(ByteSource& source, Findings& findings) : walk_(source, findings) {}

    DataResult run();

private:
    struct ChildArray {
        bool top = false;
        bool has_count = false;
        std::uint64_t announced = 0;
        Place announced_at;
        std::uint64_t objects = 0;   // of any kind, read so far
        std::uint64_t elements = 0;  // element objects read so far
    };

    // One frame of each of these a level of a hostile document: kept small, so not merged.
    [[gnu::noinline]] void child_array(const Token& open, Element* parent);
    [[gnu::noinline]] void child_object(const Token& open, ChildArray& array, Element* parent);
    [[gnu::noinline]] void count_object(Token key, ChildArray& array);
    [[gnu::noinline]] void check_count(const Token& open, const ChildArray& array);
    [[gnu::noinline]] void element(const Place& place, Token key, bool has_key, Element* parent);
    [[gnu::noinline]] void member(Element& self, std::size_t key, const Token& value);
    [[gnu::noinline]] void close(Element& self, Element* parent);

    [[gnu::noinline]] void name(Element& self, const Token& value);
    [[gnu::noinline]] void warn_of_name(const Token& value);
    [[gnu::noinline]] void check_path(Element& self, const Token& value);
    [[gnu::noinline]] void show(const Element& self, std::string_view name);

    JsonWalk walk_;
    LintCounts counts_;
    AclLint acl_{walk_, counts_};
};

DataResult DataLint::run() {
    try {
        const Token open = walk_.begin();
        if (walk_.expect(open, TokenKind::kBeginArray, "the document")) child_array(open, nullptr);
        walk_.end();
    } catch (const CannotGoOn&) {
        return {counts_, false};
    }
    return {counts_, true};
}

// Arrays of children. The top-level array is one of a single child, the root. ---------------------

void DataLint::child_array(const Token& open, Element* parent) {
    ChildArray array;
    array.top = parent == nullptr;
    bool first = true;
    Token item;
    while (walk_.next_item(first, item)) {
        if (walk_.expect(item, TokenKind::kBeginObject,
                         array.objects == 0 ? "the first item of an array of children" : "a child"))
            child_object(item, array, parent);
        ++array.objects;
    }
    check_count(open, array);
}

void DataLint::child_object(const Token& open, ChildArray& array, Element* parent) {
    const bool leads = array.objects == 0;
    bool first = true;
    Token key;
    const bool has_key = walk_.next_key(first, key);
    const bool is_count = has_key && key.text == kCountKey;
    const bool is_element = has_key && index_of(kElementKeys, key.text) < std::size(kElementKeys);
    if (is_count || (leads && !is_element)) {
        if (!leads)
            walk_.violation(open.place,
                            "another {{\"NUMCHILDREN\": n}}; only the first object of the array "
                            "counts its children: remove it");
        if (!is_count)
            walk_.violation(open.place, "the array must begin with {{\"NUMCHILDREN\": n}}");
        if (has_key) count_object(key, array);
        return;
    }
    if (leads)
        walk_.violation(open.place,
                        "the array must begin with {{\"NUMCHILDREN\": n}}; put it before this "
                        "element");
    ++array.elements;
    if (array.top && array.elements > 1) {
        walk_.violation(open.place,
                        "a second root; the top level holds {{\"NUMCHILDREN\": 1}} and one "
                        "element");
    }
    element(open.place, key, has_key, parent);
}

// Members of {"NUMCHILDREN": n}, the first key of which was read.
void DataLint::count_object(Token key, ChildArray& array) {
    bool first = false;
    bool counted = false;
    do {
        if (key.text != kCountKey) {
            walk_.violation(key.place,
                            "unknown key {}; only \"NUMCHILDREN\" belongs in the first object of "
                            "an array of children",
                            quoted(key.text));
            walk_.skip(walk_.value());
            continue;
        }
        if (std::exchange(counted, true))
            walk_.violation(key.place, "\"NUMCHILDREN\" is given twice; keep one");
        const Token value = walk_.value();
        const auto number = walk_.number(value, UINT32_MAX, "\"NUMCHILDREN\"");
        if (!number || array.has_count || array.objects != 0) continue;
        array.has_count = true;
        array.announced = *number;
        array.announced_at = value.place;
    } while (walk_.next_key(first, key));
}

void DataLint::check_count(const Token& open, const ChildArray& array) {
    if (array.objects == 0)
        walk_.violation(open.place, "the array must begin with {{\"NUMCHILDREN\": n}}");
    if (array.top && array.elements == 0)
        walk_.violation(open.place, "the root element is missing; add it behind the first object");
    if (!array.has_count) return;
    if (array.top && array.announced != 1)
        walk_.violation(array.announced_at,
                        "the top-level \"NUMCHILDREN\" is {}; it must be 1, for the root",
                        array.announced);
    if (!array.top && array.announced != array.elements)
        walk_.violation(array.announced_at,
                        "\"NUMCHILDREN\" is {}, but {} element{} follow{}; write {}",
                        array.announced, array.elements, array.elements == 1 ? "" : "s",
                        array.elements == 1 ? "s" : "", array.elements);
}

// Elements ----------------------------------------------------------------------------------------

void DataLint::element(const Place& place, Token key, bool has_key, Element* parent) {
    Element self;
    self.place = place;
    self.depth = parent == nullptr ? 0 : parent->depth + 1;
    self.parent_text = self.depth > 1 ? walk_.path.size() : 0;
    self.parent_bytes = self.path_bytes = parent == nullptr ? 0 : parent->path_bytes;
    self.too_long = parent != nullptr && parent->too_long;
    if (self.depth > kDeepest)
        walk_.stop(place, "nested {} levels deep; a path of that many names cannot be looked up",
                   self.depth);
    ++counts_.elements;
    show(self, self.depth == 0 ? "" : "(unnamed)");
    bool first = false;
    for (bool more = has_key; more; more = walk_.next_key(first, key)) {
        const std::size_t index = index_of(kElementKeys, key.text);
        const Place key_place = key.place;
        if (index == std::size(kElementKeys)) {
            walk_.violation(key_place,
                            "unknown key {}; an element holds \"DIR\", \"ACL\" and \"CHILDREN\"",
                            quoted(key.text));
            walk_.skip(walk_.value());
        } else if (std::exchange(self.has[index], true)) {
            walk_.violation(key_place, "\"{}\" is given twice; keep one", kElementKeys[index]);
            walk_.skip(walk_.value());
        } else {
            member(self, index, walk_.value());
        }
    }
    close(self, parent);
}

void DataLint::member(Element& self, std::size_t key, const Token& value) {
    switch (key) {
        case kDir:
            if (walk_.expect(value, TokenKind::kString, "\"DIR\"")) name(self, value);
            break;
        case kAcl:
            if (walk_.expect(value, TokenKind::kBeginArray, "\"ACL\"")) acl_.check(value);
            break;
        case kChildren:
            if (walk_.expect(value, TokenKind::kBeginArray, "\"CHILDREN\""))
                child_array(value, &self);
            break;
    }
}

void DataLint::close(Element& self, Element* parent) {
    constexpr std::string_view kAdvice[] = {
        "its name", "[{\"NUMUSERS\": 0}, {\"NUMGROUPS\": 0}, {\"USERS\": {}}, {\"GROUPS\": {}}]",
        "[{\"NUMCHILDREN\": 0}] for a file or an empty folder"};
    static_assert(std::size(kAdvice) == std::size(kElementKeys));
    for (std::size_t key = 0; key < std::size(kElementKeys); ++key)
        if (!self.has[key])
            walk_.violation(self.place, "the element has no \"{}\"; add {}", kElementKeys[key],
                            kAdvice[key]);
    walk_.path.resize(self.parent_text);
    if (self.depth == 1) walk_.path.assign(1, '/');
    if (parent == nullptr || self.too_long) return;
    const std::uint64_t own = self.path_bytes - self.parent_bytes;
    parent->below = std::max(parent->below, own + self.below);
}

// Names -------------------------------------------------------------------------------------------

void DataLint::name(Element& self, const Token& value) {
    const bool is_root = self.depth == 0;
    counts_.name_bytes += value.length + 1;
    if (!is_root) {
        self.path_bytes = self.parent_bytes + 1 + value.length;
        show(self, value.text);
    }
    walk_.sound_string(value, "\"DIR\"");
    if (is_root) {
        if (value.text != "/")
            walk_.violation(value.place, "the root is named {}; it must be \"/\"",
                            quoted(value.text));
        return;
    }
    if (value.length == 0)
        walk_.violation(value.place, "\"DIR\" is empty; every element has a name");
    if (value.has_nul)
        walk_.violation(value.place, "\"DIR\" holds a NUL character, which no file name can hold");
    if (value.length > kLongestName)
        walk_.violation(value.place, "\"DIR\" is {} bytes long; the image keeps at most {}",
                        value.length, kLongestName);
    warn_of_name(value);
    check_path(self, value);
}

void DataLint::warn_of_name(const Token& value) {
    if (value.text.find('/') != std::string_view::npos)
        walk_.warning(value.place, "\"DIR\" holds a '/', so no path ever leads to this element");
    if (value.text == "." || value.text == "..")
        walk_.warning(value.place, "\"DIR\" is {}, which never is the name of a file",
                      quoted(value.text));
    if (value.length > kLongestFileName && value.length <= kLongestName)
        walk_.warning(value.place,
                      "\"DIR\" is {} bytes long; no file system holds a name of more than {}",
                      value.length, kLongestFileName);
}

// Names may come in behind children, so a long path shows itself at the last name that makes it.
void DataLint::check_path(Element& self, const Token& value) {
    const std::uint64_t longest = self.path_bytes + self.below;
    if (self.too_long || longest <= kLongestPath) return;
    self.too_long = true;
    walk_.violation(value.place,
                    "the path of {} is {} bytes long; one of more than {} can never be looked up",
                    self.path_bytes > kLongestPath ? "this element" : "an element below this one",
                    longest, kLongestPath);
}

void DataLint::show(const Element& self, std::string_view name) {
    std::string& path = walk_.path;
    path.resize(self.parent_text);
    if (path.size() >= kKeptPath) return;
    path += '/';
    path += name.substr(0, kKeptPath - path.size());
}

}  // namespace

DataResult lint_data(ByteSource& source, Findings& findings) {
    return DataLint(source, findings).run();
}

}  // namespace kvadmin
