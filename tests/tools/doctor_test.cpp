// kavrinctl doctor on a server on which nothing is wrong, and on one where one thing is: the check
// it belongs to finds it and says what mends it, and no other check is troubled.
#include "doctor_fixture.h"
#include "map_tables.h"
#include "whole_file.h"

namespace kvtest {
namespace {

TEST_F(DoctorTest, SoundServerIsGreen) {
    const Report report = examine();
    EXPECT_EQ(report.exit_code, 0);
    EXPECT_EQ(report.checks.size(), report.document["checks"].size()) << "an id stands twice";
    EXPECT_GT(report.checks.size(), 30u);
    for (const auto& [id, check] : report.checks)
        EXPECT_EQ(check["severity"], "ok") << check.dump(2);
}

TEST_F(DoctorTest, DocumentIsFitForABugReport) {
    const Json document = examine().document;
    EXPECT_EQ(document["versions"]["kavrinctl"], KAVRIN_VERSION);
    EXPECT_EQ(document["versions"]["kavrind"], KAVRIN_VERSION);
    EXPECT_EQ(document["versions"]["samba"], "4.17.12-Debian");
    EXPECT_TRUE(document["versions"]["kernel"].get<std::string>().starts_with("Linux "));
    EXPECT_NE(document["versions"]["system"], "");
    EXPECT_EQ(document["service"]["map"]["number"], 1);
}

TEST_F(DoctorTest, TextTellsWhatWhereAndWhatToDo) {
    chmod(kStagingFolder.c_str(), 0777);
    const ChildResult result = run_tool({"doctor"});
    EXPECT_EQ(result.exit_code, 2);
    EXPECT_EQ(result.err, "");
    EXPECT_NE(result.out.find("error      folders\n"
                              "           /kavrin/staging: others than root may write to it (mode "
                              "0777)\n"
                              "           mend: chmod go-w /kavrin/staging\n"),
              std::string::npos)
        << result.out;
    EXPECT_NE(result.out.find("ok         configuration table\n"), std::string::npos) << result.out;
    EXPECT_NE(result.out.find(" checks: "), std::string::npos);
    EXPECT_NE(result.out.find(" 0 warnings, 1 error, 0 skipped\n"), std::string::npos);
}

TEST_F(DoctorTest, WarningsAloneAreNoFailure) {
    write_file("/kavrin/.conf/kavrin_event_status.dirty", std::string("no room\n\0old", 11));
    expect_found({{"rescan-marker", "warning", "events may have been lost: no room", "rescans"}});
}

TEST_F(DoctorTest, NobodyButRootIsServed) {
    const ChildResult result = run_child([] {
        become_user(1000, 1000, {});
        const char* words[] = {"kavrinctl", "doctor"};
        return kvadmin::run(2, words);
    });
    EXPECT_EQ(result.exit_code, 1);
    EXPECT_NE(result.err.find("run it as root"), std::string::npos) << result.err;
}

// A server that was installed a minute ago.
TEST_F(DoctorTest, TakesAServerWithoutAMapForANewOne) {
    shmctl(segment_id(served_table()), IPC_RMID, nullptr);
    set_semaphore(kvadmin::map_semaphores().id, 1, 0);
    for (const char* file :
         {"/etc/kavrin/.permbe_map", "/etc/kavrin/permission_refresh", "/var/log/kavrin_perms.log"})
        unlink(file);
    Json status = sound_status();
    status["map"] = nullptr;
    start_service(status);
    expect_found({{"live-map", "warning", "no map was ever served here", "kavrinctl map apply"}},
                 {"persisted-map", "shared-memory", "load-log", "map-marker"});
}

// The service. ---------------------------------------------------------------------------------

TEST_F(DoctorTest, FindsThatTheServiceIsDown) {
    service->stop();
    expect_found({{"service", "error", "nobody listens at /run/kavrin/kavrind.sock",
                   "systemctl start kavrind"}},
                 {"service-version", "last-failure", "halves", "group-map-source", "locale"});
}

TEST_F(DoctorTest, FindsAServiceThatAnswersNonsense) {
    service.reset();
    service = std::make_unique<ServiceStub>(always("hello\n"));
    expect_found({{"service", "error", "is not kavrind", "journalctl"}},
                 {"service-version", "last-failure", "halves", "group-map-source", "locale"});
}

TEST_F(DoctorTest, FindsAServiceOfAnotherVersion) {
    Json status = sound_status();
    status["service"]["version"] = "0.0.9";
    start_service(status);
    expect_found({{"service-version", "warning", "version 0.0.9, this tool of", "kavrind"}});
}

TEST_F(DoctorTest, FindsAPairThatFailedLast) {
    Json status = sound_status();
    status["last_failure"] = {{"time", 3000},
                              {"source", "/in/a.data.json"},
                              {"error", "counts differ"},
                              {"quarantine", "/q/a"}};
    start_service(status);
    expect_found({{"last-failure", "error", "/in/a.data.json", "/q/a/reason.txt"}});
    status["last_failure"]["quarantine"] = nullptr;  // of a command
    start_service(status);
    expect_found({{"last-failure", "warning", "/in/a.data.json", "ask again"}});
    status["map"]["published"] = 3001;
    start_service(status);
    expect_found({});
}

TEST_F(DoctorTest, FindsHalvesThatWaitTooLong) {
    Json status = sound_status();
    status["halves"] = {{{"file", "b.size.json"},
                         {"since", 1000},
                         {"stale", false},
                         {"why", "its data file is missing"}}};
    start_service(status);
    expect_found({});
    status["halves"][0]["stale"] = true;
    start_service(status);
    expect_found({{"halves", "warning", kIncoming + "/b.size.json", "deliver its partner"}});
}

TEST_F(DoctorTest, FindsFailedPairsInQuarantine) {
    std::filesystem::create_directories(kIncoming + "/quarantine/one");
    expect_found({{"quarantine", "warning", "1 pair that could not be applied", "reason.txt"}});
}

TEST_F(DoctorTest, FindsThatTheGroupMapCouldNotBeMade) {
    Json status = sound_status();
    status["group_map"]["error"] = "no accounts";
    start_service(status);
    expect_found({{"group-map-source", "error", "no accounts", "systemctl reload kavrind"}});
}

// The configuration. ---------------------------------------------------------------------------

TEST_F(DoctorTest, FindsALineThatTheServiceWouldRefuse) {
    write_file(kConfigFile, "[VFS]\nexception pattern file = " + kPatternFile +
                                "\n[SWEEPER]\nflush period = soon\n");
    expect_found(
        {{"config-file", "error", kConfigFile + ":4: 'SWEEPER:flush period'", "kavrind --check"}},
        {"config-equal"});
}

TEST_F(DoctorTest, FindsAConfigurationFileThatOthersMayChange) {
    chmod(kConfigFile.c_str(), 0666);
    expect_found({{"config-file", "error", kConfigFile, "chmod go-w " + kConfigFile}});
}

TEST_F(DoctorTest, FindsThatTheTableIsMissing) {
    shmctl(kvadmin::config_table_segment().id, IPC_RMID, nullptr);
    expect_found({{"config-table", "error", "there is none", "kavrind"}},
                 {"config-values", "config-equal", "patterns", "folder-names", "pending-files",
                  "temporaries", "audit-files"});
}

TEST_F(DoctorTest, FindsATableThatAReaderMade) {
    change_table([](global_param_t* table) {
        for (int slot = 0; slot < PARAM_MAX_INDEX; ++slot) table[slot].type = 0;
    });
    expect_found({{"config-table", "error", "a reader made it", "kavrinctl config remove"}});
}

TEST_F(DoctorTest, FindsATableThatIsNotRoots) {
    const int id = kvadmin::config_table_segment().id;
    shmid_ds state{};
    ASSERT_EQ(shmctl(id, IPC_STAT, &state), 0);
    state.shm_perm.uid = 1000;
    ASSERT_EQ(shmctl(id, IPC_SET, &state), 0);
    expect_found({{"config-table", "error", "belongs to uid 1000", "kavrinctl config remove"}});
}

TEST_F(DoctorTest, FindsAValueOutOfRange) {
    change_table([](global_param_t* table) { table[PARAM_FLUSH_FILL_THRESHOLD].value.intval = 0; });
    expect_found({{"config-values", "error", "'SWEEPER:flush fill threshold pct' is 0", "set it"},
                  {"config-equal", "warning", "is 0 in the table and 80 by the file", "reload"}});
}

TEST_F(DoctorTest, FindsAFileThatIsNotInForceYet) {
    write_file(kConfigFile, "[VFS]\nexception pattern file = " + kPatternFile +
                                "\ndefault user = 7\ndebug level = 3\n");
    expect_found(
        {{"config-equal", "warning", "'VFS:default user' is 65534 in the table and 7 by the file",
          "systemctl reload kavrind"}});
}

// The map. -------------------------------------------------------------------------------------

TEST_F(DoctorTest, FindsASemaphoreThatIsNeitherZeroNorOne) {
    const int set = kvadmin::map_semaphores().id;
    set_semaphore(set, 0, 3);
    expect_found({{"map-semaphores", "error", "semaphore 0 is 3", "ipcrm -s " + number(set)}},
                 {"live-map", "persisted-map", "stale-segment"});
}

TEST_F(DoctorTest, FindsThatTheSetIsMissing) {
    semctl(kvadmin::map_semaphores().id, 0, IPC_RMID);
    expect_found({{"map-semaphores", "error", "there is no map semaphore set", "kavrind"}},
                 {"live-map", "map-mark", "persisted-map", "stale-segment"});
}

TEST_F(DoctorTest, FindsThatNoSegmentIsServed) {
    shmctl(segment_id(served_table()), IPC_RMID, nullptr);
    expect_found({{"live-map", "error", "there is none", "kavrinctl map reload"}},
                 {"persisted-map", "shared-memory"});
}

TEST_F(DoctorTest, FindsASegmentThatOthersMayAttach) {
    const int id = segment_id(served_table());
    shmid_ds state{};
    ASSERT_EQ(shmctl(id, IPC_STAT, &state), 0);
    state.shm_perm.mode = 0644;
    ASSERT_EQ(shmctl(id, IPC_SET, &state), 0);
    expect_found({{"live-map", "error", "its mode is 0644", "kavrinctl map reload"}});
}

TEST_F(DoctorTest, FindsADamagedMap) {
    void* const image = shmat(segment_id(served_table()), nullptr, 0);
    static_cast<char*>(image)[176] ^= 1;  // the root's signature
    std::string text(static_cast<char*>(image), read_file(kPersistedMap).size());
    write_file(kPersistedMap, text);
    shmdt(image);
    expect_found({{"live-map", "error", "the image is damaged", "kavrinctl map verify"}});
}

TEST_F(DoctorTest, FindsThatTheMarkIsNotSet) {
    set_semaphore(kvadmin::map_semaphores().id, 1, 0);
    expect_found({{"map-mark", "error", "not set", "kavrinctl map reload"}});
}

TEST_F(DoctorTest, FindsAPersistedMapThatDiffers) {
    std::string text = read_file(kPersistedMap);
    text[0] ^= 1;
    write_file(kPersistedMap, text);
    expect_found({{"persisted-map", "error", "differs from the map that is served", "kavrind"}});
}

TEST_F(DoctorTest, FindsThatThePersistedMapIsMissing) {
    unlink(kPersistedMap.c_str());
    expect_found({{"persisted-map", "error", "No such file", "kavrind"}});
}

TEST_F(DoctorTest, FindsASegmentThatAnInterruptedBuildLeft) {
    const int id = shmget(kvadmin::map_segment(1 - served_table()).key, 4096, IPC_CREAT);
    ASSERT_GE(id, 0);
    expect_found(
        {{"stale-segment", "warning", "an interrupted build left", "ipcrm -m " + number(id)}});
}

TEST_F(DoctorTest, TellsNothingOfABuildAtWork) {
    ASSERT_GE(shmget(kvadmin::map_segment(1 - served_table()).key, 4096, IPC_CREAT), 0);
    kvadmin::make_folder("/run/kavrin", 0755);
    const int lock = open(kvadmin::kBuildLockPath, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_EQ(flock(lock, LOCK_EX), 0);
    std::string text = read_file(kPersistedMap);
    text[0] ^= 1;
    write_file(kPersistedMap, text);
    expect_found({}, {"stale-segment", "persisted-map"});
    close(lock);
}

TEST_F(DoctorTest, FindsLimitsThatASecondMapWouldNotFitIn) {
    write_kernel_value("shmmax", "100");
    expect_found({{"shared-memory", "error", "kernel.shmmax: a segment may have 100 bytes",
                   "sysctl -w kernel.shmmax="}});
    write_kernel_value("shmmax", "1000000000");
    write_kernel_value("shmmni", "3");
    expect_found(
        {{"shared-memory", "error", "3 segments are allowed", "sysctl -w kernel.shmmni="}});
    write_kernel_value("shmmni", "4096");
    write_kernel_value("shmall", "10");
    expect_found({{"shared-memory", "error", "10 pages are allowed", "sysctl -w kernel.shmall="}});
}

TEST_F(DoctorTest, FindsThatTheLastLoadFailed) {
    std::ofstream("/var/log/kavrin_perms.log", std::ios::app)
        << "1700000000,Tue Nov 14 22:13:20 2023,5,Missing JSON size file,1\n";
    expect_found({{"load-log", "error", "Missing JSON size file", "kavrinctl map reload"}});
}

}  // namespace
}  // namespace kvtest
