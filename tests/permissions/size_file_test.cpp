// The size file: its grammar as the streaming parser takes it, the arithmetic of the image's size,
// and what the parse writes to standard output.
#include <gtest/gtest.h>

#include "load_fixture.h"

namespace kvtest {
namespace {

class SizeFile : public LoadTest {
protected:
    static Loading parse(std::string_view json) {
        PairFiles files(json, kExampleData);
        return size_pair(files);
    }
    static ChildResult parse_in_child(std::string_view json) {
        PairFiles files(json, kExampleData);
        return run_child([&] {
            memsummary_t* summary = nullptr;
            return static_cast<int>(
                get_permbe_shmsize(files.size.data(), files.data.data(), &summary));
        });
    }
};

TEST_F(SizeFile, ExampleNeeds581Bytes) {
    PairFiles files;
    const Loading loading = size_pair(files);
    ASSERT_EQ(loading.sized, SHM_MEMBE_OK);
    const memsummary_t& summary = *loading.summary;
    EXPECT_EQ(summary.memsize, 581u);
    EXPECT_STREQ(summary.mapname, "perm_map_A");
    EXPECT_STREQ(summary.version, "2.4.1");
    EXPECT_EQ(summary.generationnum, 1187u);
    EXPECT_EQ(summary.timestamp, 1700000000);
    EXPECT_EQ(summary.total_fselems, 5u);
    EXPECT_EQ(summary.total_aces, 6u);
    EXPECT_EQ(summary.total_namelen, 33u);
    EXPECT_EQ(summary.fselem_offset, 0u);
    EXPECT_EQ(summary.nameelem_offset, 0u);
    EXPECT_EQ(summary.acl_offset, 0u);
    EXPECT_EQ(summary.list_offset, 0u);
    EXPECT_EQ(summary.membuf, nullptr);
    EXPECT_TRUE(STACK_EMPTY(&summary.sth));
    EXPECT_EQ(summary.sth.totalelems, 0u);
    EXPECT_TRUE(reports().empty());
    EXPECT_EQ(loading.err, "");
}

TEST_F(SizeFile, SummaryOwnsCopiesOfBothPaths) {
    PairFiles files;
    const Loading loading = size_pair(files);
    EXPECT_STREQ(loading.summary->perm_map_name_size, files.size.c_str());
    EXPECT_STREQ(loading.summary->perm_map_name_data, files.data.c_str());
    EXPECT_NE(loading.summary->perm_map_name_size, files.size.data());
    EXPECT_NE(loading.summary->perm_map_name_data, files.data.data());
    EXPECT_TRUE(file_exists(files.size)) << "only a load removes the files";
    EXPECT_TRUE(file_exists(files.data));
}

TEST_F(SizeFile, EmptyObjectNeedsTheHeaderAlone) {
    const Loading loading = parse("{}");
    EXPECT_EQ(loading.sized, SHM_MEMBE_OK);
    EXPECT_EQ(loading.summary->memsize, 176u);
    EXPECT_STREQ(loading.summary->mapname, "");
    EXPECT_EQ(loading.summary->generationnum, 0u);
}

TEST_F(SizeFile, EachCountHasItsWeight) {
    EXPECT_EQ(parse(R"({"TOTALNAMELEN": 1})").summary->memsize, 176u + 1);
    EXPECT_EQ(parse(R"({"TOTALFSELEMS": 1})").summary->memsize, 176u + 60);
    EXPECT_EQ(parse(R"({"TOTALACES": 1})").summary->memsize, 176u + 12);
}

TEST_F(SizeFile, SizeIsComputedIn32Bits) {
    // 60 * 71582789 is 2^32 + 44.
    EXPECT_EQ(parse(R"({"TOTALFSELEMS": 71582789})").summary->memsize, 176u + 44);
}

TEST_F(SizeFile, KeysComeInAnyOrder) {
    const Loading loading =
        parse(R"({"TOTALNAMELEN":33,"TOTALACES":6,"VERSION":"2.4.1","TOTALFSELEMS":5,)"
              R"("GENERATIONNUM":1187,"TIMESTAMP":1700000000,"MAPNAME":"perm_map_A"})");
    EXPECT_EQ(loading.summary->memsize, 581u);
    EXPECT_EQ(loading.summary->generationnum, 1187u);
    EXPECT_STREQ(loading.summary->mapname, "perm_map_A");
    EXPECT_STREQ(loading.summary->version, "2.4.1");
}

TEST_F(SizeFile, RepeatedKeyOverwrites) {
    const Loading loading = parse(R"({"TOTALACES":9,"MAPNAME":"long_name","VERSION":"2.0.0",)"
                                  R"("MAPNAME":"x","VERSION":"3","TOTALACES":6})");
    EXPECT_EQ(loading.summary->total_aces, 6u);
    EXPECT_STREQ(loading.summary->mapname, "x");
    EXPECT_STREQ(loading.summary->version, "3");
}

TEST_F(SizeFile, NumbersAreReadAsUnsignedDecimals) {
    const Loading loading =
        parse(R"({"GENERATIONNUM": 4294968483, "TIMESTAMP": 9223372036854775807,)"
              R"("TOTALACES": 2.9, "TOTALFSELEMS": 3e2, "TOTALNAMELEN": 4294967298})");
    EXPECT_EQ(loading.summary->generationnum, 1187u) << "the low 32 bits of 2^32 + 1187";
    EXPECT_EQ(loading.summary->timestamp, INT64_MAX);
    EXPECT_EQ(loading.summary->total_aces, 2u) << "reading ends at the point";
    EXPECT_EQ(loading.summary->total_fselems, 3u) << "reading ends at the exponent";
    EXPECT_EQ(loading.summary->total_namelen, 2u);
    EXPECT_EQ(parse(R"({"TIMESTAMP": -1})").summary->timestamp, -1);
    EXPECT_EQ(parse(R"({"GENERATIONNUM": -1})").summary->generationnum, 0xFFFFFFFFu);
}

TEST_F(SizeFile, CommentsAreAllowed) {
    const Loading loading =
        parse("/* before */ { // here\n \"TOTALACES\": /* there */ 6 } /* after */\n");
    EXPECT_EQ(loading.summary->memsize, 176u + 72);
    EXPECT_EQ(loading.err, "");
}

TEST_F(SizeFile, ArraysAreSkippedAroundTheirScalars) {
    EXPECT_EQ(parse(R"([{"TOTALACES": [6]}])").summary->memsize, 176u + 72);
}

TEST_F(SizeFile, LongDocumentIsReadInChunks) {
    const std::string comment = "/*" + std::string(150000, '*') + "*/";
    const Loading loading = parse(comment + kExampleSize + comment);
    EXPECT_EQ(loading.sized, SHM_MEMBE_OK);
    EXPECT_EQ(loading.summary->memsize, 581u);
    EXPECT_STREQ(loading.summary->mapname, "perm_map_A");
    EXPECT_EQ(loading.err, "");
}

// The first chunk ends after 65,535 bytes: every byte of the document gets to stand there once.
TEST_F(SizeFile, ChunkMayEndAnywhereInTheDocument) {
    const std::string document = kExampleSize;
    for (std::size_t split = 0; split <= document.size(); ++split) {
        const std::string comment = "/*" + std::string(65535 - split - 4, ' ') + "*/";
        const Loading loading = parse(comment + document);
        ASSERT_EQ(loading.summary->memsize, 581u) << "first chunk ends at byte " << split;
        ASSERT_STREQ(loading.summary->mapname, "perm_map_A") << split;
        ASSERT_STREQ(loading.summary->version, "2.4.1") << split;
        ASSERT_EQ(loading.summary->generationnum, 1187u) << split;
        ASSERT_EQ(loading.summary->timestamp, 1700000000) << split;
    }
}

TEST_F(SizeFile, MapNameHasAtMost31Characters) {
    const std::string name(31, 'm');
    EXPECT_EQ(parse("{\"MAPNAME\": \"" + name + "\"}").summary->mapname, name);
    for (const int length : {32, 33, 40, 5000}) {
        const std::string json = "{\"MAPNAME\": \"" + std::string(length, 'm') + "\"}";
        EXPECT_TRUE(parse_in_child(json).asserted("stringLen < MAXMAP_NAMELEN")) << length;
    }
}

TEST_F(SizeFile, VersionOf36CharactersFillsItsField) {
    const std::string version(36, 'v');
    const Loading loading = parse("{\"VERSION\": \"" + version + "\", \"GENERATIONNUM\": 1187}");
    EXPECT_EQ(std::string(loading.summary->version, 36), version);
    EXPECT_EQ(loading.summary->generationnum, 1187u);
    EXPECT_STREQ(loading.summary->mapname, "");
    for (const int length : {37, 38, 5000}) {
        const std::string json = "{\"VERSION\": \"" + std::string(length, 'v') + "\"}";
        EXPECT_TRUE(parse_in_child(json).asserted("stringLen <= MAXMAP_VERSION_NAMELEN")) << length;
    }
}

TEST_F(SizeFile, UnknownKeyCancelsTheParseButNotTheSizing) {
    const Loading loading = parse(R"({"TOTALACES": 6, "FOO": 1, "TOTALFSELEMS": 5})");
    EXPECT_EQ(loading.sized, SHM_MEMBE_OK);
    EXPECT_EQ(loading.summary->memsize, 176u + 72) << "what came before the key counts";
    EXPECT_EQ(logged("Invalid state FOO state 9"), 1);
    EXPECT_NE(loading.err.find("parse error"), std::string::npos) << loading.err;
    EXPECT_TRUE(reports().empty());
}

TEST_F(SizeFile, KeysAreComparedExactly) {
    for (const char* key : {"mapname", "MAPNAM", "MAPNAMEX", "", "TOTALACES "}) {
        clear_log();
        const Loading loading = parse(std::string("{\"") + key + "\": 1, \"TOTALACES\": 6}");
        EXPECT_EQ(loading.sized, SHM_MEMBE_OK);
        EXPECT_EQ(loading.summary->memsize, 176u);
        EXPECT_EQ(logged(std::string("Invalid state ") + key + " state 9"), 1) << key;
    }
}

TEST_F(SizeFile, NegativeLevelSilencesTheUnknownKey) {
    config_.set_debug_level(-1);
    EXPECT_EQ(parse(R"({"FOO": 1})").sized, SHM_MEMBE_OK);
    EXPECT_TRUE(log_lines().empty());
}

TEST_F(SizeFile, StringForANumberCancelsTheParse) {
    for (const char* key :
         {"GENERATIONNUM", "TIMESTAMP", "TOTALFSELEMS", "TOTALACES", "TOTALNAMELEN"}) {
        const Loading loading =
            parse(std::string(R"({"MAPNAME": "m", ")") + key + R"(": "6", "TOTALACES": 6})");
        EXPECT_EQ(loading.sized, SHM_MEMBE_OK) << key;
        EXPECT_EQ(loading.summary->memsize, 176u) << key;
        EXPECT_STREQ(loading.summary->mapname, "m");
        EXPECT_NE(loading.err.find("parse error"), std::string::npos) << loading.err;
    }
}

TEST_F(SizeFile, SecondStringOfAnArrayCancelsTheParse) {
    const Loading loading = parse(R"({"MAPNAME": ["a", "b"], "TOTALACES": 6})");
    EXPECT_EQ(loading.sized, SHM_MEMBE_OK);
    EXPECT_STREQ(loading.summary->mapname, "a");
    EXPECT_EQ(loading.summary->memsize, 176u);
}

TEST_F(SizeFile, NumberForAStringEndsTheProcess) {
    EXPECT_TRUE(parse_in_child(R"({"MAPNAME": 5})").aborted());
    EXPECT_TRUE(parse_in_child(R"({"VERSION": 2})").aborted());
    EXPECT_TRUE(parse_in_child(R"({"TOTALACES": [1, 2]})").aborted());
}

TEST_F(SizeFile, NestedObjectEndsTheProcess) {
    const ChildResult result = parse_in_child(R"({"TOTALACES": {"TOTALACES": 1}})");
    EXPECT_TRUE(result.asserted("STACK_EMPTY(&(memsummary1->sth))")) << result.err;
    EXPECT_TRUE(parse_in_child("{\"MAPNAME\": {}}").asserted("STACK_EMPTY(&(memsummary1->sth))"));
}

TEST_F(SizeFile, KeyWithoutAScalarEndsTheProcess) {
    for (const char* value : {"null", "true", "false", "[]", "[null]"}) {
        const ChildResult result = parse_in_child(std::string("{\"TOTALACES\": ") + value + "}");
        EXPECT_TRUE(result.aborted()) << value << " " << result.exit_code;
    }
}

TEST_F(SizeFile, ScalarOutsideAnObjectEndsTheProcess) {
    EXPECT_TRUE(parse_in_child("5").aborted());
    EXPECT_TRUE(parse_in_child("\"text\"").aborted());
    EXPECT_TRUE(parse_in_child("[1]").aborted());
}

TEST_F(SizeFile, SyntaxErrorLeavesTheCountsReadBeforeIt) {
    for (const char* rest : {"]", " : ", "", ",}"}) {
        const Loading loading = parse(std::string(R"({"TOTALACES": 6 )") + rest);
        EXPECT_EQ(loading.sized, SHM_MEMBE_OK) << rest;
        EXPECT_EQ(loading.summary->memsize, 176u + 72) << rest;
        EXPECT_NE(loading.err.find("parse error"), std::string::npos) << loading.err;
        EXPECT_TRUE(reports().empty());
    }
    const Loading empty = parse("");
    EXPECT_EQ(empty.sized, SHM_MEMBE_OK);
    EXPECT_EQ(empty.summary->memsize, 176u);
    EXPECT_NE(empty.err.find("parse error"), std::string::npos) << empty.err;
}

// A number at the very end of the file is only known to be complete when the parse is.
TEST_F(SizeFile, NumberCutOffByTheEndOfTheFileCounts) {
    EXPECT_EQ(parse(R"({"TOTALACES": 6)").summary->memsize, 176u + 72);
}

TEST_F(SizeFile, ReadErrorIsWrittenToStandardError) {
    PairFiles files;
    files.size = "/proc/self/mem";  // a regular file that cannot be read at its start
    const Loading loading = size_pair(files);
    EXPECT_EQ(loading.sized, SHM_MEMBE_OK);
    EXPECT_EQ(loading.summary->memsize, 176u);
    EXPECT_NE(loading.err.find("error on file read.\n"), std::string::npos) << loading.err;
    EXPECT_EQ(parse("{}").err.find("error on file read."), std::string::npos);
}

// The lines without the function and line number that each begins with.
std::string without_places(std::string_view traces) {
    std::string rest;
    while (!traces.empty()) {
        const std::size_t end = traces.find('\n') + 1;
        const std::string_view line = traces.substr(0, end == 0 ? traces.size() : end);
        const std::size_t open = line.find('(');
        const std::size_t close = line.find(") ");
        const bool placed = open != 0 && open != std::string_view::npos &&
                            close != std::string_view::npos && close > open + 1 &&
                            line.find_first_not_of("0123456789", open + 1) == close;
        rest += placed ? line.substr(close + 2) : line;
        traces.remove_prefix(line.size());
    }
    return rest;
}

TEST_F(SizeFile, EveryTokenIsTracedToStandardOutputAtEveryLevel) {
    config_.set_debug_level(-1);
    PairFiles files(R"({"MAPNAME":"perm_map_A","VERSION":"2.4.1","GENERATIONNUM":1187,)"
                    R"("TIMESTAMP":1700000000,"TOTALFSELEMS":5,"TOTALACES":6,"TOTALNAMELEN":33})",
                    "");
    const Loading loading = size_pair(files);
    EXPECT_EQ(loading.out.find("Here"), loading.out.find(") ") + 2) << "a place goes before";
    EXPECT_EQ(without_places(loading.out),
              "Here name MAPNAME st 2\nHere perm_map_A cstate 2\n"
              "Here name VERSION st 3\nHere 2.4.1 cstate 3\n"
              "Here name GENERATIONNUM st 4\nHere val 1187\n"
              "Here name TIMESTAMP st 5\nHere val 1700000000\n"
              "Here name TOTALFSELEMS st 6\nHere val 5\n"
              "Here name TOTALACES st 7\nHere val 6\n"
              "Here name TOTALNAMELEN st 8\nHere val 33\nHere \n");
}

TEST_F(SizeFile, UnknownKeyIsTracedToo) {
    EXPECT_EQ(without_places(parse(R"({"FOO": 1})").out), "Here name FOO st 9\n");
}

TEST_F(SizeFile, EachSizingStartsAfresh) {
    PairFiles cancelled(R"({"TOTALACES": 6, "FOO": 1})", "");
    const Loading first = size_pair(cancelled);
    const Loading second = parse("{}");
    EXPECT_NE(first.summary.get(), second.summary.get());
    EXPECT_EQ(second.summary->memsize, 176u);
}

}  // namespace
}  // namespace kvtest
