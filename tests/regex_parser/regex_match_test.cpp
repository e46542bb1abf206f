// The C library's expressions under one fixed set of flags: what compiles, what matches, and what
// is said about arguments that are not there.
#include <gtest/gtest.h>
#include <malloc.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "provoke.h"
#include "regex_parser.h"
#include "support.h"

namespace kvtest {
namespace {

static_assert(REGEX_ERROR == -1 && REGEX_FALSE == 0 && REGEX_TRUE == 1);

e_regex_matchres_t match(std::string pattern, std::string text) {
    return match_regex_string(pattern.data(), text.data());
}

// A compiled pattern that gives itself back.
struct Compiled {
    explicit Compiled(std::string pattern) { result = get_regex_matchbuf(pattern.data(), &block); }
    ~Compiled() {
        if (result == REGEX_TRUE) regfree(block);
        std::free(block);
    }
    Compiled(const Compiled&) = delete;
    Compiled& operator=(const Compiled&) = delete;
    e_regex_matchres_t matches(std::string text) const {
        return match_string_with_regex_buf(text.data(), block);
    }
    regex_t* block = nullptr;
    e_regex_matchres_t result = REGEX_FALSE;
};

class RegexMatch : public testing::Test {
protected:
    // Expects these messages in this order at level 0, and silence below.
    template <typename Body>
    void expect_logged(const std::vector<std::string>& messages, Body body) {
        for (const int level : {-1, 0}) {
            config.set_debug_level(level);
            clear_log();
            body();
            std::vector<std::string> said;
            for (const LogLine& line : log_lines()) said.push_back(line.message);
            EXPECT_EQ(said, level < 0 ? std::vector<std::string>{} : messages);
        }
    }
    ConfigTable config{0};
};

// Compiling ---------------------------------------------------------------------------------------

TEST_F(RegexMatch, CompilingAllocatesTheBlock) {
    const Compiled compiled("a+b");
    EXPECT_EQ(compiled.result, REGEX_TRUE);
    ASSERT_NE(compiled.block, nullptr);
    EXPECT_EQ(compiled.matches("xaabx"), REGEX_TRUE);
    EXPECT_EQ(compiled.matches("b"), REGEX_FALSE);
}

TEST_F(RegexMatch, CompilingUsesTheBlockItIsGiven) {
    auto* const given = static_cast<regex_t*>(std::malloc(sizeof(regex_t)));
    std::memset(static_cast<void*>(given), 0xA5, sizeof *given);
    regex_t* block = given;
    char pattern[] = "^tmp$";
    EXPECT_EQ(get_regex_matchbuf(pattern, &block), REGEX_TRUE);
    EXPECT_EQ(block, given);
    char text[] = "TMP";
    EXPECT_EQ(match_string_with_regex_buf(text, block), REGEX_TRUE);
    regfree(block);
    std::free(block);
}

TEST_F(RegexMatch, PatternThatDoesNotCompileIsASilentError) {
    config.set_debug_level(10);
    clear_log();
    for (const char* pattern : {"(", "[", "a{2", "*(", "a**)(", "[[:nothing:]]", "\\"})
        EXPECT_EQ(Compiled(pattern).result, REGEX_ERROR) << pattern;
    EXPECT_TRUE(log_lines().empty());
}

TEST_F(RegexMatch, PatternsAreExtendedExpressions) {
    EXPECT_EQ(Compiled("^(a|bc)+$").matches("abca"), REGEX_TRUE);
    EXPECT_EQ(Compiled("^(a|bc)+$").matches("(a|bc)+"), REGEX_FALSE);
    EXPECT_EQ(Compiled("^x{2,3}$").matches("xx"), REGEX_TRUE);
    EXPECT_EQ(Compiled("^x{2,3}$").matches("xxxx"), REGEX_FALSE);
    EXPECT_EQ(Compiled("^x?$").matches(""), REGEX_TRUE);
}

TEST_F(RegexMatch, PatternsIgnoreLetterCase) {
    EXPECT_EQ(Compiled("\\.tmp$").matches("REPORT.TMP"), REGEX_TRUE);
    EXPECT_EQ(Compiled("\\.TMP$").matches("report.tmp"), REGEX_TRUE);
    EXPECT_EQ(Compiled("^[a-c]$").matches("B"), REGEX_TRUE);
}

TEST_F(RegexMatch, PatternsReportNoSubMatches) {
    const Compiled compiled("(a)b");
    regmatch_t found = {77, 78};
    EXPECT_EQ(regexec(compiled.block, "xab", 1, &found, 0), 0);
    EXPECT_EQ(found.rm_so, 77);
    EXPECT_EQ(found.rm_eo, 78);
}

TEST_F(RegexMatch, MatchAnywhereCountsUnlessThePatternAnchorsItself) {
    EXPECT_EQ(Compiled("mp").matches("a/tmp/b"), REGEX_TRUE);
    EXPECT_EQ(Compiled("^mp").matches("a/tmp/b"), REGEX_FALSE);
    EXPECT_EQ(Compiled("mp$").matches("a/tmp/b"), REGEX_FALSE);
    EXPECT_EQ(Compiled("^a.*b$").matches("a/tmp/b"), REGEX_TRUE);
    EXPECT_EQ(Compiled("^b").matches("a\nb"), REGEX_FALSE) << "a line end is no start";
}

TEST_F(RegexMatch, EmptyPatternMatchesEverything) {
    EXPECT_EQ(Compiled("").matches("anything"), REGEX_TRUE);
    EXPECT_EQ(Compiled("").matches(""), REGEX_TRUE);
}

TEST_F(RegexMatch, WithoutMemoryNothingIsCompiled) {
    if (!can_refuse_memory()) GTEST_SKIP() << "the sanitizer owns the allocator";
    char pattern[] = "a";
    regex_t* block = nullptr;
    const RefusedAllocation refused(1);
    EXPECT_EQ(get_regex_matchbuf(pattern, &block), REGEX_ERROR);
    EXPECT_EQ(block, nullptr);
}

// Matching ----------------------------------------------------------------------------------------

TEST_F(RegexMatch, MissingArgumentsAreTold) {
    const Compiled compiled("a");
    char text[] = "a";
    expect_logged({"Bad arguments\n", "Bad regbuf\n"},
                  [&] { EXPECT_EQ(match_string_with_regex_buf(text, nullptr), REGEX_ERROR); });
    expect_logged({"Bad arguments\n", "Bad file name\n"}, [&] {
        EXPECT_EQ(match_string_with_regex_buf(nullptr, compiled.block), REGEX_ERROR);
    });
    expect_logged({"Bad arguments\n", "Bad regbuf\n", "Bad file name\n"},
                  [&] { EXPECT_EQ(match_string_with_regex_buf(nullptr, nullptr), REGEX_ERROR); });
    config.set_debug_level(10);
    clear_log();
    EXPECT_EQ(match_string_with_regex_buf(text, compiled.block), REGEX_TRUE);
    EXPECT_TRUE(log_lines().empty());
}

TEST_F(RegexMatch, MatchingOnceCompilesWithTheSameFlags) {
    EXPECT_EQ(match("\\.tmp$", "REPORT.TMP"), REGEX_TRUE);
    EXPECT_EQ(match("^(a|b){2}$", "aB"), REGEX_TRUE);
    EXPECT_EQ(match("^(a|b){2}$", "abc"), REGEX_FALSE);
    EXPECT_EQ(match("mp", "a/tmp/b"), REGEX_TRUE);
    EXPECT_EQ(match("", "x"), REGEX_TRUE);
    EXPECT_TRUE(log_lines().empty());
}

TEST_F(RegexMatch, MatchingOnceNeedsBothArguments) {
    char text[] = "a";
    expect_logged({"Pattern is null\n"},
                  [&] { EXPECT_EQ(match_regex_string(nullptr, text), REGEX_ERROR); });
    expect_logged({"String is null\n"},
                  [&] { EXPECT_EQ(match_regex_string(text, nullptr), REGEX_ERROR); });
    expect_logged({"Pattern is null\n", "String is null\n"},
                  [&] { EXPECT_EQ(match_regex_string(nullptr, nullptr), REGEX_ERROR); });
}

TEST_F(RegexMatch, MatchingOnceTellsWhyAPatternDoesNotCompile) {
    for (const char* pattern : {"(", "[", "a{2"}) {
        regex_t compiled;
        char reason[1024];
        const int error = regcomp(&compiled, pattern, REG_EXTENDED | REG_ICASE | REG_NOSUB);
        ASSERT_NE(error, 0);
        regerror(error, &compiled, reason, sizeof reason);
        expect_logged(
            {"Cannot compile pattern " + std::string(pattern) + " due to " + reason + "\n"},
            [&] { EXPECT_EQ(match(pattern, "a"), REGEX_ERROR); });
    }
}

TEST_F(RegexMatch, MatchingOnceKeepsNoMemory) {
    config.set_debug_level(-1);
    const auto round = [] {
        match("(a|b)+c{3,9}.*[[:alpha:]]", "xabccccz");
        match("(a|b)+c{3,9}.*[[:alpha:]]", "nothing");
        match("(a|b)+c{3,9}.*[[:alpha:]](", "xabccccz");
    };
    round();
    const std::size_t before = mallinfo2().uordblks;
    for (int i = 0; i < 100; ++i) round();
    EXPECT_LT(mallinfo2().uordblks, before + 20000) << "each of them takes thousands of bytes";
}

}  // namespace
}  // namespace kvtest
