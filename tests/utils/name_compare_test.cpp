// The case rules of names: the ASCII comparisons with their deliberate differences, held against an
// independent reading for every pair of short strings, and the fall-back to the real Samba library.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "provoke.h"
#include "support.h"

namespace {

using kvtest::expect_in_child;
using kvtest::logged;
using kvtest::logged_part;

constexpr const char* kSambaFolder = "/usr/lib/x86_64-linux-gnu/samba";

int sign(int value) {
    return (value > 0) - (value < 0);
}

bool extended(char c) {
    return (static_cast<unsigned char>(c) & 0x80) != 0;
}

// What a comparison says at one position, or no value to go on.
constexpr int kGoOn = 99;
int at_position(const std::string& a, const std::string& b, std::size_t i) {
    const bool a_ended = i >= a.size();
    const bool b_ended = i >= b.size();
    if (a_ended) return b_ended ? 0 : -1;
    if (b_ended) return 1;
    const bool a_extended = extended(a[i]);
    const bool b_extended = extended(b[i]);
    if (a_extended || b_extended) return a_extended ? (b_extended ? 2 : 1) : -1;
    const int a_upper = std::toupper(a[i]);
    const int b_upper = std::toupper(b[i]);
    return a_upper == b_upper ? kGoOn : (a_upper > b_upper ? 1 : -1);
}

int reference(const std::string& a, const std::string& b, std::size_t first, std::size_t limit) {
    for (std::size_t i = first; i < limit; ++i) {
        const int verdict = at_position(a, b, i);
        if (verdict != kGoOn) return verdict;
    }
    return 0;
}

std::vector<std::string> short_texts(std::size_t longest) {
    std::vector<std::string> texts{""};
    for (std::size_t begin = 0, length = 0; length < longest; ++length) {
        const std::size_t end = texts.size();
        for (std::size_t i = begin; i < end; ++i) {
            for (const char c : {'a', 'A', 'b', '[', '_', '\xC3', '\xA9'})
                texts.push_back(texts[i] + c);
        }
        begin = end;
    }
    return texts;
}

template <typename Check>
void for_each_pair(std::size_t longest, const Check& check) {
    const std::vector<std::string> texts = short_texts(longest);
    for (const std::string& a : texts) {
        for (const std::string& b : texts) check(a, b);
    }
}

TEST(StrcaseCmp, FirstCharactersAreNeverLookedAt) {
    EXPECT_EQ(kavrin_strcasecmp("a", "b"), 0);
    EXPECT_EQ(kavrin_strcasecmp("xabc", "yABC"), 0);
    EXPECT_EQ(kavrin_strcasecmp("\xC3Z", "az"), 0);
    EXPECT_EQ(kavrin_strcasecmp("a", "\xC3"), 0);
    EXPECT_EQ(kavrin_strcasecmp("ab", "a"), 1);
    EXPECT_EQ(kavrin_strcasecmp("a", "ab"), -1);
    EXPECT_EQ(kavrin_strcasecmp("xa", "xb"), -1);
    EXPECT_EQ(kavrin_strcasecmp("xB", "xa"), 1);
}

TEST(StrcaseCmp, EveryShortPairFollowsTheRules) {
    for_each_pair(3, [](const std::string& a, const std::string& b) {
        if (a.empty() || b.empty()) return;
        ASSERT_EQ(kavrin_strcasecmp(a.c_str(), b.c_str()), reference(a, b, 1, a.size() + 1))
            << testing::PrintToString(a) << " " << testing::PrintToString(b);
    });
}

TEST(StrncaseCmp, EveryShortPairAndLengthFollowsTheRules) {
    for_each_pair(3, [](const std::string& a, const std::string& b) {
        for (const int length : {0, 1, 2, 3, 4, 9}) {
            ASSERT_EQ(kavrin_strncasecmp(a.c_str(), b.c_str(), length),
                      reference(a, b, 0, static_cast<std::size_t>(length)))
                << testing::PrintToString(a) << " " << testing::PrintToString(b) << length;
        }
    });
}

TEST(StrncaseCmp, LengthBelowOneIsAlwaysEqual) {
    EXPECT_EQ(kavrin_strncasecmp("a", "b", 0), 0);
    EXPECT_EQ(kavrin_strncasecmp("a", "b", -1), 0);
    EXPECT_EQ(kavrin_strncasecmp("\xC3", "b", -2147483647 - 1), 0);
}

TEST(StrncaseCmp, OnlyTheFirstCharactersCount) {
    EXPECT_EQ(kavrin_strncasecmp("Docs", "DOCX", 3), 0);
    EXPECT_EQ(kavrin_strncasecmp("Docs", "DOCX", 4), -1);
    EXPECT_EQ(kavrin_strncasecmp("ab", "ab", 5), 0);
    EXPECT_EQ(kavrin_strncasecmp("ab", "abc", 5), -1);
    EXPECT_EQ(kavrin_strncasecmp("abc", "ab", 5), 1);
}

TEST(StrncaseCmp, ExtendedCharactersAreLeftToSamba) {
    EXPECT_EQ(kavrin_strncasecmp("Café", "CAFÉ", 5), 2);
    EXPECT_EQ(kavrin_strncasecmp("Café", "Café", 5), 2);
    EXPECT_EQ(kavrin_strncasecmp("Café", "CAFE", 4), 1);
    EXPECT_EQ(kavrin_strncasecmp("CAFE", "Café", 4), -1);
    EXPECT_EQ(kavrin_strncasecmp("Bafé", "CAFÉ", 5), -1);
    EXPECT_EQ(kavrin_strncasecmp("Caf", "CAFÉ", 5), -1);
    EXPECT_EQ(kavrin_strncasecmp("Café", "CAFÉ", 3), 0);
}

TEST(TracedStrcaseCmp, EveryShortPairFollowsTheRules) {
    const kvtest::ConfigTable table(-1);
    for_each_pair(3, [](const std::string& a, const std::string& b) {
        ASSERT_EQ(__kavrin_strcasecmp(a.c_str(), b.c_str()), reference(a, b, 0, a.size() + 1))
            << testing::PrintToString(a) << " " << testing::PrintToString(b);
    });
}

TEST(TracedStrcaseCmp, MessagesNameTheOutcome) {
    kvtest::ConfigTable table(100);
    EXPECT_EQ(__kavrin_strcasecmp("xB", "xA"), 1);
    EXPECT_EQ(logged("+ Misatched p1 B p2 A"), 1);
    kvtest::clear_log();
    EXPECT_EQ(__kavrin_strcasecmp("xA", "xB"), -1);
    EXPECT_EQ(logged("- Misatched p1 A p2 B"), 1);
    kvtest::clear_log();
    EXPECT_EQ(__kavrin_strcasecmp("shared", "SHARED"), 0);
    EXPECT_EQ(logged("Matched"), 1);
    EXPECT_EQ(logged_part("isatched"), 0);
    kvtest::clear_log();
    EXPECT_EQ(__kavrin_strcasecmp("x\xC3", "x\xC3"), 2);
    EXPECT_EQ(logged("Extended character detected"), 1);
    EXPECT_EQ(logged_part("atched"), 0);
    kvtest::clear_log();
    table.set_debug_level(-1);
    EXPECT_EQ(__kavrin_strcasecmp("shared", "SHARED"), 0);
    EXPECT_EQ(__kavrin_strcasecmp("xB", "xA"), 1);
    EXPECT_EQ(__kavrin_strcasecmp("x\xC3", "x\xC3"), 2);
    EXPECT_TRUE(kvtest::log_lines().empty());
}

TEST(TracedStrncaseCmp, FirstStringThatEndsEarlyIsLessEvenAgainstItself) {
    const kvtest::ConfigTable table;
    EXPECT_EQ(__kavrin_strncasecmp("ab", "ab", 5), -1);
    EXPECT_EQ(__kavrin_strncasecmp("ab", "ab", 3), -1);
    EXPECT_EQ(__kavrin_strncasecmp("ab", "ab", 2), 0);
    EXPECT_EQ(__kavrin_strncasecmp("ab", "abc", 2), 0);
    EXPECT_EQ(__kavrin_strncasecmp("", "", 1), -1);
    EXPECT_EQ(__kavrin_strncasecmp("abc", "ab", 5), 1);
}

TEST(TracedStrncaseCmp, EveryShortPairAndLengthFollowsTheRules) {
    const kvtest::ConfigTable table(-1);
    for_each_pair(3, [](const std::string& a, const std::string& b) {
        for (const std::size_t length : {1, 2, 3, 4, 9}) {
            int expected = reference(a, b, 0, length);
            // Equal up to a common end inside the length: the first string ended.
            if (expected == 0 && a.size() < length) expected = -1;
            ASSERT_EQ(__kavrin_strncasecmp(a.c_str(), b.c_str(), static_cast<int>(length)),
                      expected)
                << testing::PrintToString(a) << " " << testing::PrintToString(b) << length;
        }
    });
}

TEST(TracedStrncaseCmp, MessagesNameTheOutcome) {
    kvtest::ConfigTable table(100);
    EXPECT_EQ(__kavrin_strncasecmp("xB", "xA", 2), 1);
    EXPECT_EQ(logged("+ Mismatched p1 B p2 A"), 1);
    kvtest::clear_log();
    EXPECT_EQ(__kavrin_strncasecmp("xA", "xB", 2), -1);
    EXPECT_EQ(logged("- Mismatched p1 A p2 B"), 1);
    kvtest::clear_log();
    EXPECT_EQ(__kavrin_strncasecmp("x\xC3", "x\xC3", 3), 2);
    EXPECT_EQ(logged("Extended character detected"), 1);
    kvtest::clear_log();
    EXPECT_EQ(__kavrin_strncasecmp("sharedX", "SHAREDY", 6), 0);
    EXPECT_EQ(
        kvtest::logged_matching(kvtest::log_lines(), "end of input length, match, char #[0-9]+"),
        1);
    kvtest::clear_log();
    table.set_debug_level(-1);
    EXPECT_EQ(__kavrin_strncasecmp("sharedX", "SHAREDY", 6), 0);
    EXPECT_EQ(__kavrin_strncasecmp("xA", "xB", 2), -1);
    EXPECT_TRUE(kvtest::log_lines().empty());
}

TEST(PathsMatch, CaseIsIgnoredFromTheFirstCharacterOn) {
    kvtest::ConfigTable table(100);
    EXPECT_EQ(_paths_match("SHARED", "shared"), 1);
    EXPECT_EQ(_paths_match("", ""), 1);
    EXPECT_EQ(logged("Paths do not match"), 0);
    EXPECT_EQ(_paths_match("xabc", "yabc"), 0);
    EXPECT_EQ(logged("Paths do not match"), 1);
    EXPECT_EQ(_paths_match("shared", "shared/"), 0);
    EXPECT_EQ(_paths_match("shared/", "shared"), 0);
    table.set_debug_level(-1);
    kvtest::clear_log();
    EXPECT_EQ(_paths_match("a", "b"), 0);
    EXPECT_TRUE(kvtest::log_lines().empty());
}

TEST(PathsMatch, BoundedMatchNeedsTheWholeLength) {
    const kvtest::ConfigTable table(100);
    EXPECT_EQ(_paths_match_len("private", "private/", 8), 0);
    EXPECT_EQ(logged("compare path 'private' to 'private/' for len 8"), 1);
    EXPECT_EQ(_paths_match_len("private/x", "PRIVATE/", 8), 1);
    EXPECT_EQ(_paths_match_len("private", "privatE", 7), 1);
    EXPECT_EQ(_paths_match_len("private", "private", 8), 0);
    EXPECT_EQ(_paths_match_len("public", "private", 1), 1);
}

TEST(PathsMatch, ExtendedCharactersAreDecidedBySamba) {
    const kvtest::ConfigTable table(100);
    EXPECT_EQ(_paths_match("Café", "CAFÉ"), 1);
    EXPECT_EQ(logged("strcasecmp_m_wrapper match"), 1);
    EXPECT_EQ(_paths_match("Ärger", "äRGER"), 1);
    EXPECT_EQ(_paths_match("Ärger", "Örger"), 0);
    EXPECT_EQ(logged("Paths do not match"), 1);
    EXPECT_EQ(_paths_match("Café", "CAFÉx"), 0);
    EXPECT_EQ(_paths_match("Cafe", "Café"), 0);
}

TEST(PathsMatch, BoundedExtendedMatchIsDecidedBySamba) {
    const kvtest::ConfigTable table(100);
    EXPECT_EQ(_paths_match_len("Café", "CAFÉ", 5), 1);
    EXPECT_EQ(logged("strncasecmp_m_wrapper match"), 1);
    EXPECT_EQ(_paths_match_len("Ärger/x", "äRGER/y", 6), 1);
    EXPECT_EQ(_paths_match_len("Ärger", "Örger", 6), 0);
}

TEST(Samba, WholeStringsAreCompared) {
    const kvtest::ConfigTable table;
    EXPECT_EQ(strcasecmp_m_wrapper("Café", "CAFÉ"), 0);
    EXPECT_EQ(strcasecmp_m_wrapper("Ärger", "äRGER"), 0);
    EXPECT_NE(strcasecmp_m_wrapper("Café", "CAFÉx"), 0);
    EXPECT_NE(strcasecmp_m_wrapper("Caféx", "CAFÉ"), 0);
    EXPECT_NE(strcasecmp_m_wrapper("Ärger", "Örger"), 0);
    const std::string lower(5000, 'z');
    const std::string upper(5000, 'Z');
    EXPECT_EQ(strcasecmp_m_wrapper((lower + "é").c_str(), (upper + "É").c_str()), 0);
    EXPECT_NE(strcasecmp_m_wrapper((lower + "éa").c_str(), (upper + "Éb").c_str()), 0);
}

TEST(Samba, BoundedComparisonStopsAtTheLength) {
    const kvtest::ConfigTable table;
    EXPECT_EQ(strncasecmp_m_wrapper("äx", "Äy", 1), 0);
    EXPECT_NE(strncasecmp_m_wrapper("äx", "Äy", 2), 0);
    EXPECT_EQ(strncasecmp_m_wrapper("äx", "ÖX", 0), 0);
}

TEST(Samba, ResultComesBackUnchanged) {
    const kvtest::ConfigTable table;
    void* library = nullptr;
    for (const char* name : {"libsamdb-common.so.0", "libsamdb-common-samba4.so.0",
                             "libsamdb-common-private-samba.so.0"}) {
        if (library == nullptr)
            library = dlopen((std::string(kSambaFolder) + "/" + name).c_str(), RTLD_LAZY);
    }
    ASSERT_NE(library, nullptr);
    using Compare = int(const char*, const char*, std::size_t);
    auto* const compare = reinterpret_cast<Compare*>(dlsym(library, "strncasecmp_m"));
    ASSERT_NE(compare, nullptr);
    const char* const texts[] = {"",   "a",    "B",     "Café", "CAFÉ",   "café/x", "Äa",
                                 "äB", "\xFF", "\xFFx", "日本", "日本語", "Zürich"};
    for (const std::string a : texts) {
        for (const std::string b : texts) {
            SCOPED_TRACE(a + " " + b);
            for (const std::size_t n : {1u, 3u, 50u})
                EXPECT_EQ(strncasecmp_m_wrapper(a.c_str(), b.c_str(), n),
                          compare(a.c_str(), b.c_str(), n));
            EXPECT_EQ(strcasecmp_m_wrapper(a.c_str(), b.c_str()),
                      compare(a.c_str(), b.c_str(), std::max(a.size(), b.size()) + 1));
        }
    }
    EXPECT_LT(sign(compare("a", "B", 5)), 0);  // the table holds unequal pairs of both signs
    dlclose(library);
}

TEST(Samba, LengthThatCoversBothWholeStringsIsAskedFor) {
    const kvtest::ConfigTable table;
    expect_in_child([] {
        kvtest::replace_samba(UNEQUAL_SAMBA);
        EXPECT_EQ(strcasecmp_m_wrapper("é", "abcdef"), 1000 + 7);
        EXPECT_EQ(strcasecmp_m_wrapper("abcdefgh", "é"), 1000 + 9);
        EXPECT_EQ(strcasecmp_m_wrapper("", ""), 1000 + 1);
        EXPECT_EQ(strncasecmp_m_wrapper("é", "abcdef", 3), 1000 + 3);
        EXPECT_EQ(_paths_match("é", "é"), 0);
        EXPECT_EQ(_paths_match_len("é", "é", 2), 0);
    });
}

// A process without Samba's libraries, and one with something else under their first name.
TEST(Samba, MissingLibraryEndsTheProcess) {
    const kvtest::ConfigTable table;
    const auto ends_with_status_1 = [](const std::function<void()>& call) {
        const kvtest::ChildResult child = kvtest::run_child([&] {
            kvtest::replace_samba();
            call();
            return 5;
        });
        EXPECT_TRUE(child.exited);
        EXPECT_EQ(child.exit_code, 1);
        EXPECT_EQ(
            kvtest::logged_matching(child.log,
                                    "Failed to open samba common lib: .*cannot open shared object "
                                    "file: No such file or directory"),
            1);
    };
    ends_with_status_1([] { init_samba_lib_handle(); });
    ends_with_status_1([] { strcasecmp_m_wrapper("é", "é"); });
    ends_with_status_1([] { strncasecmp_m_wrapper("é", "é", 2); });
    ends_with_status_1([] { _paths_match("Café", "Café"); });
    ends_with_status_1([] { _paths_match_len("Café", "Café", 5); });
}

TEST(Samba, MissingLibraryIsNotToldAtANegativeLevel) {
    const kvtest::ConfigTable table(-1);
    const kvtest::ChildResult child = kvtest::run_child_void([] {
        kvtest::replace_samba();
        init_samba_lib_handle();
    });
    EXPECT_EQ(child.exit_code, 1);
    EXPECT_TRUE(child.log.empty());
}

TEST(Samba, AsciiComparisonsNeverOpenTheLibrary) {
    const kvtest::ConfigTable table;
    expect_in_child([] {
        kvtest::replace_samba();
        EXPECT_EQ(_paths_match("SHARED", "shared"), 1);
        EXPECT_EQ(_paths_match("a", "b"), 0);
        EXPECT_EQ(_paths_match("cafe", "café"), 0);
        EXPECT_EQ(_paths_match_len("shared/é", "SHARED/ü", 7), 1);
        EXPECT_EQ(is_special_folder_file("Shared/é"), 0);
        EXPECT_EQ(kavrin_strncasecmp("é", "é", 2), 2);
    });
}

TEST(Samba, LibraryStaysOpenForTheLifeOfTheProcess) {
    const kvtest::ConfigTable table;
    expect_in_child([] {
        init_samba_lib_handle();
        kvtest::hide_folder(kSambaFolder);
        init_samba_lib_handle();
        EXPECT_EQ(strcasecmp_m_wrapper("Café", "CAFÉ"), 0);
    });
}

TEST(Samba, LibraryWithoutTheRoutineEndsTheProcess) {
    kvtest::ConfigTable table;
    const auto child_of = [](const std::function<void()>& call) {
        return kvtest::run_child([&] {
            kvtest::replace_samba("/lib/x86_64-linux-gnu/libm.so.6");
            init_samba_lib_handle();
            call();
            return 5;
        });
    };
    const kvtest::ChildResult whole = child_of([] { strcasecmp_m_wrapper("é", "é"); });
    EXPECT_EQ(whole.exit_code, 1);
    EXPECT_EQ(kvtest::logged_matching(
                  whole.log, "Failed to find samba strcasecmp_m pointer : .*strncasecmp_m.*"),
              1);
    const kvtest::ChildResult bounded = child_of([] { strncasecmp_m_wrapper("é", "é", 2); });
    EXPECT_EQ(bounded.exit_code, 1);
    EXPECT_EQ(kvtest::logged_matching(
                  bounded.log, "Failed to find samba strncasecmp_m pointer : .*strncasecmp_m.*"),
              1);
    table.set_debug_level(-1);
    const kvtest::ChildResult silent = child_of([] { strcasecmp_m_wrapper("é", "é"); });
    EXPECT_EQ(silent.exit_code, 1);
    EXPECT_TRUE(silent.log.empty());
}

}  // namespace
