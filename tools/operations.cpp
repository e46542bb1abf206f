// See operations.h.
#include "operations.h"

#include <algorithm>
#include <array>
#include <cctype>

#include "failure.h"
#include "permissions/decision_table.h"

namespace kvadmin {
namespace {

constexpr std::string_view kPrefix = "fsop_";
// The name of a thing that does not exist yet, in questions about putting one into a folder.
constexpr char kNewName[] = "new";

// By code, from 1.
constexpr std::array<std::string_view, FSOP_FGETNTACL> kNames = {
    "create",  "open_read",  "open_write",  "open_chattr", "opendir",   "readdir",
    "unlink",  "rename_src", "rename_dest", "move_src",    "move_dest", "chmod",
    "chown",   "set_acl",    "get_acl",     "stat",        "lstat",     "read_link",
    "connect", "mkdir",      "rmdir",       "statvfs",     "seekdir",   "rewinddir",
    "telldir", "chdir",      "realpath",    "getntacl",    "fgetntacl"};

std::string lower(std::string_view text) {
    std::string result(text);
    std::transform(result.begin(), result.end(), result.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return result;
}

bool can_be_asked(int op) {
    const kavrin::DecisionRow& row =
        kavrin::decision_row(static_cast<e_fsop_type_t>(op), FSTYPE_FOLDER);
    return row.need != kavrin::Need::kProgrammingError;
}

std::string names_to_ask() {
    std::string names;
    for (int op = FSOP_MIN; op <= FSOP_FGETNTACL; ++op) {
        if (can_be_asked(op)) names += operation_name(static_cast<e_fsop_type_t>(op)) + " ";
    }
    return names + "read write delete list";
}

e_fsop_type_t code_for(std::string_view word) {
    std::string name = lower(word);
    if (name.starts_with(kPrefix)) name.erase(0, kPrefix.size());
    const auto found = std::find(kNames.begin(), kNames.end(), name);
    if (found == kNames.end())
        fail(Exit::kUsage, "there is no operation '{}'; there are {}", word, names_to_ask());
    const int op = static_cast<int>(found - kNames.begin()) + FSOP_MIN;
    if (!can_be_asked(op))
        fail(Exit::kUsage,
             "no verdict is ever asked for '{}': a process that does is ended; ask for one of {}",
             word, names_to_ask());
    return static_cast<e_fsop_type_t>(op);
}

// What each word asks of a folder; of anything else it asks the other.
struct Word {
    std::string_view word;
    e_fsop_type_t of_folder;
    e_fsop_type_t of_other;
    std::string_view remark_folder;
    std::string_view remark_other;
};
constexpr std::array<Word, 4> kWords = {{
    {"read", FSOP_READDIR, FSOP_OPEN_READ, "reading the folder's entries", "opening it to read"},
    {"write", FSOP_CREATE, FSOP_OPEN_WRITE, "creating a file in it", "opening it to write"},
    {"delete", FSOP_RMDIR, FSOP_UNLINK, "removing the folder", "removing it"},
    {"list", FSOP_OPENDIR, FSOP_STAT, "opening the folder to list it", "seeing it in its folder"},
}};

}  // namespace

std::string operation_name(e_fsop_type_t op) {
    const int index = static_cast<int>(op) - FSOP_MIN;
    if (index < 0 || index >= static_cast<int>(kNames.size()))
        return "operation " + std::to_string(static_cast<int>(op));
    return std::string(kNames[static_cast<std::size_t>(index)]);
}

Question question_for(std::string_view word, const std::string& path, e_file_type_t type,
                      int force_type) {
    const std::string name = lower(word);
    const auto found = std::find_if(kWords.begin(), kWords.end(),
                                    [&name](const Word& entry) { return entry.word == name; });
    if (found == kWords.end()) {
        const e_fsop_type_t op = code_for(word);
        return {operation_name(op), op, path, force_type, {}};
    }
    const bool folder = type == FSTYPE_FOLDER;
    Question question{name, folder ? found->of_folder : found->of_other, path, force_type,
                      std::string(folder ? found->remark_folder : found->remark_other)};
    if (question.op == FSOP_CREATE) {
        question.path += std::string("/") + kNewName;
        question.force_type = FSTYPE_DOES_NOT_EXIST;
    }
    return question;
}

std::vector<std::string_view> usual_operations(e_file_type_t type) {
    switch (type) {
        case FSTYPE_FOLDER:
            return {"stat", "list", "write", "rename_src", "move_src", "rmdir"};
        case FSTYPE_FILE:
            return {"stat", "open_read", "open_write", "rename_src", "move_src", "unlink"};
        default:
            return {"create", "mkdir", "open_write", "rename_dest", "move_dest"};
    }
}

std::string_view type_name(int type) {
    switch (type) {
        case FSTYPE_FILE:
            return "file";
        case FSTYPE_FOLDER:
            return "folder";
        case FSTYPE_DOES_NOT_EXIST:
            return "missing";
        default:
            return "unknown";
    }
}

std::string_view type_words(int type) {
    switch (type) {
        case FSTYPE_FILE:
            return "a file";
        case FSTYPE_FOLDER:
            return "a folder";
        case FSTYPE_DOES_NOT_EXIST:
            return "something that does not exist";
        default:
            return "something not looked at";
    }
}

}  // namespace kvadmin
