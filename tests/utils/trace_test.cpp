// The trace gate and the assertion as every function meets them: prefix, priority, threshold,
// errno, and an end that names its reason.
#include "utils/trace.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <regex>

#include "kavrin.h"
#include "support.h"

namespace {

using kvtest::log_lines;

TEST(Trace, MessageCarriesFileLineAndFunctionAtInformationPriority) {
    const kvtest::ConfigTable table(0);
    const int line = __LINE__ + 1;
    KV_TRACE(0, "value %d of %s", 7, "seven");
    ASSERT_EQ(log_lines().size(), 1u);
    const kvtest::LogLine& logged = log_lines()[0];
    EXPECT_EQ(logged.priority, 6);
    EXPECT_EQ(logged.text, std::string(__FILE__) + ":" + std::to_string(line) + "(" + __func__ +
                               ") value 7 of seven");
}

TEST(Trace, MessageNeedsNoArguments) {
    const kvtest::ConfigTable table(0);
    KV_TRACE(0, "plain");
    ASSERT_EQ(log_lines().size(), 1u);
    EXPECT_EQ(log_lines()[0].message, "plain");
}

TEST(Trace, LibraryMessagesNameTheirSource) {
    const kvtest::ConfigTable table(0);
    EXPECT_EQ(write_sweeper_log(nullptr, 1, nullptr), -1);
    ASSERT_EQ(log_lines().size(), 1u);
    const kvtest::LogLine& logged = log_lines()[0];
    EXPECT_EQ(logged.priority, 6);
    EXPECT_EQ(logged.function, "write_sweeper_log");
    EXPECT_GT(logged.line, 0);
    EXPECT_TRUE(logged.file.ends_with(".cpp")) << logged.file;
}

TEST(Trace, LevelMustReachTheThreshold) {
    kvtest::ConfigTable table;
    for (const int threshold : {0, 1, 2, 5, 7, 10}) {
        for (const int level : {-2147483647 - 1, -1, 0, 1, 2, 4, 5, 7, 9, 10, 11, 2147483647}) {
            table.set_debug_level(level);
            kvtest::clear_log();
            KV_TRACE(threshold, "message");
            EXPECT_EQ(log_lines().size(), level >= threshold ? 1u : 0u)
                << threshold << " " << level;
        }
    }
}

TEST(Trace, NegativeLevelSilencesFailuresToo) {
    kvtest::ConfigTable table(-1);
    EXPECT_EQ(write_sweeper_log(nullptr, 1, nullptr), -1);
    std::uint32_t offset = 0;
    EXPECT_EQ(find_fselem_fromname(nullptr, nullptr, &offset), SHM_MEMBE_ERR_MAP_CORRUPTION);
    EXPECT_TRUE(log_lines().empty());
    table.set_debug_level(0);
    EXPECT_EQ(write_sweeper_log(nullptr, 1, nullptr), -1);
    EXPECT_EQ(log_lines().size(), 1u);
}

TEST(Trace, NothingIsWorkedOutBelowTheThreshold) {
    const kvtest::ConfigTable table(9);
    int worked_out = 0;
    KV_TRACE(10, "%d", ++worked_out);
    EXPECT_EQ(worked_out, 0);
    KV_TRACE(9, "%d", ++worked_out);
    EXPECT_EQ(worked_out, 1);
}

TEST(Trace, ErrnoSurvives) {
    const kvtest::ConfigTable table(100);
    errno = 1234;
    KV_TRACE(0, "%d", errno);
    EXPECT_EQ(errno, 1234);
    errno = 1235;
    EXPECT_EQ(_paths_match("a", "b"), 0);
    EXPECT_EQ(is_special_folder_file("x"), 0);
    EXPECT_EQ(errno, 1235);
}

TEST(Trace, FailuresOfGettingATableAreStillTold) {
    const kvtest::ConfigTable keeper;
    global_param_t* const table = global_params;
    global_params = nullptr;
    KV_TRACE(0, "no table");
    KV_TRACE(1, "no table");
    global_params = reinterpret_cast<global_param_t*>(-1);
    KV_TRACE(0, "failed attach");
    KV_TRACE(1, "failed attach");
    global_params = table;
    EXPECT_EQ(kvtest::logged("no table"), 1);
    EXPECT_EQ(kvtest::logged("failed attach"), 1);
}

TEST(Assertion, EndsTheProcessWithExpressionFileAndLine) {
    const int line = __LINE__ + 3;
    const kvtest::ChildResult child = kvtest::run_child_void([] {
        const int two = 2;
        KV_ASSERT(two == 3);
    });
    EXPECT_TRUE(child.asserted("two == 3")) << child.err;
    EXPECT_NE(child.err.find("trace_test.cpp:" + std::to_string(line)), std::string::npos)
        << child.err;
}

TEST(Assertion, TrueExpressionIsQuietAndEvaluatedOnce) {
    int evaluated = 0;
    KV_ASSERT(++evaluated == 1);
    EXPECT_EQ(evaluated, 1);
}

TEST(Assertion, TextMayDifferFromTheCondition) {
    const kvtest::ChildResult child =
        kvtest::run_child_void([] { KV_ASSERT_AS(1 > 2, "one is more"); });
    EXPECT_TRUE(child.asserted("one is more")) << child.err;
    EXPECT_EQ(child.err.find("1 > 2"), std::string::npos);
}

TEST(Assertion, NeedsNoConfigurationTable) {
    const kvtest::ChildResult child = kvtest::run_child_void([] {
        global_params = nullptr;
        std::uint32_t offset = 1;
        int image = 0;
        path_array_t path{};
        find_fselem_fromname(&image, &path, &offset);
    });
    EXPECT_TRUE(child.asserted("*offset == 0")) << child.err;
}

}  // namespace
