// Pairs of files that the service has taken, each in a folder of its own below `.work/` until it is
// built, or below `quarantine/` when it failed. A folder gets its name by a rename, so a pair with
// a name is whole; and the folder keeps count of the attempts to build it, because a pair that ends
// the service three times must not get a fourth.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace kvservice {

struct TakenPair {
    unsigned number = 0;     // they count up: the newest has the highest
    std::uint64_t turn = 0;  // they count up too: when it arrived; 0 for one of an earlier run
    std::string name;        // what the files were called before ".size.json"; may be empty
    std::string folder;
    std::string size_path() const { return folder + "/size.json"; }
    std::string data_path() const { return folder + "/data.json"; }
    // What the record of the map says it came from.
    std::string source(const std::string& incoming) const;
};

// "a.data.json", or "data.json" for the pair without a name.
std::string data_name(const std::string& pair);
std::string size_name(const std::string& pair);

class PairStore {
public:
    explicit PairStore(std::string incoming);  // makes the folders; fails by CommandError

    // Makes those that are missing; fails by CommandError.
    void make_folders() const;

    const std::string& incoming() const { return incoming_; }
    std::string work() const { return incoming_ + "/.work"; }
    std::string quarantine_folder() const { return incoming_ + "/quarantine"; }

    // Where a half is put while its partner may still be replaced.
    std::string claim_path(const std::string& file) const { return work() + "/claim-" + file; }

    // Two claimed files become a pair. Fails by CommandError.
    TakenPair commit(const std::string& name);

    // Pairs that an earlier run left, the newest last. What it left unfinished is cleared: claimed
    // halves go back to the incoming folder unless newer ones are there.
    std::vector<TakenPair> left_over();
    // Names of the halves that went back since the last call.
    std::set<std::string> take_given_back() { return std::exchange(given_back_, {}); }

    // Counts an attempt and gives how many that makes. Synced, for it is there to survive a crash.
    unsigned count_attempt(const TakenPair& pair) const;
    // Takes the attempt back: it ended as an attempt should.
    void forget_attempts(const TakenPair& pair) const;

    // Removes a pair that was built or superseded. Failures are told in the log.
    void remove(const TakenPair& pair) const;

    // Moves a pair into quarantine with the reason beside it; gives the folder. The oldest go when
    // there are more than `kept`. Fails by CommandError.
    std::string quarantine(const TakenPair& pair, const std::string& reason, unsigned kept);

private:
    TakenPair name_pair(const std::string& filled, const std::string& name);
    void finish(const std::string& entry, std::vector<TakenPair>& pairs);
    void prune_quarantine(unsigned kept) const;

    void give_back(const std::string& claimed, const std::string& file);
    void give_back_claims(const std::vector<std::string>& entries);

    std::string incoming_;
    std::set<std::string> given_back_;
    unsigned next_ = 1;
};

}  // namespace kvservice
