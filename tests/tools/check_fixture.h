// The stage of the check and explain tests: named users and groups, a share on disk, and a map that
// gives them something to be refused. Everything of the machine that is changed (its user and group
// databases among it) is the sandbox's own.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "command.h"
#include "support.h"

namespace kvtest {

constexpr uid_t kAlice = 2001;  // power user, staff
constexpr uid_t kBob = 2002;    // administrator
constexpr uid_t kCarol = 2003;  // standard user, staff
constexpr uid_t kDave = 2004;   // power user, editors and sales
constexpr gid_t kUsers = 3000;
constexpr gid_t kStaff = 3001;
constexpr gid_t kEditors = 3002;
constexpr gid_t kSales = 3003;
constexpr gid_t kAdmins = 3100;
constexpr gid_t kPowers = 3101;

class CheckTest : public testing::Test {
protected:
    CheckTest() : share(make_temp_dir()) {
        add_people();
        for (const char* folder :
             {"Shared", "Shared/Docs", "Shared/Docs/Plans", "Shared/Open", "Shared/Walk",
              "Shared/Own", "Private", "Private/alice", "Private/dave"})
            make_folder(folder);
        for (const char* file : {"Shared/Docs/report.txt", "Shared/Open/note.txt",
                                 "Shared/Walk/hidden.txt", "Private/alice/diary.txt"})
            write_file(share + "/" + file, "content");
        give("Private/alice", kAlice);
        give("Private/dave", kDave);
        publish(map());
    }

    static void add_people() {
        std::ofstream passwd("/etc/passwd", std::ios::app);
        passwd << "alice:x:2001:3000::/:/bin/false\nbob:x:2002:3000::/:/bin/false\n"
                  "carol:x:2003:3000::/:/bin/false\ndave:x:2004:3000::/:/bin/false\n";
        std::ofstream group("/etc/group", std::ios::app);
        group << "people:x:3000:\nthestaff:x:3001:alice,carol\neditors:x:3002:dave\n"
                 "sales:x:3003:dave\nkavrin-admins:x:3100:bob\n"
                 "kavrin-powerusers:x:3101:alice,dave\n";
    }

    // Shared: staff reads, editors write. Open: everybody of the staff may do everything. Walk:
    // staff navigates. Own: alice's own entry outranks her groups'.
    static Node map() {
        const Node report{"report.txt", {}, {}, {}};
        const Node plans{"Plans", {}, {}, {}};
        const Node docs{"Docs", {}, {}, {report, plans}};
        const Node open{"Open", {}, {{kStaff, 7}}, {{"note.txt", {}, {}, {}}}};
        const Node walk{"Walk", {}, {{kStaff, 8}}, {{"hidden.txt", {}, {}, {}}}};
        const Node own{"Own", {{kAlice, 1}}, {{kStaff, 7}}, {{"x", {}, {}, {}}}};
        const Node shared{"Shared", {}, {{kStaff, 1}, {kEditors, 3}}, {docs, open, walk, own}};
        return {"/", {}, {{kStaff, 8}}, {shared, {"Private", {}, {}, {}}}};
    }

    void make_folder(const std::string& path) {
        ASSERT_EQ(mkdir((share + "/" + path).c_str(), 0755), 0);
    }
    void give(const std::string& path, uid_t owner) {
        ASSERT_EQ(chown((share + "/" + path).c_str(), owner, kUsers), 0);
    }

    static ChildResult tool(const std::vector<std::string>& arguments) {
        return run_child([&] {
            std::vector<const char*> argv{"kavrinctl", "check"};
            for (const std::string& argument : arguments) argv.push_back(argument.c_str());
            return kvadmin::run(static_cast<int>(argv.size()), argv.data());
        });
    }
    ChildResult check(const std::string& user, const std::string& path,
                      std::vector<std::string> more = {}) {
        std::vector<std::string> arguments{"--user", user, "--root", share};
        std::vector<std::string> positional{path};
        for (std::string& text : more) {
            if (text.starts_with("--")) {
                arguments.push_back(std::move(text));
            } else {
                positional.push_back(std::move(text));
            }
        }
        arguments.insert(arguments.end(), positional.begin(), positional.end());
        return tool(arguments);
    }
    nlohmann::json explained(const std::string& user, const std::string& path,
                             const std::string& op) {
        const ChildResult result = check(user, path, {op, "--explain", "--json"});
        const nlohmann::json document = nlohmann::json::parse(result.out, nullptr, false);
        EXPECT_FALSE(document.is_discarded()) << result.out << result.err;
        return document.is_discarded() ? document : document["results"][0];
    }

    ConfigTable config{-1};
    std::string share;
};

}  // namespace kvtest
