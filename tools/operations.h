// The operations a verdict can be asked for, by name: the codes themselves, and the few words in
// which a person asks. Codes that end the process that asks for them have no name here.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "kavrin_perms.h"
#include "kavrin_structs.h"

namespace kvadmin {

// One question to the enforcement.
struct Question {
    std::string asked;  // as the user said it, "open_read" or "write"
    e_fsop_type_t op = FSOP_INVAL;
    std::string path;    // relative to the share
    int force_type = 0;  // e_file_type, or 0 to look at the disk
    std::string remark;  // what a word was taken for; empty for a code's own name
};

// "open_read" for FSOP_OPEN_READ.
std::string operation_name(e_fsop_type_t op);

// The question that `word` asks about `path`: an operation's name (letter case and the prefix FSOP_
// do not matter), or read, write, delete, list. `type` is what the path leads to, `force_type` what
// the user said it leads to. A word that cannot be asked is a usage error that names it.
Question question_for(std::string_view word, const std::string& path, e_file_type_t type,
                      int force_type);

// What is asked when nothing was: what a client does with an element of that type.
std::vector<std::string_view> usual_operations(e_file_type_t type);

// "file", "folder", "missing"; and "a file" and so on for sentences.
std::string_view type_name(int type);
std::string_view type_words(int type);

}  // namespace kvadmin
