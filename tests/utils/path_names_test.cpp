// Canonical paths, parents and special names: the known examples, and every short path over a small
// alphabet held against a second, component-wise reading of the same rules.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "provoke.h"
#include "support.h"

namespace {

using kvtest::logged;
using kvtest::logged_part;

// Takes the heap result over; no value for null.
std::optional<std::string> taken(char* text) {
    if (text == nullptr) return std::nullopt;
    std::string copy = text;
    std::free(text);
    return copy;
}

std::optional<std::string> normalized(const std::string& path) {
    return taken(normalize_path(path.c_str()));
}
std::optional<std::string> parent(const std::string& path) {
    return taken(parent_dir_from_path(path.c_str()));
}

std::vector<std::string> components(std::string_view path) {
    std::vector<std::string> found;
    std::string current;
    for (const char c : path) {
        if (c != '/') {
            current += c;
        } else if (!current.empty()) {
            found.push_back(std::move(current));
            current.clear();
        }
    }
    if (!current.empty()) found.push_back(std::move(current));
    return found;
}

std::string joined(const std::vector<std::string>& parts) {
    std::string text;
    for (const std::string& part : parts) {
        if (!text.empty()) text += '/';
        text += part;
    }
    return text;
}

// The rules once more: a list of names instead of a buffer.
std::optional<std::string> reference_normalized(const std::string& path) {
    const bool absolute = path.starts_with('/');
    std::vector<std::string> written;
    bool very_first = true;
    for (std::string& name : components(path)) {
        const bool first = std::exchange(very_first, false);
        if (name == ".") {
            if (first && !absolute) written.push_back(name);
        } else if (name == "..") {
            const bool nothing_to_remove =
                written.empty() || (written.size() == 1 && written.front() == ".");
            if (!nothing_to_remove) {
                written.pop_back();
            } else if (!absolute) {
                return std::nullopt;
            }
        } else {
            written.push_back(name);
        }
    }
    if (absolute) return "/" + joined(written);
    if (written.size() > 1 && written.front() == ".") written.erase(written.begin());
    return joined(written);
}

std::string without_trailing_slashes(std::string text) {
    while (text.ends_with('/')) text.pop_back();
    return text;
}

std::string reference_parent(const std::string& path) {
    if (path.empty()) return "";
    const std::string body = without_trailing_slashes(path);
    if (body.empty()) return "/";
    const std::size_t slash = body.rfind('/');
    if (slash == std::string::npos) return "";
    const std::string above = without_trailing_slashes(body.substr(0, slash));
    return above.empty() ? "/" : above;
}

// Calls `check` with every text over `alphabet` of at most `longest` characters.
template <typename Check>
void for_each_text(std::string_view alphabet, std::size_t longest, const Check& check) {
    std::vector<std::string> level{""};
    for (std::size_t length = 0;; ++length) {
        std::vector<std::string> next;
        for (const std::string& text : level) {
            check(text);
            if (length == longest) continue;
            for (const char c : alphabet) next.push_back(text + c);
        }
        if (length == longest) return;
        level = std::move(next);
    }
}

TEST(NormalizePath, GivesTheCanonicalFormOfKnownPaths) {
    const std::pair<const char*, const char*> examples[] = {
        {"a//b/", "a/b"},
        {"/a/./b/../c", "/a/c"},
        {"/..", "/"},
        {"a/..", ""},
        {".", "."},
        {"", ""},
        {"./a", "a"},
        {"//a///b//", "/a/b"},
        {"/a/../../b", "/b"},
        {"./a/..", "."},
        {"/", "/"},
        {"///", "/"},
        {"/.", "/"},
        {"a/.", "a"},
        {"a/./b", "a/b"},
        {"./.", "."},
        {"././a", "a"},
        {".../a", ".../a"},
        {"a/...", "a/..."},
        {"..x/a", "..x/a"},
        {"/..x", "/..x"},
        {"a/../b", "b"},
        {"a/.././b", "b"},
        {"/a/..", "/"},
        {"/a/../b/c", "/b/c"},
        {"a/b/..", "a"},
        {"./a/../b", "b"},
        {"/../../a", "/a"},
        {"a/b/../..", ""},
        {".a/.b", ".a/.b"},
        {"Café/Ä", "Café/Ä"},
        {"./", "."},
        {"a/./", "a"},
        {"//", "/"},
    };
    for (const auto& [path, expected] : examples) {
        SCOPED_TRACE(path);
        EXPECT_EQ(normalized(path), expected);
    }
}

TEST(NormalizePath, RelativePathCannotClimbAboveItsStart) {
    for (const char* path : {"../a", "..", "./..", "a/b/../../..", "a/../..", "./a/../..", "../",
                             "./../a", "a/../../b"}) {
        SCOPED_TRACE(path);
        errno = 0;
        EXPECT_EQ(normalize_path(path), nullptr);
        EXPECT_EQ(errno, ENOENT);
    }
}

TEST(NormalizePath, NullIsReturnedForNullWithErrnoUntouched) {
    errno = 1234;
    EXPECT_EQ(normalize_path(nullptr), nullptr);
    EXPECT_EQ(errno, 1234);
}

TEST(NormalizePath, EveryShortPathFollowsTheRules) {
    int checked = 0;
    for_each_text("/.a", 9, [&](const std::string& path) {
        ++checked;
        errno = 0;
        const auto expected = reference_normalized(path);
        const auto got = normalized(path);
        ASSERT_EQ(got, expected) << "'" << path << "'";
        if (!expected) {
            ASSERT_EQ(errno, ENOENT) << "'" << path << "'";
        }
    });
    EXPECT_EQ(checked, 29524);
}

TEST(NormalizePath, CanonicalPathsStayAsTheyAre) {
    for_each_text("/.ab", 6, [](const std::string& path) {
        const auto once = normalized(path);
        if (!once) return;
        ASSERT_EQ(normalized(*once), once) << "'" << path << "'";
    });
}

TEST(NormalizePath, LongPathKeepsEveryByte) {
    const std::string name(255, 'n');
    std::string path;
    for (int i = 0; i < 40; ++i) path += "/" + name;
    EXPECT_EQ(normalized(path), path);
    EXPECT_EQ(normalized(path + "//./x/.."), path);
}

TEST(NormalizePath, ExhaustedMemoryIsReported) {
    if (!kvtest::can_refuse_memory()) GTEST_SKIP() << "the sanitizer owns the allocator";
    char* result = nullptr;
    int error = 0;
    {
        const kvtest::RefusedAllocation first(1);
        errno = 0;
        result = normalize_path("a/b");
        error = errno;
    }
    EXPECT_EQ(result, nullptr);
    EXPECT_EQ(error, ENOMEM);
}

TEST(ParentDir, GivesThePathWithoutItsLastComponent) {
    const std::pair<const char*, const char*> examples[] = {
        {"a", ""},           {"/a", "/"},          {"a/b", "a"},      {"a//b/", "a"},
        {"/a/b", "/a"},      {"///", "/"},         {"/", "/"},        {"", ""},
        {"Shared", ""},      {"a/", ""},           {"a//", ""},       {"//a", "/"},
        {"//a//b//", "//a"}, {"/a//b/c", "/a//b"}, {"a/b//c", "a/b"}, {"/Shared/Docs", "/Shared"},
    };
    for (const auto& [path, expected] : examples) {
        SCOPED_TRACE(path);
        EXPECT_EQ(parent(path), expected);
    }
}

TEST(ParentDir, NullHasNoParent) {
    EXPECT_EQ(parent_dir_from_path(nullptr), nullptr);
}

TEST(ParentDir, EveryShortPathFollowsTheRules) {
    for_each_text("/ab", 9, [](const std::string& path) {
        ASSERT_EQ(parent(path), reference_parent(path)) << "'" << path << "'";
    });
}

TEST(ParentDir, ExhaustedMemoryGivesNull) {
    if (!kvtest::can_refuse_memory()) GTEST_SKIP() << "the sanitizer owns the allocator";
    char* result = nullptr;
    {
        const kvtest::RefusedAllocation first(1);
        result = parent_dir_from_path("a/b");
    }
    EXPECT_EQ(result, nullptr);
}

constexpr const char* kPrefixes[] = {".TemporaryItems",   ".DS_Store", "._.DS_Store",
                                     "._.TemporaryItems", ".Trash",    "Shared/.DS_Store",
                                     "Private/.DS_Store"};

TEST(SpecialNames, HousekeepingNamesAreSpecialInAnyCaseAndAsPrefixes) {
    const kvtest::ConfigTable table;
    for (const std::string name : kPrefixes) {
        SCOPED_TRACE(name);
        std::string upper = name;
        std::string lower = name;
        for (char& c : upper) c = static_cast<char>(std::toupper(c));
        for (char& c : lower) c = static_cast<char>(std::tolower(c));
        EXPECT_EQ(is_special_folder_file(name.c_str()), 1);
        EXPECT_EQ(is_special_folder_file(upper.c_str()), 1);
        EXPECT_EQ(is_special_folder_file(lower.c_str()), 1);
        EXPECT_EQ(is_special_folder_file((name + "_x").c_str()), 1);
        EXPECT_EQ(is_special_folder_file((name + "/a/b").c_str()), 1);
        EXPECT_EQ(is_special_folder_file((name + "é").c_str()), 1);
        EXPECT_EQ(is_special_folder_file(name.substr(0, name.size() - 1).c_str()), 0);
        EXPECT_EQ(is_special_folder_file(("x" + name).c_str()), 0);
        EXPECT_EQ(is_special_folder_file(("a/" + name).c_str()), 0);
    }
}

TEST(SpecialNames, KnownExamples) {
    const kvtest::ConfigTable table;
    for (const char* path : {".DS_Store", "._.DS_Store_x", ".trash-1000", "shared/.ds_store",
                             "Shared/a/.sb-123-xyz", ".sb-", "x.sb-", "a/.sb-/b"})
        EXPECT_EQ(is_special_folder_file(path), 1) << path;
    for (const char* path : {"Shared/x/.DS_Store", "Shared/x/.SB-1", ".sb", "sb-", "", "a",
                             "Shared", "é", ".SB-1", ".Tras\xC3\xA9", "Shared/.Trash"})
        EXPECT_EQ(is_special_folder_file(path), 0) << path;
}

TEST(SpecialNames, TracesTellWhatWasCompared) {
    const kvtest::ConfigTable table(100);
    EXPECT_EQ(is_special_folder_file(".Trash-1000"), 1);
    EXPECT_EQ(
        logged("NOT comparing SPECIAL_FOLDER_FILE_PATH=.TemporaryItems with path=.Trash-1000"), 1);
    EXPECT_EQ(logged_part("NOT comparing SPECIAL_FOLDER_FILE_PATH=.DS_Store"), 0);
    EXPECT_EQ(logged("NOT comparing SPECIAL_FOLDER_FILE_PATH=._.TemporaryItems with "
                     "path=.Trash-1000"),
              1);
    EXPECT_EQ(logged("FOUND SPECIAL_FOLDER_FILE_PATH=.Trash with path=.Trash-1000"), 1);
    EXPECT_EQ(logged_part("Shared/.DS_Store"), 0);  // found: later names are not looked at
    ASSERT_FALSE(kvtest::log_lines().empty());
    EXPECT_EQ(kvtest::log_lines().back().message,
              "is_special_folder_file: path=.Trash-1000 is_special=1");
}

TEST(SpecialNames, WildCardTraceNamesTheWildCard) {
    const kvtest::ConfigTable table(100);
    EXPECT_EQ(is_special_folder_file("Shared/a/.sb-123-xyz"), 1);
    EXPECT_EQ(logged("ENFORCE_PERMS \nis_special_folder_file: FOUND WILD_CARD=.sb- with "
                     "path=Shared/a/.sb-123-xyz"),
              1);
    EXPECT_EQ(kvtest::log_lines().back().message,
              "is_special_folder_file: path=Shared/a/.sb-123-xyz is_special=1");
}

TEST(SpecialNames, OrdinaryPathIsTracedAsOrdinary) {
    kvtest::ConfigTable table(100);
    EXPECT_EQ(is_special_folder_file("abc"), 0);
    for (const std::string name : kPrefixes)
        EXPECT_EQ(logged("NOT comparing SPECIAL_FOLDER_FILE_PATH=" + name + " with path=abc"), 1);
    EXPECT_EQ(kvtest::log_lines().back().message, "is_special_folder_file: path=abc is_special=0");
    kvtest::clear_log();
    table.set_debug_level(-1);
    EXPECT_EQ(is_special_folder_file("abc"), 0);
    EXPECT_TRUE(kvtest::log_lines().empty());
}

}  // namespace
