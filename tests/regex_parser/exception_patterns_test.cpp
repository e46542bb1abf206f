// The exception pattern file in the table of compiled patterns, line by line, and the question
// whether a file may be deleted by one of them.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>
#include <filesystem>
#include <string>
#include <type_traits>
#include <vector>

#include "processing_functions.h"
#include "provoke.h"
#include "regex_parser.h"
#include "support.h"

namespace kvtest {
namespace {

static_assert(offsetof(regex_list_elem_t, pattern) == 0 && sizeof(regex_list_elem_t) == 16);
static_assert(offsetof(regex_list_elem_t, compiled_pattern) == 8);
static_assert(std::is_same_v<decltype(regex_list_elem_t::compiled_pattern), regex_t*>);
static_assert(offsetof(pattern_buf_t, num_elems) == 0 && offsetof(pattern_buf_t, elems) == 8);
static_assert(std::is_same_v<decltype(pattern_buf_t::num_elems), int>);
static_assert(sizeof(pattern_buf_t) == 8 + 256 * 16);

class ExceptionPatterns : public testing::Test {
protected:
    ExceptionPatterns() : file(make_temp_dir() + "/patterns") {
        keep();
        std::memset(static_cast<void*>(&g_kavrin_pattern_buf), 0, sizeof g_kavrin_pattern_buf);
        config.set_string(PARAM_REGEX_FILE_NAME, file);
    }

    // What a slot held stays allocated when it is filled again: a leak of the table's own making,
    // held here so that a sanitizer tells of others.
    static void keep() {
        static auto& kept = *new std::vector<regex_list_elem_t>;  // to the very end
        for (const regex_list_elem_t& slot : g_kavrin_pattern_buf.elems)
            if (slot.pattern != nullptr) kept.push_back(slot);
    }
    void read(const std::string& content) {
        keep();
        write_file(file, content);
        ASSERT_EQ(read_and_compile_patterns(), 0);
    }
    static int count() { return g_kavrin_pattern_buf.num_elems; }
    // The texts of the slots in use.
    static std::vector<std::string> patterns() {
        std::vector<std::string> texts;
        for (const regex_list_elem_t& slot : g_kavrin_pattern_buf.elems) {
            if (slot.compiled_pattern == nullptr) break;
            texts.emplace_back(slot.pattern);
        }
        return texts;
    }
    static int deletable(std::string name) { return is_deletable_file(name.data()); }
    static std::string numbered(int from, int to) {
        std::string lines;
        for (int i = from; i < to; ++i) lines += "^name" + std::to_string(i) + "$\n";
        return lines;
    }
    static std::size_t open_files() {
        const std::filesystem::directory_iterator begin("/proc/self/fd");
        return static_cast<std::size_t>(std::distance(begin, {}));
    }
    // Reading fails, says so from level 0 on, and leaves the table as it was.
    void expect_refused(const std::string& message) {
        const std::vector<std::string> before = patterns();
        const int number = count();
        for (const int level : {-1, 0}) {
            config.set_debug_level(level);
            clear_log();
            EXPECT_EQ(read_and_compile_patterns(), -1);
            EXPECT_EQ(logged(message), level == 0 ? 1 : 0) << message;
            EXPECT_EQ(log_lines().size(), level == 0 ? 1u : 0u);
        }
        EXPECT_EQ(patterns(), before);
        EXPECT_EQ(count(), number);
    }

    ConfigTable config{0};
    std::string file;
};

using Texts = std::vector<std::string>;

// Files that are not read -------------------------------------------------------------------------

TEST_F(ExceptionPatterns, WithoutAConfiguredFileNothingIsRead) {
    read("a\nb\n");
    config.set_string(PARAM_REGEX_FILE_NAME, "");
    expect_refused("no regex file specified\n");
}

TEST_F(ExceptionPatterns, MissingFileIsNotRead) {
    read("a\nb\n");
    config.set_string(PARAM_REGEX_FILE_NAME, file + ".missing");
    expect_refused("regular expression file does not exist\n");
}

TEST_F(ExceptionPatterns, FileThatTheUserMayNotReadIsNotRead) {
    read("a\n");
    ASSERT_EQ(chmod(file.c_str(), 0600), 0);
    expect_in_child([&] {
        become_user(4001, 4001, {});
        expect_refused("cannot open regular expression file\n");
    });
}

TEST_F(ExceptionPatterns, FileThatCannotBeOpenedIsNotRead) {
    const std::string path = file + ".socket";
    const int listener = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    ASSERT_LT(path.size(), sizeof address.sun_path);
    std::strcpy(address.sun_path, path.c_str());
    ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    config.set_string(PARAM_REGEX_FILE_NAME, path);
    expect_refused("cannot open regular expression file\n");
    close(listener);
}

TEST_F(ExceptionPatterns, TableIsEmptyAtFirst) {
    EXPECT_EQ(run_child([] { return g_kavrin_pattern_buf.num_elems; }).exit_code, 0);
    EXPECT_EQ(deletable("anything"), 0);
}

// Lines -------------------------------------------------------------------------------------------

TEST_F(ExceptionPatterns, EveryLineIsAPattern) {
    read("^a$\n\\.tmp$\n~\\$.*\n");
    EXPECT_EQ(count(), 3);
    EXPECT_EQ(patterns(), (Texts{"^a$", "\\.tmp$", "~\\$.*"}));
    EXPECT_EQ(match_string_with_regex_buf(std::string("REPORT.TMP").data(),
                                          g_kavrin_pattern_buf.elems[1].compiled_pattern),
              REGEX_TRUE);
}

TEST_F(ExceptionPatterns, LineThatDoesNotCompileLeavesItsSlotToTheNext) {
    config.set_debug_level(10);
    clear_log();
    read("a\n(\nb\n");
    EXPECT_EQ(count(), 2);
    EXPECT_EQ(patterns(), (Texts{"a", "b"}));
    EXPECT_EQ(log_lines().size(), 2u) << "nothing is said about it";
    read("(\n[\n");
    EXPECT_EQ(count(), 0);
    read("[\nc\n(\n(\nd\n[\n");
    EXPECT_EQ(count(), 2);
    EXPECT_EQ(g_kavrin_pattern_buf.elems[0].pattern, std::string("c"));
    EXPECT_EQ(g_kavrin_pattern_buf.elems[1].pattern, std::string("d"));
}

TEST_F(ExceptionPatterns, LastLineWithoutAnEndLosesACharacter) {
    read("a\ntmp");
    EXPECT_EQ(patterns(), (Texts{"a", "tm"}));
    EXPECT_EQ(count(), 2);
    EXPECT_EQ(deletable("tm"), 1);
    read("x(");
    EXPECT_EQ(patterns().at(0), "x");
}

TEST_F(ExceptionPatterns, NothingIsTrimmedOrSkipped) {
    read(" a \n#b\n\t\nc\r\n");
    EXPECT_EQ(patterns(), (Texts{" a ", "#b", "\t", "c\r"}));
    EXPECT_EQ(count(), 4);
}

TEST_F(ExceptionPatterns, EmptyLineMatchesEverything) {
    read("^only$\n\n");
    EXPECT_EQ(patterns(), (Texts{"^only$", ""}));
    EXPECT_EQ(count(), 2);
    EXPECT_EQ(deletable("anything/at/all"), 1);
    EXPECT_EQ(deletable(""), 1);
}

TEST_F(ExceptionPatterns, EmptyFileEmptiesTheTable) {
    read("a\nb\n");
    read("");
    EXPECT_EQ(count(), 0);
    EXPECT_EQ(deletable("a"), 0);
}

TEST_F(ExceptionPatterns, LinesMayBeLongerThanTheFirstBuffer) {
    for (const std::size_t length : {1022u, 1023u, 1024u, 1025u, 5000u}) {
        const std::string line(length, 'x');
        read("a\n" + line + "\nb\n");
        EXPECT_EQ(count(), 3);
        EXPECT_EQ(patterns(), (Texts{"a", line, "b"})) << length;
    }
}

TEST_F(ExceptionPatterns, MoreLinesThanSlotsAreCounted) {
    read(numbered(0, 300));
    EXPECT_EQ(count(), 300);
    EXPECT_EQ(patterns().size(), 256u);
    EXPECT_EQ(patterns().back(), "^name255$");
    EXPECT_EQ(deletable("name255"), 1);
    EXPECT_EQ(deletable("name256"), 0);
    EXPECT_EQ(deletable("name299"), 0);
}

TEST_F(ExceptionPatterns, LinesBeyondTheSlotsAreNotCompiled) {
    read(numbered(0, 256) + "(\n[\nx\n");
    EXPECT_EQ(count(), 259) << "so bad ones count, too";
    EXPECT_EQ(patterns().size(), 256u);
    read("(\n" + numbered(0, 256));
    EXPECT_EQ(count(), 256) << "a bad one before is no slot";
    EXPECT_EQ(patterns().back(), "^name255$");
}

TEST_F(ExceptionPatterns, ReadingAgainStartsOver) {
    read("a\nb\nc\n");
    regex_t* const before = g_kavrin_pattern_buf.elems[0].compiled_pattern;
    read("d\n");
    EXPECT_EQ(count(), 1);
    EXPECT_EQ(g_kavrin_pattern_buf.elems[0].pattern, std::string("d"));
    EXPECT_NE(g_kavrin_pattern_buf.elems[0].compiled_pattern, before);
    EXPECT_EQ(match_string_with_regex_buf(std::string("a").data(), before), REGEX_TRUE)
        << "who still has the old one may go on with it";
    EXPECT_EQ(deletable("d"), 1);
    EXPECT_EQ(deletable("b"), 0);
}

TEST_F(ExceptionPatterns, PatternsAreTracedFromLevelTwo) {
    for (const int level : {1, 2}) {
        config.set_debug_level(level);
        clear_log();
        read("a.b\n(\nc d\n");
        EXPECT_EQ(logged("read pattern a.b\n"), level == 2 ? 1 : 0);
        EXPECT_EQ(logged("read pattern c d\n"), level == 2 ? 1 : 0);
        EXPECT_EQ(log_lines().size(), level == 2 ? 2u : 0u);
    }
}

TEST_F(ExceptionPatterns, FileStaysOpen) {
    write_file(file, "a\n");
    const std::size_t before = open_files();
    EXPECT_EQ(read_and_compile_patterns(), 0);
    EXPECT_EQ(open_files(), before + 1);
}

// Deletable files ---------------------------------------------------------------------------------

TEST_F(ExceptionPatterns, FileIsDeletableByAnyPattern) {
    read("^first\n\\.tmp$\nlast\n");
    for (const char* name : {"first/x", "Shared/REPORT.TMP", "Shared/the Last one", "FIRST"})
        EXPECT_EQ(deletable(name), 1) << name;
    for (const char* name : {"x/first", "a.tmp.txt", "Shared", ""})
        EXPECT_EQ(deletable(name), 0) << name;
}

TEST_F(ExceptionPatterns, FirstMatchEndsTheSearchAndIsTold) {
    read("a\nab\nabc\n");
    for (const int level : {1, 2}) {
        config.set_debug_level(level);
        clear_log();
        EXPECT_EQ(deletable("abc"), 1);
        EXPECT_EQ(logged_matching(log_lines(), "Found deletable file abc\n?"), level == 2 ? 1 : 0);
    }
    clear_log();
    EXPECT_EQ(deletable("xyz"), 0);
    EXPECT_EQ(logged_part("Found deletable"), 0);
    // A slot behind the first match is not looked at: this one could not be matched against.
    keep();
    g_kavrin_pattern_buf.elems[1].compiled_pattern = nullptr;
    clear_log();
    EXPECT_EQ(deletable("abc"), 1);
    EXPECT_EQ(logged_part("Bad arguments"), 0);
    EXPECT_EQ(deletable("c"), 0);
    EXPECT_EQ(logged_part("Bad regbuf"), 1) << "an error is no match, and the search goes on";
}

TEST_F(ExceptionPatterns, OnlySlotsInUseAreLookedAt) {
    read("a\nb\n");
    g_kavrin_pattern_buf.num_elems = 1;
    EXPECT_EQ(deletable("b"), 0);
    g_kavrin_pattern_buf.num_elems = 0;
    EXPECT_EQ(deletable("a"), 0);
    g_kavrin_pattern_buf.num_elems = -1;
    EXPECT_EQ(deletable("a"), 0);
}

TEST_F(ExceptionPatterns, NoNameIsNotDeletable) {
    read("a\n\n");
    EXPECT_EQ(is_deletable_file(nullptr), 0);
}

}  // namespace
}  // namespace kvtest
