// kavrinctl events cat, events stats and audit cat: what they print of honest files, how they
// filter, and what they do about damaged and vanished ones.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "event_files.h"
#include "event_filter.h"
#include "pending_folder.h"
#include "tool_run.h"

namespace {

using kvtest::AuditFields;
using kvtest::ChildResult;
using kvtest::EventFields;
using kvtest::frame;
using kvtest::lines_of;
using kvtest::run_tool;

class Events : public ::testing::Test {
protected:
    Events() {
        setenv("TZ", "UTC", 1);
        tzset();
    }
    std::string write(const std::string& name, const std::string& bytes) {
        const std::string path = folder_ + "/" + name;
        kvtest::write_file(path, bytes);
        return path;
    }
    // The paths in the lines of JSON.
    static std::vector<std::string> paths(const ChildResult& result) {
        std::vector<std::string> found;
        for (const std::string& line : lines_of(result.out))
            found.push_back(nlohmann::json::parse(line)["path"]);
        return found;
    }
    using Paths = std::vector<std::string>;

    kvtest::ConfigTable table_{-1};
    const std::string folder_ = kvtest::make_temp_dir();
};

EventFields rename_event() {
    EventFields fields;
    fields.type = VFSEVENT__OP_TYPE__OPTYPE_RENAME;
    fields.path = "/srv/share/Shared/a";
    fields.rename_path = "/srv/share/Shared/b";
    fields.user = "anna";
    fields.seconds = 1700000001;
    return fields;
}

}  // namespace

TEST_F(Events, CatPrintsATable) {
    const std::string file = write("pending_1", frame(EventFields{}) + frame(rename_event()));
    const ChildResult result = run_tool({"events", "cat", file});
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.out,
              "TIME                        TYPE        USER                    UID      PID  PATH\n"
              "2023-11-14 22:13:20.000042  CREATE      -                      1001     4321  "
              "/srv/share/Shared/Docs/report.txt\n"
              "2023-11-14 22:13:21.000042  RENAME      anna                   1001     4321  "
              "/srv/share/Shared/a -> /srv/share/Shared/b\n");
}

TEST_F(Events, CatPrintsJsonWithTheFieldsThatAreThere) {
    const std::string file = write("pending_1", frame(EventFields{}) + frame(rename_event()));
    const ChildResult result = run_tool({"events", "cat", "--json", file});
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(result.out,
              "{\"client_pid\":4321,\"path\":\"/srv/share/Shared/Docs/report.txt\",\"uid\":1001,"
              "\"optype\":\"OPTYPE_CREATE\",\"time_sec\":1700000000,\"time_usec\":42,"
              "\"fselem_type\":\"FSELEMTYPE_FILE\"}\n"
              "{\"client_pid\":4321,\"path\":\"/srv/share/Shared/a\",\"uid\":1001,"
              "\"rename_path\":\"/srv/share/Shared/b\",\"optype\":\"OPTYPE_RENAME\","
              "\"time_sec\":1700000001,\"time_usec\":42,\"fselem_type\":\"FSELEMTYPE_FILE\","
              "\"kavrin_user\":\"anna\"}\n");
}

TEST_F(Events, CatShowsUnknownValuesAsNumbers) {
    EventFields fields;
    fields.type = static_cast<VFSEvent__OpType>(77);
    fields.kind = static_cast<VFSEvent__FsElemType>(5);
    const std::string file = write("f", frame(fields));
    const auto event = nlohmann::json::parse(run_tool({"events", "cat", "--json", file}).out);
    EXPECT_EQ(event["optype"], 77);
    EXPECT_EQ(event["fselem_type"], 5);
    EXPECT_NE(run_tool({"events", "cat", file}).out.find("  77          -"), std::string::npos);
}

TEST_F(Events, CatEscapesWhatATerminalWouldObey) {
    EventFields fields;
    fields.path = "/x/\x1b[31m\xff\ny";
    fields.user = "a\tb";
    const std::string file = write("f", frame(fields));
    const ChildResult result = run_tool({"events", "cat", file});
    EXPECT_NE(result.out.find("/x/\\x1b[31m\\xff\\x0ay\n"), std::string::npos) << result.out;
    EXPECT_NE(result.out.find("a\\x09b "), std::string::npos);
    EXPECT_EQ(lines_of(result.out).size(), 2u);
}

TEST_F(Events, CatMakesValidJsonOfAnyBytes) {
    EventFields fields;
    fields.path = "/x/\xff\xfe/\xe4\xf6/\x01\"\\";
    fields.user = "\xc3";
    const ChildResult result = run_tool({"events", "cat", "--json", write("f", frame(fields))});
    EXPECT_EQ(result.exit_code, 0);
    const auto event = nlohmann::json::parse(result.out);
    EXPECT_EQ(event["path"], "/x/\uFFFD\uFFFD/\uFFFD\uFFFD/\x01\"\\");
    EXPECT_EQ(event["kavrin_user"], "\uFFFD");
}

TEST_F(Events, CatOfAFolderReadsPendingFilesInTheOrderOfTheirTimes) {
    write("pending_unk_time_aBcDeFg", kvtest::numbered_file(6, 1));
    write("pending_1700000000.000900", kvtest::numbered_file(3, 1));
    write("pending_1700000000.000042", kvtest::numbered_file(2, 1));
    write("pending_999999999.500000", kvtest::numbered_file(1, 1));
    write("pending_1700000010.000000", kvtest::numbered_file(4, 1));
    write("pending_notatime", kvtest::numbered_file(5, 1));
    write("kvtempAbCdEf", kvtest::numbered_file(7, 1));
    write("torn_AbCdEf", kvtest::numbered_file(8, 1));
    const ChildResult result = run_tool({"events", "cat", "--json", folder_});
    EXPECT_EQ(result.exit_code, 0);
    Paths expected;
    for (int i = 1; i <= 6; ++i) expected.push_back(kvtest::numbered_event(i).path);
    EXPECT_EQ(paths(result), expected);
}

TEST_F(Events, CatReadsAnyFileThatIsNamed) {
    const std::string torn = write("torn_AbCdEf", kvtest::numbered_file(8, 1));
    EXPECT_EQ(paths(run_tool({"events", "cat", "--json", torn})),
              Paths{kvtest::numbered_event(8).path});
}

TEST_F(Events, ADamagedFileGivesItsWholeRecordsAndTheOthersAreRead) {
    const std::string first = kvtest::numbered_file(1, 2);
    const std::string damaged = write("damaged", first + kvtest::raw_frame(3, 7, "abc"));
    const std::string sound = write("sound", kvtest::numbered_file(3, 1));
    const ChildResult result = run_tool({"events", "cat", "--json", damaged, sound});
    EXPECT_EQ(result.exit_code, 3);
    EXPECT_EQ(paths(result), (Paths{kvtest::numbered_event(1).path, kvtest::numbered_event(2).path,
                                    kvtest::numbered_event(3).path}));
    EXPECT_EQ(result.err, "kavrinctl: " + damaged + ": byte " + std::to_string(first.size()) +
                              ": its signature is 0x00000007 and not 0x04012010\n");
}

TEST_F(Events, AFileThatCannotBeReadIsToldAndTheOthersAreRead) {
    const std::string sound = write("sound", kvtest::numbered_file(3, 1));
    ASSERT_EQ(mkfifo((folder_ + "/pipe").c_str(), 0600), 0);
    const ChildResult result =
        run_tool({"events", "cat", "--json", folder_ + "/none", folder_ + "/pipe", sound});
    EXPECT_EQ(result.exit_code, 1);
    EXPECT_EQ(paths(result).size(), 1u);
    EXPECT_EQ(result.err, "kavrinctl: cannot read " + folder_ +
                              "/none: No such file or directory\n"
                              "kavrinctl: cannot read " +
                              folder_ + "/pipe: it is no regular file\n");
}

TEST_F(Events, AListedFileThatVanishedIsNoError) {
    kvadmin::RecordInput input;
    testing::internal::CaptureStderr();
    EXPECT_FALSE(input.open({folder_ + "/pending_1.000000", true}).valid());
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(input.exit(), kvadmin::Exit::kDone);
    testing::internal::CaptureStderr();
    EXPECT_FALSE(input.open({folder_ + "/pending_1.000000", false}).valid());
    EXPECT_NE(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(input.exit(), kvadmin::Exit::kFailure);
}

TEST_F(Events, CatOfAnEmptyFolderPrintsNothing) {
    const ChildResult result = run_tool({"events", "cat", folder_});
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(result.out, "");
}

TEST_F(Events, CatFiltersByTime) {
    const std::string file = write("f", kvtest::numbered_file(0, 5));
    const auto since = [&](const std::string& when) {
        return paths(run_tool({"events", "cat", "--json", "--since", when, file})).size();
    };
    EXPECT_EQ(since("1700000003"), 2u);
    EXPECT_EQ(since("1700000003.000042"), 2u);
    EXPECT_EQ(since("1700000003.000043"), 1u);
    EXPECT_EQ(since("2023-11-14 22:13:24"), 1u);
    EXPECT_EQ(since("2023-11-14T22:13:23.00005"), 1u);
    EXPECT_EQ(since("2023-11-14 22:13"), 5u);
    EXPECT_EQ(since("2023-11-15"), 0u);
    EXPECT_EQ(since("1h"), 0u);
    EXPECT_EQ(since("36500d"), 5u);
}

TEST_F(Events, CatRefusesWhatIsNoTime) {
    const std::string file = write("f", kvtest::numbered_file(0, 1));
    for (const char* when : {"yesterday", "12:30", "1.", "1.x", "h", "-5m", "2023-13-01",
                             "2023-11-14.5", "5w", "0x10"}) {
        const ChildResult result =
            run_tool({"events", "cat", "--since=" + std::string(when), file});
        EXPECT_EQ(result.exit_code, 64) << when;
        EXPECT_EQ(result.err.find("kavrinctl: '" + std::string(when) + "' is no time; "), 0u)
            << result.err;
    }
}

TEST(EventMoment, CountsBackFromNow) {
    using Moment = std::pair<std::int64_t, std::int64_t>;
    EXPECT_EQ(kvadmin::parse_moment("90s", 1000000), Moment(999910, 0));
    EXPECT_EQ(kvadmin::parse_moment("15m", 1000000), Moment(999100, 0));
    EXPECT_EQ(kvadmin::parse_moment("2h", 1000000), Moment(992800, 0));
    EXPECT_EQ(kvadmin::parse_moment("3d", 1000000), Moment(740800, 0));
    EXPECT_EQ(kvadmin::parse_moment("1700000000.5", 0), Moment(1700000000, 500000));
    EXPECT_EQ(kvadmin::parse_moment("1700000000.0000429", 0), Moment(1700000000, 42));
}

TEST_F(Events, CatFiltersByUser) {
    EventFields anna = kvtest::numbered_event(1);
    anna.user = "anna";
    EventFields bert = kvtest::numbered_event(2);
    bert.user = "bert";
    bert.uid = 1002;
    EventFields nameless = kvtest::numbered_event(3);  // uid 1001
    EventFields daemon = kvtest::numbered_event(4);
    daemon.uid = 1;
    const std::string file =
        write("f", frame(anna) + frame(bert) + frame(nameless) + frame(daemon));
    const auto of_user = [&](const char* user) {
        return paths(run_tool({"events", "cat", "--json", "--user", user, file}));
    };
    EXPECT_EQ(of_user("anna"), Paths{anna.path});
    EXPECT_EQ(of_user("1001"), (Paths{anna.path, nameless.path}));
    EXPECT_EQ(of_user("1002"), Paths{bert.path});
    EXPECT_EQ(of_user("daemon"), Paths{daemon.path}) << "an account of this machine";
    EXPECT_EQ(of_user("nobodyknows"), Paths{});
}

TEST_F(Events, CatFiltersByType) {
    const std::string file = write("f", frame(EventFields{}) + frame(rename_event()));
    for (const char* type : {"rename", "RENAME", "OPTYPE_RENAME", "7", "mkdir,rename"})
        EXPECT_EQ(paths(run_tool({"events", "cat", "--json", "--type", type, file})),
                  Paths{"/srv/share/Shared/a"})
            << type;
    EXPECT_EQ(paths(run_tool({"events", "cat", "--json", "--type", "rename,create", file})).size(),
              2u);
    const ChildResult result = run_tool({"events", "cat", "--type", "move", file});
    EXPECT_EQ(result.exit_code, 64);
    EXPECT_EQ(
        result.err,
        "kavrinctl: 'move' is no type of event; they are CONNECT, DISCONNECT, OPENDIR, MKDIR, "
        "RMDIR, OPEN, CLOSE, RENAME, UNLINK, CHMOD, CREATE\n");
}

TEST_F(Events, CatFiltersByPathOfWholeComponents) {
    EventFields inside;
    inside.path = "/s/Docs/a";
    EventFields itself;
    itself.path = "/s/Docs";
    EventFields beside;
    beside.path = "/s/Docs2";
    EventFields moved;
    moved.path = "/s/b";
    moved.rename_path = "/s/Docs/b";
    const std::string file =
        write("f", frame(inside) + frame(itself) + frame(beside) + frame(moved));
    for (const char* prefix : {"/s/Docs", "/s/Docs/"})
        EXPECT_EQ(paths(run_tool({"events", "cat", "--json", "--path", prefix, file})),
                  (Paths{"/s/Docs/a", "/s/Docs", "/s/b"}));
    EXPECT_EQ(paths(run_tool({"events", "cat", "--json", "--path", "/", file})).size(), 4u);
    EXPECT_EQ(paths(run_tool({"events", "cat", "--json", "--path", "/s/Do", file})).size(), 0u);
}

TEST_F(Events, StatsCountsByTypeUserAndFolder) {
    EventFields bert = kvtest::numbered_event(5);
    bert.user = "bert";
    const std::string bytes =
        kvtest::numbered_file(0, 3) + frame(rename_event()) + frame(bert) + frame(EventFields{});
    write("pending_1.000000", bytes);
    write("pending_2.000000", kvtest::numbered_file(9, 1));
    const std::size_t size = bytes.size() + kvtest::numbered_file(9, 1).size();
    const ChildResult result = run_tool({"events", "stats", folder_});
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(result.out,
              "files       2\n"
              "bytes       " +
                  std::to_string(size) +
                  "\n"
                  "records     7\n"
                  "first       2023-11-14 22:13:20.000042\n"
                  "last        2023-11-14 22:13:29.000042\n"
                  "\nby type\n           6  CREATE\n           1  RENAME\n"
                  "\nby user\n           5  uid 1001\n           1  anna\n"
                  "           1  bert\n"
                  "\nby folder\n           6  /srv/share/Shared\n"
                  "           1  /srv/share/Shared/Docs\n");
    const auto document =
        nlohmann::json::parse(run_tool({"events", "stats", "--json", "--top", "1", folder_}).out);
    EXPECT_EQ(document["files"], 2);
    EXPECT_EQ(document["bytes"], size);
    EXPECT_EQ(document["records"], 7);
    EXPECT_EQ(document["first"], (nlohmann::json{{"time_sec", 1700000000}, {"time_usec", 42}}));
    EXPECT_EQ(document["last"]["time_sec"], 1700000009);
    EXPECT_EQ(document["types"][1], (nlohmann::json{{"type", "RENAME"}, {"records", 1}}));
    EXPECT_EQ(document["users"].size(), 3u);
    EXPECT_EQ(document["folders"],
              (nlohmann::json{{{"folder", "/srv/share/Shared"}, {"records", 6}}}));
    EXPECT_EQ(document["folders_total"], 2);
}

TEST_F(Events, StatsCountsWhatADamagedFileHolds) {
    const std::string whole = kvtest::numbered_file(0, 2);
    const ChildResult result = run_tool({"events", "stats", "--json", write("f", whole + "torn")});
    EXPECT_EQ(result.exit_code, 3);
    const auto document = nlohmann::json::parse(result.out);
    EXPECT_EQ(document["records"], 2);
    EXPECT_EQ(document["bytes"], whole.size());
    EXPECT_EQ(document["damaged"], 1);
}

TEST_F(Events, StatsOfNothing) {
    const ChildResult result = run_tool({"events", "stats", folder_});
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(result.out, "files       0\nbytes       0\nrecords     0\n");
    const auto document =
        nlohmann::json::parse(run_tool({"events", "stats", "--json", folder_}).out);
    EXPECT_FALSE(document.contains("first"));
}

TEST_F(Events, StatsOfATopLevelPath) {
    EventFields top;
    top.path = "file";
    const ChildResult result = run_tool({"events", "stats", write("f", frame(top))});
    EXPECT_NE(result.out.find("           1  (top level)\n"), std::string::npos) << result.out;
}

TEST_F(Events, AuditCatPrintsReads) {
    AuditFields remote;
    remote.address = "192.0.2.7";
    remote.uid = 1;
    remote.size = UINT64_MAX;
    const std::string file = write("pending_1.000000", frame(AuditFields{}) + frame(remote));
    const ChildResult result = run_tool({"audit", "cat", folder_});
    EXPECT_EQ(result.exit_code, 0) << result.err;
    EXPECT_EQ(result.out,
              "TIME                        UID  ADDRESS                     BYTES  PATH\n"
              "2023-11-14 22:13:20        1001  -                            4096  "
              "/srv/share/Shared/Docs/report.txt\n"
              "2023-11-14 22:13:20           1  192.0.2.7        18446744073709551615  "
              "/srv/share/Shared/Docs/report.txt\n");
    EXPECT_EQ(run_tool({"audit", "cat", "--json", file}).out,
              "{\"path\":\"/srv/share/Shared/Docs/report.txt\",\"uid\":1001,"
              "\"time_sec\":1700000000,\"size\":4096}\n"
              "{\"path\":\"/srv/share/Shared/Docs/report.txt\",\"uid\":1,"
              "\"time_sec\":1700000000,\"ip_address\":\"192.0.2.7\","
              "\"size\":18446744073709551615}\n");
    EXPECT_EQ(lines_of(run_tool({"audit", "cat", "--json", "--user", "daemon", file}).out).size(),
              1u);
    EXPECT_EQ(lines_of(run_tool({"audit", "cat", "--json", "--user", "1001", file}).out).size(),
              1u);
    EXPECT_EQ(lines_of(run_tool({"audit", "cat", "--json", "--path", "/srv", file}).out).size(),
              2u);
    EXPECT_EQ(run_tool({"audit", "cat", "--json", "--path", "/sr", file}).out, "");
    const ChildResult unknown = run_tool({"audit", "cat", "--user", "nobodyknows", file});
    EXPECT_EQ(unknown.exit_code, 64);
    EXPECT_EQ(unknown.err, "kavrinctl: this machine knows no user 'nobodyknows'; give the uid\n");
}

TEST_F(Events, AuditCatTellsAFileOfOtherEvents) {
    const std::string file = write("pending_1.000000", frame(EventFields{}));
    const ChildResult result = run_tool({"audit", "cat", file});
    EXPECT_EQ(result.exit_code, 3);
    EXPECT_EQ(result.err, "kavrinctl: " + file + ": byte 0: its payload is no AuditEvent\n");
}

TEST_F(Events, CommandsNeedTheirArguments) {
    for (const char* command : {"cat", "stats"})
        EXPECT_EQ(run_tool({"events", command}).exit_code, 64) << command;
    EXPECT_EQ(run_tool({"events"}).exit_code, 64);
    EXPECT_EQ(run_tool({"audit", "cat"}).exit_code, 64);
    EXPECT_EQ(run_tool({"events", "stats", "--top", "-1", folder_}).exit_code, 64);
}
