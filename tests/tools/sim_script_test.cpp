// The scripts of smb-sim: what each statement says, and where and how each mistake is told.
#include "sim_script.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

namespace {

using kvadmin::parse_sim_script;
using kvadmin::SimKind;
using kvadmin::SimLimits;
using kvadmin::SimScript;
using kvadmin::SimStatement;

constexpr const char* kEverything = R"(# every statement once
share /srv/team
group staff 3001
administrators 7001
powerusers 7002
user alice 2001 groups staff powerusers 3009
computer printer$ 2005
groups alice administrators
acl Shared/Docs user alice rwd group staff nav user 2002 view
publish
patterns \.tmp$ "a b"
folder Shared/Docs owner alice
fixed-folder Shared/Docs/Reports
file "Shared/Docs/a b.txt" "say \"hi\" \\ bye" owner 2002
audit on
as alice
touch-marker groupmap future
cache
mkdir A   # comment
create-folder A
open-folder A
delete-open A
rmdir A
ls A to-delete
stat A
expect refused EPERM
lstat A
cd A
statvfs A
touch A
create A open for-writing
open A chattr
put A "t"
append A t#t
read A
rename A "B C"
unlink A
deletable A
signal
events
disconnect
)";

SimScript parse(std::string_view text) {
    return parse_sim_script(text, SimLimits{});
}

const SimStatement& only(const SimScript& script, SimKind kind) {
    for (const SimStatement& statement : script.statements)
        if (statement.kind == kind) return statement;
    static const SimStatement none;
    ADD_FAILURE() << "no such statement";
    return none;
}

// "LINE:COLUMN: message" of the only mistake.
std::string mistake(std::string_view text, const SimLimits& limits = {}) {
    const SimScript script = parse_sim_script(text, limits);
    if (script.errors.size() != 1) {
        std::string all = std::to_string(script.errors.size()) + " mistakes";
        for (const auto& error : script.errors) all += "; " + error.message;
        return all;
    }
    const auto& error = script.errors.front();
    return std::to_string(error.line) + ":" + std::to_string(error.column) + ": " + error.message;
}

}  // namespace

TEST(SimScript, EveryStatementIsRead) {
    const SimScript script = parse(kEverything);
    for (const auto& error : script.errors)
        ADD_FAILURE() << error.line << ":" << error.column << ": " << error.message;
    std::set<SimKind> kinds;
    for (const SimStatement& statement : script.statements) kinds.insert(statement.kind);
    EXPECT_EQ(kinds.size(), static_cast<std::size_t>(SimKind::kDeletable) + 1);
    EXPECT_EQ(script.statements.size(), kinds.size());
}

TEST(SimScript, SetUpStatementsCarryTheirNumbers) {
    const SimScript script = parse(kEverything);
    EXPECT_EQ(only(script, SimKind::kShare).name, "/srv/team");
    EXPECT_EQ(only(script, SimKind::kAdministrators).id, 7001U);
    const SimStatement& user = only(script, SimKind::kUser);
    EXPECT_EQ(user.name, "alice");
    EXPECT_EQ(user.id, 2001U);
    EXPECT_EQ(user.groups, (std::vector<std::uint32_t>{3001, 7002, 3009}));
    EXPECT_EQ(only(script, SimKind::kGroups).groups, std::vector<std::uint32_t>{7001});
    EXPECT_EQ(only(script, SimKind::kFolder).owner, 2001U);
    EXPECT_EQ(only(script, SimKind::kFixedFolder).owner, std::nullopt);
    EXPECT_EQ(only(script, SimKind::kPatterns).words, (std::vector<std::string>{"\\.tmp$", "a b"}));
}

TEST(SimScript, AclEntriesKeepTheirOrderAndRights) {
    const SimScript script = parse(kEverything);
    const auto& aces = only(script, SimKind::kAcl).aces;
    ASSERT_EQ(aces.size(), 3U);
    EXPECT_FALSE(aces[0].group);
    EXPECT_EQ(aces[0].id, 2001U);
    EXPECT_EQ(aces[0].mask, 7U);
    EXPECT_TRUE(aces[1].group);
    EXPECT_EQ(aces[1].id, 3001U);
    EXPECT_EQ(aces[1].mask, 8U);
    EXPECT_EQ(aces[2].id, 2002U);
    EXPECT_EQ(aces[2].mask, 16U);
    const SimScript rights = parse("acl / user 1 none user 2 r user 3 rw\n");
    ASSERT_EQ(rights.statements.size(), 1U);
    EXPECT_EQ(rights.statements[0].aces[0].mask, 0U);
    EXPECT_EQ(rights.statements[0].aces[1].mask, 1U);
    EXPECT_EQ(rights.statements[0].aces[2].mask, 3U);
}

TEST(SimScript, OperationsCarryTheirWords) {
    const SimScript script = parse(kEverything);
    EXPECT_EQ(only(script, SimKind::kFile).name, "Shared/Docs/a b.txt");
    EXPECT_EQ(only(script, SimKind::kFile).second, "say \"hi\" \\ bye");
    EXPECT_EQ(only(script, SimKind::kTouchMarker).name, "groupmap");
    EXPECT_EQ(only(script, SimKind::kTouchMarker).choice, "future");
    EXPECT_EQ(only(script, SimKind::kLs).choice, "to-delete");
    EXPECT_EQ(only(script, SimKind::kOpen).choice, "chattr");
    EXPECT_EQ(only(script, SimKind::kCreate).choice, "open");
    EXPECT_TRUE(only(script, SimKind::kCreate).writes);
    EXPECT_EQ(only(script, SimKind::kAppend).second, "t#t");
    EXPECT_EQ(only(script, SimKind::kRename).second, "B C");
    EXPECT_EQ(only(script, SimKind::kExpect).choice, "refused");
    EXPECT_EQ(only(script, SimKind::kExpect).second, "EPERM");
    const SimStatement& mkdir = only(script, SimKind::kMkdir);
    EXPECT_EQ(mkdir.text, "mkdir A");
    EXPECT_EQ(mkdir.line, 19U);
    EXPECT_EQ(mkdir.column, 1U);
}

TEST(SimScript, WhatIsLeftOutHasItsDefault) {
    const SimScript script =
        parse("as a\ncreate A\nls A\nopen A\ntouch-marker permission\ncreate A for-writing");
    ASSERT_TRUE(script.errors.empty());
    EXPECT_EQ(script.statements[1].choice, "create");
    EXPECT_FALSE(script.statements[1].writes);
    EXPECT_EQ(script.statements[2].choice, "by-name");
    EXPECT_EQ(script.statements[3].choice, "read");
    EXPECT_EQ(script.statements[4].choice, "now");
    EXPECT_EQ(script.statements[5].choice, "create");
    EXPECT_TRUE(script.statements[5].writes);
}

TEST(SimScript, EmptyLinesAndCommentsSayNothing) {
    EXPECT_TRUE(parse("").statements.empty());
    const SimScript script = parse("\n  # a\n\t\r\n#\"unclosed\n");
    EXPECT_TRUE(script.statements.empty());
    EXPECT_TRUE(script.errors.empty());
}

TEST(SimScript, UnknownStatementsAreToldWithAllKnownOnes) {
    const std::string text = mistake("\n   frobnicate x\n");
    EXPECT_TRUE(text.starts_with("2:4: 'frobnicate' is no statement; there are share, group, "))
        << text;
    EXPECT_TRUE(text.ends_with(", unlink, deletable")) << text;
}

TEST(SimScript, QuotesAreToldWhereTheyGoWrong) {
    EXPECT_EQ(mistake("file A \"open"), "1:8: this quote has no closing quote on its line");
    EXPECT_EQ(mistake("file A b\"c\""),
              "1:9: a quote inside of a word; put the whole word in quotes");
    EXPECT_EQ(mistake("file A \"b\"c"), "1:11: a blank must follow a closing quote");
    EXPECT_EQ(mistake("file A \"b\\n\""),
              "1:10: only \\\" and \\\\ stand after a backslash in quotes");
}

TEST(SimScript, TooFewAndTooManyWordsAreToldWithTheForm) {
    EXPECT_EQ(mistake("group staff"), "1:1: 'group' needs more; it is written 'group NAME GID'");
    EXPECT_EQ(mistake("publish  now"), "1:10: 'now' is one word too many; it is written 'publish'");
    EXPECT_EQ(mistake("as a\nrename A"),
              "2:1: 'rename' needs more; it is written 'rename FROM TO'");
}

TEST(SimScript, WordsThatDoNotFitAreToldWithThoseThatDo) {
    EXPECT_EQ(mistake("audit maybe"), "1:7: 'maybe' does not fit here; there is on, off");
    EXPECT_EQ(mistake("as a\nls A sideways"),
              "2:6: 'sideways' does not fit here; there is by-descriptor, to-delete");
    EXPECT_EQ(mistake("as a\nopen A wide"),
              "2:8: 'wide' does not fit here; there is read, write, create, chattr");
    EXPECT_EQ(mistake("as a\ncreate A b"),
              "2:10: 'b' does not fit here; there is supersede, open, create, open-if, overwrite, "
              "overwrite-if");
    EXPECT_EQ(mistake("as a\ncreate A open w"),
              "2:15: 'w' does not fit here; there is for-writing");
    EXPECT_EQ(mistake("touch-marker map"),
              "1:14: 'map' does not fit here; there is permission, groupmap");
    EXPECT_EQ(mistake("touch-marker groupmap soon"),
              "1:23: 'soon' does not fit here; there is now, past, future");
    EXPECT_EQ(mistake("folder A of 3"), "1:10: 'of' does not fit here; there is owner");
    EXPECT_EQ(mistake("user a 1 in 3"), "1:10: 'in' does not fit here; there is groups");
    EXPECT_EQ(mistake("acl A all 1 r"), "1:7: 'all' does not fit here; there is user, group");
    EXPECT_EQ(mistake("acl A user 1 rx"),
              "1:14: 'rx' are no rights; there is none, r, rw, rwd, nav, view");
}

TEST(SimScript, NumbersAreToldWithTheirRange) {
    EXPECT_EQ(mistake("user a 0"), "1:8: '0' is no user id; write a number from 1 to 4294967294");
    EXPECT_EQ(mistake("user a 12x"),
              "1:8: '12x' is no user id; write a number from 1 to 4294967294");
    EXPECT_EQ(mistake("group a 4294967295"),
              "1:9: '4294967295' is no group id; write a number from 1 to 4294967294");
    EXPECT_EQ(mistake("powerusers -1"),
              "1:12: '-1' is no group id; write a number from 1 to 4294967294");
}

TEST(SimScript, NamesMustBeDeclaredAbove) {
    EXPECT_EQ(mistake("acl A user bob r\nuser bob 5"),
              "1:12: no user 'bob' is declared above; write 'user bob UID', or a number");
    EXPECT_EQ(mistake("acl A group staff r"),
              "1:13: no group 'staff' is declared above; write 'group staff GID', or a number");
    EXPECT_EQ(mistake("file A t owner bob"),
              "1:16: no user 'bob' is declared above; write 'user bob UID', or a number");
    EXPECT_EQ(mistake("groups bob"), "1:8: no user 'bob' is declared above; write 'user bob UID'");
    EXPECT_EQ(mistake("user a 1 groups powerusers"),
              "1:17: no group 'powerusers' is declared above; write 'group powerusers GID', or a "
              "number");
}

TEST(SimScript, AccountNamesAreAsAccountsHaveThem) {
    EXPECT_EQ(mistake("user host$ 5"),
              "1:6: 'host$' is a computer's account; write 'computer' for 'user'");
    EXPECT_EQ(mistake("computer host 5"),
              "1:10: 'host' is no computer's account: those end in '$'");
    EXPECT_EQ(mistake("user a 5\nuser a 6"),
              "2:6: 'a' is declared above already; 'groups' gives a user other groups");
    for (const char* name : {"a:b", "12", "-a", "\"a b\"", "\"\"", "a/b"})
        EXPECT_NE(mistake(std::string("user ") + name + " 5").find("is no account name"),
                  std::string::npos)
            << name;
    EXPECT_EQ(mistake("group 12 5"), "1:7: a group's name is no number");
}

TEST(SimScript, UnfinishedListsAreTold) {
    EXPECT_EQ(mistake("user a 5 groups"),
              "1:10: 'groups' stands before groups; name one, or leave it out");
    EXPECT_EQ(mistake("folder A owner"), "1:10: 'owner' stands before a user; name one");
    EXPECT_EQ(mistake("acl A user 5"),
              "1:7: an entry is three words: user or group, whose, and the rights");
}

TEST(SimScript, SetUpStaysBelowTheShare) {
    for (const char* path : {"/etc", "../x", "A/../../x", "A//b", "./A", "A/", "\"\""})
        EXPECT_NE(mistake(std::string("folder ") + path).find("is no path below the share"),
                  std::string::npos)
            << path;
    EXPECT_EQ(mistake("file / t"),
              "1:6: '/' is no path below the share; write it like Shared/Docs");
    // What an operation asks for is its user's affair.
    EXPECT_TRUE(parse("as a\nstat ../x").errors.empty());
}

TEST(SimScript, OperationsNeedAConnectedUser) {
    EXPECT_EQ(mistake("mkdir A"), "1:1: nobody is connected here; write 'as USER' above");
    EXPECT_EQ(mistake("as a\ndisconnect\nsignal"),
              "3:1: nobody is connected here; write 'as USER' above");
    EXPECT_EQ(mistake("expect allowed"),
              "1:1: there is no operation above whose result could be expected");
}

TEST(SimScript, ExpectationsAreVerdictsAndErrnoNames) {
    EXPECT_EQ(mistake("as a\nexpect fine"),
              "2:8: 'fine' does not fit here; there is allowed, refused, ended");
    EXPECT_EQ(mistake("as a\nexpect refused EACESS"),
              "2:16: 'EACESS' is no error; write its name, such as EACCES or EPERM");
    EXPECT_EQ(mistake("as a\nexpect allowed EPERM"), "2:16: only 'expect refused' takes an error");
}

TEST(SimScript, TheShareComesFirstAndOnce) {
    EXPECT_EQ(mistake("share team"), "1:7: 'team' is not absolute; a share's path begins with '/'");
    EXPECT_EQ(mistake("folder A\nshare /a"),
              "2:1: 'share' must stand before the first folder, file and user");
    EXPECT_EQ(mistake("share /a\nshare /b"),
              "2:1: 'share' must stand before the first folder, file and user");
    EXPECT_EQ(mistake("share /a", {true, false, true}),
              "1:1: the command line names the share already");
}

TEST(SimScript, OutsideOfASandboxTheMachineStaysAsItIs) {
    const SimLimits outside{false, true, false};
    for (const char* line :
         {"group a 1", "administrators 1", "powerusers 1", "user a 1", "computer a$ 1", "groups a",
          "acl A", "publish", "patterns a", "touch-marker permission", "events"})
        EXPECT_NE(mistake(line, outside).find("needs a run with --sandboxed"), std::string::npos)
            << line;
    EXPECT_TRUE(parse_sim_script("folder A\nas a\nmkdir A/B", outside).errors.empty());
    // A share that was not made for the run is nobody's playground.
    EXPECT_NE(mistake("folder A", {false, false, true}).find("would change a share in use"),
              std::string::npos);
    EXPECT_NE(mistake("share /srv/team\nfile A t", outside).find("would change a share in use"),
              std::string::npos);
}

TEST(SimScript, OutsideOfASandboxNoOperationClimbsOutOfTheShare) {
    const SimLimits outside{false, true, false};
    for (const char* line : {"unlink ../../etc/passwd", "mkdir A/../../B", "rmdir ..", "stat A/..",
                             "rename ../A B", "put ../A text"})
        EXPECT_NE(mistake("as a\n" + std::string(line), outside).find("2:"), std::string::npos)
            << line;
    EXPECT_EQ(mistake("as a\nrename A B/../../C", outside),
              "2:10: 'B/../../C' has '..' in it; outside of a sandbox a path stays in the share");
    EXPECT_TRUE(parse_sim_script("as a\nput A ../text\nstat A..B", outside).errors.empty());
    EXPECT_TRUE(parse_sim_script("user a 1\nas a\nstat ../A", {true, true, false}).errors.empty());
}

TEST(SimScript, AllMistakesAreToldInTheOrderOfTheirLines) {
    const SimScript script = parse("mkdir A\nfolder /x\n\nfrob\nas a\nstat A\n");
    ASSERT_EQ(script.errors.size(), 3U);
    EXPECT_EQ(script.errors[0].line, 1U);
    EXPECT_EQ(script.errors[1].line, 2U);
    EXPECT_EQ(script.errors[2].line, 4U);
    EXPECT_EQ(script.statements.size(), 2U);
}
