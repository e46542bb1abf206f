// See pair_folder.h.
#include "pair_folder.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <system_error>

#include "failure.h"
#include "log.h"
#include "whole_file.h"

namespace kvservice {
namespace {

namespace fs = std::filesystem;
using kvadmin::Exit;
using kvadmin::fail;

constexpr std::string_view kPairPrefix = "pair-";
constexpr std::string_view kClaimPrefix = "claim-";
constexpr std::string_view kFillingPrefix = "filling-";
constexpr const char* kAttempts = "/attempts";

std::vector<std::string> names_of(const std::string& folder) {
    std::vector<std::string> names;
    std::error_code error;
    for (const fs::directory_entry& entry : fs::directory_iterator(folder, error))
        names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
}

void move(const std::string& from, const std::string& to) {
    if (rename(from.c_str(), to.c_str()) != 0)
        fail(Exit::kFailure, "cannot move {} to {}: {}", from, to, std::strerror(errno));
}

// The same, for a step that may have been taken before.
void move_once(const std::string& from, const std::string& to) {
    struct stat st {};
    if (lstat(from.c_str(), &st) != 0 && errno == ENOENT && lstat(to.c_str(), &st) == 0) return;
    move(from, to);
}

// "pair-NUMBER-NAME".
std::optional<TakenPair> pair_of(const std::string& work, const std::string& entry) {
    if (!entry.starts_with(kPairPrefix)) return std::nullopt;
    TakenPair pair;
    const char* const end = entry.data() + entry.size();
    const auto [rest, error] = std::from_chars(entry.data() + kPairPrefix.size(), end, pair.number);
    if (error != std::errc{} || rest == end || *rest != '-') return std::nullopt;
    pair.name.assign(rest + 1, end);
    pair.folder = work + "/" + entry;
    return pair;
}

void remove_tree(const std::string& folder) {
    std::error_code error;
    fs::remove_all(folder, error);
    if (error) log_warning("cannot remove {}: {}", folder, error.message());
}

}  // namespace

std::string data_name(const std::string& pair) {
    return pair.empty() ? "data.json" : pair + ".data.json";
}

std::string size_name(const std::string& pair) {
    return pair.empty() ? "size.json" : pair + ".size.json";
}

std::string TakenPair::source(const std::string& incoming) const {
    return incoming + "/" + data_name(name);
}

PairStore::PairStore(std::string incoming) : incoming_(std::move(incoming)) {
    make_folders();
}

void PairStore::make_folders() const {
    kvadmin::make_folder(incoming_, 0700);
    kvadmin::make_folder(work(), 0700);
    kvadmin::make_folder(quarantine_folder(), 0700);
}

TakenPair PairStore::commit(const std::string& name) {
    const std::string filling = fmt::format("{}/{}{}", work(), kFillingPrefix, name);
    if (mkdir(filling.c_str(), 0700) != 0 && errno != EEXIST)
        fail(Exit::kFailure, "cannot make the folder {}: {}", filling, std::strerror(errno));
    move_once(claim_path(size_name(name)), filling + "/size.json");
    move_once(claim_path(data_name(name)), filling + "/data.json");
    return name_pair(filling, name);
}

TakenPair PairStore::name_pair(const std::string& filled, const std::string& name) {
    TakenPair pair;
    pair.number = next_++;
    pair.name = name;
    pair.folder = fmt::format("{}/{}{}-{}", work(), kPairPrefix, pair.number, name);
    move(filled, pair.folder);
    return pair;
}

// A claimed half goes back to where its producer put it; a newer one that is there wins.
void PairStore::give_back(const std::string& claimed, const std::string& file) {
    const std::string target = incoming_ + "/" + file;
    if (renameat2(AT_FDCWD, claimed.c_str(), AT_FDCWD, target.c_str(), RENAME_NOREPLACE) == 0) {
        given_back_.insert(file);
        return;
    }
    if (errno != EEXIST) {
        log_warning("cannot move {} back to {}: {}", claimed, target, std::strerror(errno));
        return;
    }
    unlink(claimed.c_str());
}

// Two claimed halves belong together: where a newer file has the place of one, the other goes, too,
// or it would be taken for that file's partner.
void PairStore::give_back_claims(const std::vector<std::string>& entries) {
    std::set<std::string> superseded;
    std::vector<std::string> files;
    for (const std::string& entry : entries)
        if (entry.starts_with(kClaimPrefix)) files.push_back(entry.substr(kClaimPrefix.size()));
    const auto stem = [](const std::string& file) {
        return file.substr(0, file.size() - std::string_view("size.json").size());
    };
    struct stat st {};
    for (const std::string& file : files)
        if (lstat((incoming_ + "/" + file).c_str(), &st) == 0) superseded.insert(stem(file));
    for (const std::string& file : files) {
        if (superseded.contains(stem(file))) {
            log_info("{} is superseded by a newer one", incoming_ + "/" + file);
            unlink(claim_path(file).c_str());
        } else {
            give_back(claim_path(file), file);
        }
    }
}

// A folder that was being filled holds the size file or both: it becomes a pair, or its half goes
// back.
void PairStore::finish(const std::string& entry, std::vector<TakenPair>& pairs) {
    const std::string filling = work() + "/" + entry;
    const std::string name = entry.substr(kFillingPrefix.size());
    if (fs::exists(filling + "/size.json") && fs::exists(filling + "/data.json")) {
        pairs.push_back(name_pair(filling, name));
        return;
    }
    if (fs::exists(filling + "/size.json")) give_back(filling + "/size.json", size_name(name));
    remove_tree(filling);
}

std::vector<TakenPair> PairStore::left_over() {
    std::vector<TakenPair> pairs;
    const std::vector<std::string> entries = names_of(work());
    for (const std::string& entry : entries) {
        const std::optional<TakenPair> pair = pair_of(work(), entry);
        if (!pair) continue;
        pairs.push_back(*pair);
        next_ = std::max(next_, pair->number + 1);
    }
    for (const std::string& entry : entries) {
        if (entry.starts_with(kFillingPrefix)) finish(entry, pairs);
    }
    give_back_claims(entries);
    std::sort(pairs.begin(), pairs.end(),
              [](const TakenPair& a, const TakenPair& b) { return a.number < b.number; });
    return pairs;
}

unsigned PairStore::count_attempt(const TakenPair& pair) const {
    unsigned attempts = 0;
    std::ifstream(pair.folder + kAttempts) >> attempts;
    ++attempts;
    try {
        kvadmin::write_whole_file(pair.folder + kAttempts, fmt::format("{}\n", attempts), 0600);
    } catch (const kvadmin::CommandError& error) {
        log_warning("{}", error.message);  // the build will say more about a full disk
    }
    return attempts;
}

void PairStore::forget_attempts(const TakenPair& pair) const {
    unlink((pair.folder + kAttempts).c_str());
}

void PairStore::remove(const TakenPair& pair) const {
    remove_tree(pair.folder);
}

std::string PairStore::quarantine(const TakenPair& pair, const std::string& reason, unsigned kept) {
    char time[32] = "";
    const std::time_t now = std::time(nullptr);
    tm parts{};
    std::strftime(time, sizeof time, "%Y%m%dT%H%M%SZ", gmtime_r(&now, &parts));
    make_folders();
    std::string folder;
    for (unsigned again = 0;; ++again) {
        folder = fmt::format("{}/{}-{:06}{}{}", quarantine_folder(), time, pair.number,
                             pair.name.empty() ? "" : "-" + pair.name,
                             again == 0 ? "" : fmt::format(".{}", again));
        if (renameat2(AT_FDCWD, pair.folder.c_str(), AT_FDCWD, folder.c_str(), RENAME_NOREPLACE) ==
            0)
            break;
        if (errno != EEXIST)
            fail(Exit::kFailure, "cannot move {} to {}: {}", pair.folder, folder,
                 std::strerror(errno));
    }
    unlink((folder + kAttempts).c_str());
    try {
        kvadmin::write_whole_file(folder + "/reason.txt", reason, 0600);
    } catch (const kvadmin::CommandError& error) {
        log_error("{}; the reason was: {}", error.message, reason);  // a full disk, as a rule
    }
    prune_quarantine(kept);
    return folder;
}

void PairStore::prune_quarantine(unsigned kept) const {
    std::vector<std::string> names = names_of(quarantine_folder());
    for (std::size_t i = 0; i + kept < names.size(); ++i) {
        log_info("removed {}/{}: more than {} failed pairs are kept no longer", quarantine_folder(),
                 names[i], kept);
        remove_tree(quarantine_folder() + "/" + names[i]);
    }
}

}  // namespace kvservice
