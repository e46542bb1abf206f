// What a script runs on: the share, and in a sandbox also the accounts, the group map, the
// permission map, the refresh markers and the places that events go to. Outside of a sandbox all of
// these are the machine's own, and only looked at.
//
// Nothing here depends on the clock: marker files are dated as the script says, and everything that
// a run makes by itself is dated long before it.
#pragma once

#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

#include "sim_map.h"
#include "sim_script.h"

namespace kvadmin {

struct SimSettings {
    bool sandboxed = false;
    std::string share;  // empty: a temporary one
};

// Who a process runs as.
struct SimCaller {
    std::string name;
    uid_t uid = 0;
    gid_t gid = 0;
    std::vector<gid_t> groups;
    bool known = true;  // there is such an account
};

class SimStage {
public:
    explicit SimStage(const SimSettings& settings);
    ~SimStage();  // removes what is temporary
    SimStage(const SimStage&) = delete;
    SimStage& operator=(const SimStage&) = delete;

    const std::string& share() const { return share_; }
    // Where pending files go in a sandbox.
    const std::string& staging_folder() const { return staging_; }

    // Carries out a set-up statement. Anything that fails is a CommandError.
    void prepare(const SimStatement& statement);
    // Brings the group map and the first map into force, before somebody connects.
    void complete();
    SimCaller caller(const std::string& name) const;

private:
    void make_sandbox();
    void lay_out(const SimStatement& statement);
    void add_account(const SimStatement& statement);
    void write_group_map() const;
    void write_patterns(const std::vector<std::string>& patterns) const;
    void publish();
    static void touch(const SimStatement& statement);

    SimSettings settings_;
    std::string folder_;  // temporary, with the rest in it
    std::string share_;
    std::string staging_;
    SimMap map_;
    bool published_ = false;
    bool group_map_written_ = false;
    std::map<std::string, SimCaller> users_;
    std::vector<std::pair<std::string, gid_t>> reserved_;
};

}  // namespace kvadmin
