// kavrinctl doctor: what can be wrong with the way of events, with folders and with the files that
// connections read.
#include "doctor_fixture.h"

namespace kvtest {
namespace {

// The staging buffer. --------------------------------------------------------------------------

TEST_F(DoctorTest, FindsThatTheStagingBufferIsMissing) {
    shmctl(kvadmin::staging_segment().id, IPC_RMID, nullptr);
    expect_found({{"staging-segment", "error", "events are lost", "kavrind"}}, {"staging-header"});
}

TEST_F(DoctorTest, FindsAStagingBufferThatIsTooSmallToBeAttached) {
    change_table(
        [](global_param_t* table) { table[PARAM_STAGING_BUFFER_SIZE].value.intval = 2'097'152; });
    write_file(kConfigFile, read_file(kConfigFile) + "[SWEEPER]\nstaging buffer size = 2097152\n");
    expect_found({{"staging-segment", "error", "1048576 bytes and 2097152 are configured",
                   "ipcrm -m " + number(kvadmin::staging_segment().id)}});
}

TEST_F(DoctorTest, FindsASemaphoreThatLetsSeveralIn) {
    const int set = kvadmin::staging_semaphore().id;
    set_semaphore(set, 0, 2);
    expect_found({{"staging-semaphore", "error", "it is 2", "ipcrm -s " + number(set)}});
}

TEST_F(DoctorTest, NamesTheProcessThatHoldsTheSemaphore) {
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const pid_t holder = fork();
    if (holder == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        wait_eventstore_semaphore();
        if (write(ready[1], "x", 1) != 1) _exit(1);
        pause();
        _exit(0);
    }
    char byte = 0;
    ASSERT_EQ(read(ready[0], &byte, 1), 1);
    expect_found(
        {{"staging-semaphore", "error", "taken last by process " + number(holder) + ", which lives",
          "what process " + number(holder) + " does"}});
    kill(holder, SIGKILL);
    waitpid(holder, nullptr, 0);
    expect_found({});
}

TEST_F(DoctorTest, FindsABufferWhoseHeaderPointsOutside) {
    staging_buffer_t* const buffer = get_eventstore_staging_buffer();
    buffer->next_offset = 0x7fffffff;
    expect_found({{"staging-header", "error", "byte 2147483647", "kavrinctl events flush"}});
    buffer->next_offset = 40;
    buffer->num_records = 1;
    expect_found({{"staging-header", "error", "no record begins at byte 16", "events flush"}});
    put_eventstore_staging_buffer(buffer);
}

TEST_F(DoctorTest, FindsABufferThatCountsWrong) {
    alignas(staging_data_t) std::uint8_t bytes[12] = {};
    auto* const record = reinterpret_cast<staging_data_t*>(bytes);
    record->size = 4;
    record->sig = STAGING_DATA_SIG;
    config.set_string(PARAM_STAGING_DIR, kStagingFolder);
    config.set_int(PARAM_FLUSH_FILL_THRESHOLD, 80);
    ASSERT_EQ(write_to_staging_buffer(record), 0);
    expect_found({});
    staging_buffer_t* const buffer = get_eventstore_staging_buffer();
    buffer->num_records = 2;
    put_eventstore_staging_buffer(buffer);
    expect_found({{"staging-header", "error", "it counts 2 records and holds 1", "events flush"}});
}

// Files of events. -----------------------------------------------------------------------------

TEST_F(DoctorTest, FindsThatTheEventStoreLags) {
    write_file(kStagingFolder + "/pending_1700000000.000001", "x");
    expect_found({});
    date_file(kStagingFolder + "/pending_1700000000.000001", -3000);
    expect_found({{"pending-files", "warning",
                   "1 file waits for the event store, the oldest for 50 "
                   "minutes",
                   "event store runs"}});
}

TEST_F(DoctorTest, FindsWhatDeadFlushesLeft) {
    write_file(kStagingFolder + "/kvtempAbCdEf", "x");
    expect_found({});  // a flush may be at work
    date_file(kStagingFolder + "/kvtempAbCdEf", -100);
    expect_found({{"temporaries", "warning", "/kvtempAbCdEf", "kavrinctl events recover"}});
}

TEST_F(DoctorTest, FindsAuditFilesThatNobodyTakes) {
    for (int i = 0; i <= 10'000; ++i)
        close(creat((kAuditingFolder + "/pending_17." + number(i)).c_str(), 0600));
    expect_found({{"audit-files", "warning", "10001 files", "reader"}});
}

// Folders. -------------------------------------------------------------------------------------

TEST_F(DoctorTest, FindsAFolderThatIsMissing) {
    rmdir(kIncoming.c_str());
    expect_found(
        {{"folders", "error", kIncoming, "install -d -m 0700 -o root -g root " + kIncoming}});
}

TEST_F(DoctorTest, FindsAFolderOfSomebodyElse) {
    ASSERT_EQ(chown("/kavrin/.conf", 1000, 0), 0);
    expect_found({{"folders", "error", "belongs to uid 1000", "chown root:root /kavrin/.conf"}});
}

TEST_F(DoctorTest, FindsAFolderThatOthersMayReplace) {
    chmod("/kavrin", 0777);
    expect_found({{"folders", "error", "/kavrin: others than root", "chmod go-w /kavrin"}});
    EXPECT_EQ(examine().checks["folders"]["findings"].size(), 1u) << "told once for each folder";
    chmod("/kavrin", 01777);
    expect_found({});
}

TEST_F(DoctorTest, FindsAFolderWithoutRoom) {
    ASSERT_EQ(mount("full", kStagingFolder.c_str(), "tmpfs", 0, "size=64k,mode=0700"), 0);
    expect_found({{"disk-space", "error", kStagingFolder + ": 64 KiB are free, and events need",
                   "make room"}});
}

TEST_F(DoctorTest, FindsAFolderWithoutInodes) {
    ASSERT_EQ(mount("full", kAuditingFolder.c_str(), "tmpfs", 0, "nr_inodes=20,mode=0700"), 0);
    expect_found({{"disk-space", "error", "files more, and its file system is full", "df -i"}});
}

TEST_F(DoctorTest, FindsAFolderWhoseNamesWouldBeCut) {
    const std::string folder = kStagingFolder + "/" + std::string(219, 'n');
    kvadmin::make_folder(folder, 0700);
    change_table([&folder](global_param_t* table) {
        std::strcpy(table[PARAM_STAGING_DIR].value.strval, folder.c_str());
    });
    expect_found({{"folder-names", "error", "it has 235 bytes; from 230 on", "a shorter path"},
                  {"config-values", "error", "has 235 bytes, and 200 is the most", "set it"},
                  {"config-equal", "warning", "in the table", "reload"}});
}

// What connections read. -----------------------------------------------------------------------

TEST_F(DoctorTest, FindsAMarkerFromTheFuture) {
    date_file("/etc/kavrin/permission_refresh", 7200);
    expect_found(
        {{"map-marker", "error", "in the future", "touch /etc/kavrin/permission_refresh"}});
}

TEST_F(DoctorTest, FindsThatAMarkerIsMissing) {
    unlink("/etc/kavrin/permission_refresh");
    expect_found({{"map-marker", "error", "No such file", "touch /etc/kavrin/permission_refresh"}});
}

TEST_F(DoctorTest, FindsAGroupMapThatOthersMayChange) {
    chmod(kvadmin::kGroupMapPath, 0666);
    expect_found({{"group-map", "error", "others than root", "chmod go-w"}});
}

TEST_F(DoctorTest, FindsADamagedGroupMap) {
    std::string bytes = read_file(kvadmin::kGroupMapPath);
    bytes[3] = '\x7f';  // where the reserved groups' table begins
    write_file(kvadmin::kGroupMapPath, bytes);
    expect_found({{"group-map", "error", "damaged", "kavrinctl groupmap lint"}});
}

TEST_F(DoctorTest, FindsAGroupMapWithoutAReservedGroup) {
    write_group_map({{{"kavrin-admins", 3001}}, {{"anna", {1000}}}});
    expect_found({{"group-map", "error", "kavrin-powerusers is not in it",
                   "groupadd --system kavrin-powerusers"}});
}

// Exception patterns. --------------------------------------------------------------------------

struct PatternFault {
    const char* what;
    std::string content;
    const char* where;
    const char* mend;
};

TEST_F(DoctorTest, FindsPatternsThatDoNotDoWhatTheyLookLike) {
    std::string many;
    for (int i = 0; i < 257; ++i) many += "p" + number(i) + "\n";
    const PatternFault faults[] = {
        {"an empty pattern matches every name", "a\n\nb\n", ":2", "remove the line"},
        {"is no pattern", "a\n[b\n", ":2", "correct"},
        {"the line ends in CR LF", "a\r\n", ":1", "remove the CRs"},
        {"loses its last character", "a\nbc", ":2", "add a newline"},
        {"it has 257 lines", many, "", "join"},
        {"holds a zero byte", std::string("a\0b\n", 4), ":1", "correct"},
    };
    for (const PatternFault& fault : faults) {
        SCOPED_TRACE(fault.what);
        write_file(kPatternFile, fault.content);
        expect_found({{"patterns", "error", kPatternFile + fault.where + ": ", fault.mend}});
        expect_found({{"patterns", "error", fault.what, fault.mend}});
    }
}

TEST_F(DoctorTest, FindsThatThePatternFileIsMissing) {
    unlink(kPatternFile.c_str());
    expect_found({{"patterns", "error", kPatternFile + ": No such file", "make the file"}});
}

// Samba. ---------------------------------------------------------------------------------------

TEST_F(DoctorTest, SkipsSambaWhereItIsNotInstalled) {
    unlink("/usr/sbin/smbd");
    expect_found({}, {"samba-module", "samba-share", "share-folder", "locale"});
}

TEST_F(DoctorTest, SkipsSambaWhereNoShareUsesIt) {
    write_share("vfs objects = acl_xattr");
    expect_found({}, {"samba-module", "samba-share", "share-folder", "locale"});
}

TEST_F(DoctorTest, FindsThatTheModuleIsMissing) {
    unlink(kVfsModule.c_str());
    expect_found({{"samba-module", "error", kVfsModule, "install the module"}});
}

TEST_F(DoctorTest, FindsAModuleThatCannotBeLoaded) {
    write_file(kVfsModule, "not a library");
    expect_found(
        {{"samba-module", "error", "smbd 4.17.12-Debian cannot load it", "built for this"}});
    std::filesystem::copy_file(OTHER_LIBRARY, kVfsModule,
                               std::filesystem::copy_options::overwrite_existing);
    expect_found({{"samba-module", "error", "it has no samba_init_module", "built for this"}});
}

TEST_F(DoctorTest, FindsThatTheComparisonLibraryIsMissing) {
    for (const auto& entry : std::filesystem::directory_iterator("/usr/lib/x86_64-linux-gnu/samba"))
        if (entry.path().filename().string().starts_with("libsamdb-common"))
            std::filesystem::remove(entry.path());
    expect_found({{"comparison-library", "error", "names outside ASCII cannot be compared",
                   "apt-get install --reinstall samba-libs"}});
}

TEST_F(DoctorTest, FindsAModuleBehindKavrin) {
    write_share("vfs object = kavrin, recycle");
    expect_found({{"samba-share", "error", "[team]: 'recycle' comes after kavrin", "the last"}});
}

TEST_F(DoctorTest, FindsUsersWhoBecomeSomebodyElse) {
    write_share("vfs objects = kavrin\n\tAdmin Users = anna");
    expect_found({{"samba-share", "error", "'admin users = anna'", "remove 'admin users'"}});
    write_share("vfs objects = kavrin\n\tforceuser = bert");
    expect_found({{"samba-share", "error", "'force user = bert'", "remove 'force user'"}});
}

TEST_F(DoctorTest, TakesWhatASharesInheritsFromGlobal) {
    write_file(kSmbConf, "[global]\nvfs objects = kavrin\nforce user = bert\n[team]\npath = " +
                             kShareFolder + "\n[own]\nvfs objects =\nforce user = carl\n");
    expect_found({{"samba-share", "error", "[team]: 'force user = bert'", "remove"}});
}

TEST_F(DoctorTest, ReadsTheFileItselfWithoutTestparm) {
    unlink("/usr/bin/testparm");
    write_share("vfs objects = \\\n  kavrin\n\t; admin users = anna");
    expect_found({});
    write_share("vfs objects = kavrin audit");
    expect_found({{"samba-share", "error", "'audit' comes after kavrin", "the last"}});
}

TEST_F(DoctorTest, FindsAShareThatCanBeReachedPastSamba) {
    chmod(kShareFolder.c_str(), 0755);
    expect_found({{"share-folder", "error", kShareFolder + ": it is uid 0's with mode 0755",
                   "chmod 0700 " + kShareFolder}});
    rmdir(kShareFolder.c_str());
    expect_found({{"share-folder", "error", "No such file", "install -d -m 0700"}});
}

TEST_F(DoctorTest, FindsTwoLocales) {
    start_smbd({"LC_ALL=tr_TR.UTF-8"});
    expect_found({{"locale", "error", "smbd 'tr_TR.UTF-8'", "the same LANG"}});
}

TEST_F(DoctorTest, SkipsLocalesWhenSmbdDoesNotRun) {
    end_smbd();
    expect_found({}, {"locale"});
}

}  // namespace
}  // namespace kvtest
