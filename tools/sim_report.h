// What became of one statement, as it travels from a user's process and as people read it.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "vfs_common.h"

namespace kvadmin {

struct SimAudit {
    std::string path;
    std::uint64_t size = 0;
    uid_t uid = 0;
    std::int64_t time = 0;
};

struct SimOutcome {
    enum class Verdict : std::uint8_t { kNone, kAllowed, kRefused, kEnded };
    Verdict verdict = Verdict::kNone;
    int error = 0;                   // errno of a refusal
    std::string hook;                // that refused
    std::string disk;                // what the operation itself answered
    std::vector<std::string> lines;  // more to say
    std::vector<SimAudit> audits;
    std::string identity;  // not empty: the process is not who it was
};

nlohmann::json to_json(const SimOutcome& outcome);
SimOutcome outcome_from_json(const nlohmann::json& json);

// "allowed", "refused EACCES", "ended": what `expect` compares with.
std::string verdict_words(const SimOutcome& outcome);

// "done", or the name of errno.
std::string disk_words(int result);

class SimPrinter {
public:
    SimPrinter(std::string share, bool times) : share_(std::move(share)), times_(times) {}

    void print(const SimOutcome& outcome) const;
    // "CREATE file Shared/Docs/a.txt, by alice", after "event: ".
    void print_event(const VFSEvent& event) const;

private:
    std::string relative(std::string_view path) const;

    std::string share_;
    bool times_;
};

}  // namespace kvadmin
