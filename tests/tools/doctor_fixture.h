// The stage of the doctor's tests: a server on which nothing is wrong, made of the real objects at
// their real places inside the sandbox, with a service that answers and a Samba that says its
// version. A test breaks one thing; everything else has to stay green.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/sem.h>
#include <sys/shm.h>

#include <map>
#include <memory>
#include <set>

#include "config_file.h"
#include "groupmap_file.h"
#include "kernel_objects.h"
#include "service_stub.h"
#include "tool_run.h"
#include "whole_file.h"

namespace kvtest {

inline const std::string kSmbConf = "/etc/samba/smb.conf";
inline const std::string kConfigFile = "/etc/kavrin/kavrin.conf";
inline const std::string kPatternFile = "/etc/kavrin/patterns";
inline const std::string kStagingFolder = "/kavrin/staging";
inline const std::string kAuditingFolder = "/kavrin/auditing";
inline const std::string kIncoming = "/var/lib/kavrin/incoming";
inline const std::string kShareFolder = "/srv/kavrin-doctor";
inline const std::string kPersistedMap = "/etc/kavrin/.permbe_map";
inline const std::string kVfsModule = "/usr/lib/x86_64-linux-gnu/samba/vfs/kavrin.so";

class DoctorTest : public testing::Test {
protected:
    using Json = nlohmann::json;

    DoctorTest() {
        std::filesystem::create_directories("/run/systemd/system");
        make_configuration();
        make_folders();
        create_eventstore_staging_semaphore();
        EXPECT_EQ(create_staging_buffer(), 0);
        publish(Node{"/", {}, {{1000, 8}}, {{"Shared", {{1001, 7}}, {}, {}}}});
        kvadmin::touch_map_marker();
        write_group_map(
            {{{"kavrin-admins", 3001}, {"kavrin-powerusers", 3002}}, {{"anna", {1000, 3002}}}});
        make_samba();
        start_service(sound_status());
    }
    ~DoctorTest() override { end_smbd(); }

    // What is made. --------------------------------------------------------------------------

    void make_configuration() {
        write_file(kPatternFile, "\\.tmp$\n^~\n");
        write_file(kConfigFile, "[VFS]\nexception pattern file = " + kPatternFile + "\n");
        config.set_int(PARAM_STAGING_BUFFER_SIZE, 1'048'576);
        const ChildResult made = run_child_void([] {
            ASSERT_EQ(create_config_buffer(), 0);
            kvadmin::read_config_file(kConfigFile).configuration.write_to(global_params);
        });
        EXPECT_EQ(made.exit_code, 0) << made.err;
    }

    static void make_folders() {
        for (const std::string& folder : {kStagingFolder, kAuditingFolder, kIncoming})
            kvadmin::make_folder(folder, 0700);
        kvadmin::make_folder("/kavrin/.conf", 0755);
    }

    static void write_group_map(const kvadmin::GroupMapContent& content) {
        kvadmin::write_groupmap(kvadmin::kGroupMapPath, kvadmin::encode_groupmap(content));
    }

    static void write_program(const std::string& path, const std::string& script) {
        std::filesystem::remove(path);
        write_file(path, "#!/bin/sh\n" + script + "\n");
        chmod(path.c_str(), 0755);
    }

    void make_samba() {
        write_program("/usr/sbin/smbd", "echo 'Version 4.17.12-Debian'");
        write_program("/usr/bin/testparm", "cat \"$2\"");
        std::filesystem::create_directories("/usr/lib/x86_64-linux-gnu/samba/vfs");
        std::filesystem::copy_file(DOCTOR_MODULE, kVfsModule,
                                   std::filesystem::copy_options::overwrite_existing);
        std::filesystem::create_directories("/etc/samba");
        write_share("vfs objects = acl_xattr kavrin");
        kvadmin::make_folder(kShareFolder, 0700);
        start_smbd({});
    }

    static void write_share(const std::string& parameters) {
        write_file(kSmbConf,
                   "[global]\n\tworkgroup = TEST\n\n[other]\n\tpath = /tmp\n\n[team]\n\tpath = " +
                       kShareFolder + "\n\t" + parameters + "\n");
    }

    // A process that stands for smbd, with these variables instead of ours when there are any.
    void start_smbd(const std::vector<std::string>& environment) {
        end_smbd();
        smbd_ = fork();
        if (smbd_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            std::vector<char*> variables;
            for (const std::string& variable : environment)
                variables.push_back(const_cast<char*>(variable.c_str()));
            variables.push_back(nullptr);
            if (environment.empty())
                execl("/bin/sleep", "smbd", "600", nullptr);
            else
                execle("/bin/sleep", "smbd", "600", nullptr, variables.data());
            _exit(127);
        }
        std::filesystem::create_directories("/run/samba");
        write_file("/run/samba/smbd.pid", std::to_string(smbd_) + "\n");
        // Its variables are seen once it has become another program.
        const std::string own = read_file("/proc/self/comm");
        const std::string comm = "/proc/" + std::to_string(smbd_) + "/comm";
        for (int i = 0; i < 1000 && read_file(comm) == own; ++i) usleep(1000);
    }
    void end_smbd() {
        if (smbd_ <= 0) return;
        kill(smbd_, SIGKILL);
        waitpid(smbd_, nullptr, 0);
        smbd_ = -1;
    }

    static Json sound_status() {
        return {{"service",
                 {{"pid", getpid()},
                  {"version", KAVRIN_VERSION},
                  {"config", kConfigFile},
                  {"state", "idle"},
                  {"job", nullptr},
                  {"queued", 0}}},
                {"map", {{"number", 1}, {"published", 2000}}},
                {"last_failure", nullptr},
                {"halves", Json::array()},
                {"group_map", {{"users", 1}, {"written", 1000}, {"error", nullptr}}}};
    }
    void start_service(const Json& status) {
        service.reset();
        service = std::make_unique<ServiceStub>(always(ok_line(status)));
    }

    // What is found. -------------------------------------------------------------------------

    struct Report {
        int exit_code = -1;
        Json document;
        std::map<std::string, Json> checks;
    };

    static Report examine() {
        const ChildResult result = run_tool({"doctor", "--json", "--smb-conf", kSmbConf});
        Report report;
        report.exit_code = result.exit_code;
        report.document = Json::parse(result.out, nullptr, false);
        EXPECT_TRUE(report.document.is_object()) << result.out << result.err;
        EXPECT_EQ(result.err, "");
        for (const Json& check : report.document["checks"])
            report.checks[check["id"].get<std::string>()] = check;
        return report;
    }

    struct Expected {
        const char* id;
        const char* severity;
        std::string what;  // part of
        std::string mend;  // part of
    };

    // These checks find that, `skipped` cannot be made, and all others are green.
    static void expect_found(const std::vector<Expected>& expected,
                             const std::set<std::string>& skipped = {}) {
        const Report report = examine();
        std::map<std::string, std::string> wanted;
        bool errors = false;
        for (const Expected& one : expected) {
            wanted[one.id] = one.severity;
            errors = errors || std::string(one.severity) == "error";
            expect_finding(report, one);
        }
        for (const auto& [id, check] : report.checks) {
            const std::string otherwise = skipped.contains(id) ? "skipped" : "ok";
            EXPECT_EQ(check["severity"], wanted.contains(id) ? wanted[id] : otherwise)
                << check.dump(2);
        }
        EXPECT_EQ(report.exit_code, errors ? 2 : 0);
    }

    static void expect_finding(const Report& report, const Expected& one) {
        ASSERT_TRUE(report.checks.contains(one.id)) << one.id;
        const Json& check = report.checks.at(one.id);
        bool found = false;
        for (const Json& finding : check["findings"]) {
            const std::string text =
                finding["where"].get<std::string>() + ": " + finding["what"].get<std::string>();
            const std::string mend = finding["mend"];
            found = found || (finding["severity"] == one.severity &&
                              text.find(one.what) != std::string::npos &&
                              mend.find(one.mend) != std::string::npos && !mend.empty());
        }
        EXPECT_TRUE(found) << "'" << one.what << "' with '" << one.mend << "' is not in\n"
                           << check.dump(2);
    }

    // Breaking things. -----------------------------------------------------------------------

    static std::string number(int value) { return std::to_string(value); }
    static int segment_id(int table) { return kvadmin::map_segment(table).id; }
    static int served_table() { return kvadmin::map_semaphores().values.at(0); }
    static void change_table(const std::function<void(global_param_t*)>& change) {
        void* const address = shmat(kvadmin::config_table_segment().id, nullptr, 0);
        ASSERT_NE(address, reinterpret_cast<void*>(-1));
        change(static_cast<global_param_t*>(address));
        shmdt(address);
    }
    static void set_semaphore(int set, int index, int value) {
        ASSERT_EQ(semctl(set, index, SETVAL, value), 0);
    }
    static void date_file(const std::string& path, int seconds_from_now) {
        const timespec when{time(nullptr) + seconds_from_now, 0};
        const timespec times[] = {when, when};
        ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
    }
    static void write_kernel_value(const std::string& name, const std::string& value) {
        std::ofstream file("/proc/sys/kernel/" + name);
        file << value;
        ASSERT_TRUE(file.flush()) << name;
    }

    ConfigTable config{-1};
    std::unique_ptr<ServiceStub> service;

private:
    pid_t smbd_ = -1;
};

}  // namespace kvtest
