#include "ledger.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <set>

#include "kavrin.h"

namespace kvsoak {
namespace {

constexpr std::size_t kHeader = 8;
constexpr std::size_t kMostViolations = 20;

// Walks whole records; `each` gets the event of each, or -1 as its writer. Tells how many bytes
// were walked.
std::size_t walk(std::string_view bytes, const std::function<void(int, std::size_t)>& each) {
    std::size_t at = 0;
    while (bytes.size() - at >= kHeader) {
        std::uint32_t size = 0;
        std::uint32_t sig = 0;
        std::memcpy(&size, bytes.data() + at, 4);
        std::memcpy(&sig, bytes.data() + at + 4, 4);
        if (sig != 0x04012010u || size < 1 || size > bytes.size() - at - kHeader) break;
        const auto* const packed =
            reinterpret_cast<const std::uint8_t*>(bytes.data() + at + kHeader);
        VFSEvent* const event = vfsevent__unpack(nullptr, size, packed);
        int writer = -1;
        std::size_t number = 0;
        if (event != nullptr) {
            const bool parsed =
                std::sscanf(event->path, "/Shared/writer%d/%zu-", &writer, &number) == 2;
            if (!parsed || writer < 0 || writer >= kWriters ||
                event->path != event_path(writer, number) ||
                event->uid != kFirstUser + static_cast<unsigned>(writer))
                writer = -1;
            vfsevent__free_unpacked(event, nullptr);
        }
        each(writer, number);
        at += kHeader + size;
    }
    return at;
}

}  // namespace

Ledger::Ledger(std::size_t events) : events_(events) {
    memory_ = mmap(nullptr, kWriters * events_, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS,
                   -1, 0);
    if (memory_ == MAP_FAILED) {
        std::perror("mmap");
        std::abort();
    }
}
Ledger::~Ledger() {
    munmap(memory_, kWriters * events_);
}
Fate Ledger::fate(int writer, std::size_t event) const {
    const auto* const fates = static_cast<const volatile Fate*>(memory_);
    return fates[static_cast<std::size_t>(writer) * events_ + event];
}
void Ledger::set_fate(int writer, std::size_t event, Fate fate) {
    auto* const fates = static_cast<volatile Fate*>(memory_);
    fates[static_cast<std::size_t>(writer) * events_ + event] = fate;
}

std::string event_path(int writer, std::size_t event) {
    return "/Shared/writer" + std::to_string(writer) + "/" + std::to_string(event) + "-" +
           std::string(event * 7 % 41, static_cast<char>('a' + event % 26));
}

void add(Counts& sum, const Counts& more) {
    sum.accepted += more.accepted;
    sum.refused += more.refused;
    sum.unfinished += more.unfinished;
    sum.files += more.files;
    sum.temporaries += more.temporaries;
    sum.in_temporaries += more.in_temporaries;
    sum.names_out_of_order += more.names_out_of_order;
    sum.kills += more.kills;
    sum.looks += more.looks;
    if (!more.marker.empty()) sum.marker = more.marker;
    sum.violations.insert(sum.violations.end(), more.violations.begin(), more.violations.end());
}

Judge::Judge(const Ledger& ledger)
    : ledger_(ledger),
      seen_(kWriters, std::vector<std::uint8_t>(ledger.capacity())),
      salvaged_(seen_),
      ranges_(kWriters) {}

void Judge::fail(const std::string& what) {
    if (counts_.violations.size() < kMostViolations) counts_.violations.push_back(what);
}

void Judge::take_file(const std::string& name, std::string_view bytes) {
    ++counts_.files;
    if (bytes.empty()) fail(name + " is empty");
    std::vector<Range> here(kWriters, Range{0, 0, {}});
    const std::size_t walked = walk(bytes, [&](int writer, std::size_t event) {
        if (writer < 0 || event >= ledger_.capacity())
            return fail(name + " holds a strange record");
        const auto w = static_cast<std::size_t>(writer);
        if (seen_[w][event] < 255) ++seen_[w][event];
        Range& range = here[w];
        if (range.file.empty()) {
            range = {event, event, name};
        } else if (event <= range.last) {
            fail(name + ": writer " + std::to_string(writer) + " out of order");
        }
        range.last = std::max(range.last, event);
    });
    if (walked != bytes.size()) fail(name + " does not walk to its end");
    for (std::size_t w = 0; w < here.size(); ++w) {
        if (!here[w].file.empty()) ranges_[w].push_back(here[w]);
    }
}

void Judge::take_temporary(std::string_view bytes) {
    ++counts_.temporaries;
    walk(bytes, [&](int writer, std::size_t event) {
        if (writer >= 0 && event < ledger_.capacity())
            salvaged_[static_cast<std::size_t>(writer)][event] = 1;
    });
}

void Judge::check_order(const std::vector<std::vector<Range>>& ranges) {
    // Before -> after, for each writer's neighbours; then the files without a predecessor are taken
    // away until none is left.
    std::map<std::string, std::set<std::string>> after;
    std::map<std::string, int> predecessors;
    for (std::vector<Range> own : ranges) {
        std::sort(own.begin(), own.end(),
                  [](const Range& a, const Range& b) { return a.first < b.first; });
        for (std::size_t i = 0; i < own.size(); ++i) {
            predecessors.try_emplace(own[i].file, 0);
            if (i == 0) continue;
            if (own[i].first <= own[i - 1].last)
                fail(own[i].file + " and " + own[i - 1].file + " share out a writer's events");
            if (after[own[i - 1].file].insert(own[i].file).second) {
                ++predecessors[own[i].file];
                if (own[i].file < own[i - 1].file) ++counts_.names_out_of_order;
            }
        }
    }
    std::vector<std::string> free;
    for (const auto& [file, count] : predecessors) {
        if (count == 0) free.push_back(file);
    }
    std::size_t taken = 0;
    while (!free.empty()) {
        const std::string file = free.back();
        free.pop_back();
        ++taken;
        for (const std::string& next : after[file]) {
            if (--predecessors[next] == 0) free.push_back(next);
        }
    }
    if (taken != predecessors.size()) fail("the files have no order that is every writer's");
}

Counts Judge::verdict(const std::string& marker, bool killed) {
    counts_.marker = marker;
    check_order(ranges_);
    const bool told = marker == "cannot rename tempfile to the actual dump file name\n";
    for (int writer = 0; writer < kWriters; ++writer) {
        const auto w = static_cast<std::size_t>(writer);
        for (std::size_t event = 0; event < ledger_.capacity(); ++event) {
            const Fate fate = ledger_.fate(writer, event);
            const int times = seen_[w][event];
            if (fate == Fate::kNone && times == 0) continue;
            counts_.accepted += fate == Fate::kAccepted;
            counts_.refused += fate == Fate::kRefused;
            counts_.unfinished += fate == Fate::kBegun;
            const auto wrong = [&](const std::string& what) {
                fail("writer " + std::to_string(writer) + " event " + std::to_string(event) + what);
            };
            if (times > 1) wrong(" is there " + std::to_string(times) + " times");
            if (times > 0 && fate == Fate::kNone) wrong(" was never sent");
            if (times > 0 && fate == Fate::kRefused) wrong(" was refused and is there");
            if (times > 0 || fate != Fate::kAccepted) continue;
            if (killed && salvaged_[w][event] != 0) {
                ++counts_.in_temporaries;
            } else if (!told) {
                wrong(" is lost, and the marker says: " + marker);
            }
        }
    }
    if (counts_.refused > 0 && marker.empty()) fail("events were refused and nothing was marked");
    return counts_;
}

}  // namespace kvsoak
