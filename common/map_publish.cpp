// See map_publish.h.
#include "map_publish.h"

#include <sys/shm.h>

#include <ctime>
#include <utility>

#include "failure.h"
#include "kavrin.h"
#include "map_tables.h"
#include "map_verify.h"
#include "persisted_copy.h"
#include "source_pair.h"
#include "whole_file.h"

namespace kvadmin {
namespace {

using Clock = std::chrono::steady_clock;

void observe(const PublishOptions& options, BuildStep step) {
    if (options.on_step) options.on_step(step);
}

void refuse_when_interrupted(const Interruptions& interruptions) {
    if (interruptions.waiting()) fail(Exit::kFailure, "interrupted; nothing was published");
}

// What is worth doing and no reason to fail: a map is served without it.
template <typename Act>
void attempt(std::vector<std::string>& remarks, Act&& act) {
    try {
        act();
    } catch (const CommandError& error) {
        remarks.push_back(error.message);
    }
}

// Whatever is served is kept. An image that has a record gets no second one, unless it was built
// anew.
void keep(PublishedMap& map, Image image, unsigned known_number) {
    map.record.number = known_number;
    if (known_number == 0)
        attempt(map.remarks, [&] { map.record.number = keep_map(map.record, image); });
}

// Readers switch here; from here on nothing is undone.
void publish(NextTable& next, PublishedMap& map, const PublishOptions& options) {
    map.table = next.table();
    map.segment = next.segment();
    next.publish(map.remarks);
    observe(options, BuildStep::kSwapped);
    if (map_initialized(1) != 0)
        map.remarks.push_back("maps could not be marked available; readers do not need the mark");
    observe(options, BuildStep::kInitialised);
    if (options.announce) attempt(map.remarks, [] { touch_map_marker(); });
    map.record.published = std::time(nullptr);
    attempt(map.remarks, [&map] { mark_published(map.record.number); });
    prune_kept_maps(options.kept, map.record.number);
    observe(options, BuildStep::kMarked);
}

void tell(const std::vector<std::string>& remarks) {
    for (const std::string& remark : remarks) note(remark);
}

std::optional<MapRecord> find_kept(unsigned number) {
    for (const MapRecord& record : kept_maps())
        if (record.number == number) return record;
    return std::nullopt;
}

MapRecord known_or_described(Image image) {
    MapRecord described = describe_image(image);
    if (const std::optional<MapRecord> known = record_of(described.sha256)) return *known;
    described.source = persisted_map_path();
    return described;
}

// The persisted map becomes the map that readers use. The lock is held. `number` is the kept map's
// whose image it is; 0: whichever has such a one.
PublishedMap load_persisted(const PublishOptions& options, const Interruptions& interruptions,
                            NextTable& next, std::vector<std::string> remarks,
                            unsigned number = 0) {
    PublishedMap map;
    {
        const MappedFile persisted(persisted_map_path());
        run_build_child({"", "", next.key(), static_cast<std::uint32_t>(persisted.bytes().size()),
                         options.limits, options.on_step},
                        interruptions);
    }
    observe(options, BuildStep::kBuilt);
    map.remarks = std::move(remarks);
    {
        const AttachedSegment segment(next.segment());
        compare_with_persisted(segment.bytes());
        map.record = find_kept(number).value_or(MapRecord{});
        if (number == 0) map.record = known_or_described(segment.bytes());
        observe(options, BuildStep::kVerified);
        refuse_when_interrupted(interruptions);
        keep(map, segment.bytes(), map.record.number);
    }
    observe(options, BuildStep::kKept);
    publish(next, map, options);
    return map;
}

// What is wrong with the persisted map; empty when it can be loaded.
std::string flaw_of_persisted() {
    const MappedFile persisted(persisted_map_path(), true);
    if (!persisted.exists()) return fmt::format("there is no {}", persisted_map_path());
    const std::string wrong = what_is_wrong(persisted.bytes());
    return wrong.empty() ? wrong : fmt::format("{} is damaged: {}", persisted_map_path(), wrong);
}

void refuse_damaged(unsigned number, Image image, const std::string& sha256) {
    if (describe_image(image).sha256 != sha256)
        fail(Exit::kInvalidInput, "{} is not what was kept: its bytes have changed",
             kept_image_path(number));
    const std::string wrong = what_is_wrong(image);
    if (!wrong.empty())
        fail(Exit::kInvalidInput, "{} is damaged: {}", kept_image_path(number), wrong);
}

// The kept map becomes the persisted map; the caller has a copy of what was.
void persist_kept(unsigned number) {
    const std::optional<MapRecord> wanted = find_kept(number);
    if (!wanted)
        fail(Exit::kFailure, "there is no kept map {}; 'kavrinctl map history' lists them", number);
    const MappedFile image(kept_image_path(number));
    refuse_damaged(number, image.bytes(), wanted->sha256);
    write_whole_file(persisted_map_path(), image.bytes(), 0600);
}

}  // namespace

PublishedMap build_map(const BuildRequest& request) {
    const Clock::time_point start = Clock::now();
    const BuildLock lock(request.patience);
    observe(request, BuildStep::kLocked);
    PublishedMap map;
    map.remarks = recover_persisted_map();
    const SourcePair pair(request.size_path, request.data_path);
    const LintReport report = pair.check(request.on_checked_bytes);
    observe(request, BuildStep::kChecked);
    pair.refuse_unless_clean(report);
    if (report.warnings > 0)
        map.remarks.push_back(fmt::format(
            "the check has {} warnings; 'kavrinctl map lint' lists them", report.warnings));

    const Interruptions interruptions;
    const int current = open_current_table();
    PersistedCopy copy;
    observe(request, BuildStep::kCopied);
    NextTable next(current, map.remarks);
    const PrivateLinks links(pair);
    observe(request, BuildStep::kCleared);
    pair.refuse_if_changed();
    const ChildOutput output = run_build_child({links.size_path(), links.data_path(), next.key(),
                                                report.image_size, request.limits, request.on_step},
                                               interruptions);
    observe(request, BuildStep::kBuilt);
    {
        const AttachedSegment segment(next.segment());
        verify_built(segment.bytes(), report, output);
        pair.refuse_if_changed();
        flush_persisted_map();
        observe(request, BuildStep::kVerified);
        refuse_when_interrupted(interruptions);
        map.record = describe_image(segment.bytes());
        map.record.source = request.source.empty() ? pair.real_data_path() : request.source;
        map.record.built = std::time(nullptr);
        map.record.built_by = request.built_by;
        map.record.seconds = std::chrono::duration<double>(Clock::now() - start).count();
        keep(map, segment.bytes(), 0);
    }
    observe(request, BuildStep::kKept);

    publish(next, map, request);
    if (!copy.drop()) map.remarks.push_back("the copy of the old persisted map is still there");
    observe(request, BuildStep::kCopyRemoved);
    if (!request.keep) pair.remove(map.remarks);
    observe(request, BuildStep::kSourcesRemoved);
    tell(map.remarks);
    return map;
}

PublishedMap load_map(const PublishOptions& options) {
    const BuildLock lock(options.patience);
    observe(options, BuildStep::kLocked);
    std::vector<std::string> remarks = recover_persisted_map();
    const MappedFile persisted(persisted_map_path(), true);
    if (!persisted.exists())
        fail(Exit::kFailure, "there is no persisted map ({}); build one with 'kavrinctl map build'",
             persisted_map_path());
    const std::string flaw = flaw_of_persisted();
    if (!flaw.empty()) fail(Exit::kInvalidInput, "{}; nothing was loaded", flaw);
    observe(options, BuildStep::kChecked);

    const Interruptions interruptions;
    NextTable next(open_current_table(), remarks);
    observe(options, BuildStep::kCleared);
    PublishedMap map = load_persisted(options, interruptions, next, std::move(remarks));
    tell(map.remarks);
    return map;
}

PublishedMap restore_map(unsigned number, const PublishOptions& options) {
    const BuildLock lock(options.patience);
    observe(options, BuildStep::kLocked);
    std::vector<std::string> remarks = recover_persisted_map();
    const Interruptions interruptions;
    const int current = open_current_table();
    PersistedCopy copy;
    observe(options, BuildStep::kCopied);
    persist_kept(number);
    observe(options, BuildStep::kChecked);
    NextTable next(current, remarks);
    observe(options, BuildStep::kCleared);
    PublishedMap map = load_persisted(options, interruptions, next, std::move(remarks), number);
    if (!copy.drop()) map.remarks.push_back("the copy of the old persisted map is still there");
    observe(options, BuildStep::kCopyRemoved);
    tell(map.remarks);
    return map;
}

namespace {

// The persisted map is what a reboot brings back, so it is made equal to what is served.
void persist_live(Image image, std::vector<std::string>& remarks) {
    const MappedFile persisted(persisted_map_path(), true);
    if (persisted.exists() && persisted.bytes().size() == image.size() &&
        std::memcmp(persisted.bytes().data(), image.data(), image.size()) == 0)
        return;
    write_whole_file(persisted_map_path(), image, 0600);
    remarks.push_back(fmt::format("made {} equal to the map that is served", persisted_map_path()));
}

// The live map goes on being served, if it is one that this service could have made.
// Connections are told in any case: whoever died may have switched and not told them.
bool adopt(int table, Takeover& result, const PublishOptions& options) {
    const std::optional<int> id = segment_of_table(table);
    if (!id) return false;
    shmid_ds status{};
    // A creator can give a segment away, even to root, and write into it all the same.
    const bool known = shmctl(*id, IPC_STAT, &status) == 0;
    if (!known || status.shm_perm.uid != 0 || status.shm_perm.cuid != 0) {
        result.remarks.push_back(
            fmt::format("shared-memory segment {} is not root's; it was removed", *id));
        remove_segment(*id);
        return false;
    }
    const AttachedSegment segment(*id);
    const std::string wrong = what_is_wrong(segment.bytes());
    if (!wrong.empty()) {
        result.remarks.push_back(fmt::format("the live map is damaged: {}", wrong));
        return false;
    }
    attempt(result.remarks, [&] { persist_live(segment.bytes(), result.remarks); });
    const NextTable clear(table, result.remarks);
    if (map_initialized(1) != 0) result.remarks.push_back("maps could not be marked available");
    PublishedMap map;
    map.table = table;
    map.segment = *id;
    map.record = known_or_described(segment.bytes());
    keep(map, segment.bytes(), map.record.number);
    if (map.record.published == 0)
        attempt(map.remarks, [&map] { mark_published(map.record.number); });
    drop_unpublished_maps(map.record.number);
    prune_kept_maps(options.kept, map.record.number);
    if (options.announce) attempt(map.remarks, [] { touch_map_marker(); });
    result.adopted = true;
    result.map = std::move(map);
    return true;
}

// Puts the newest sound one of the kept maps in the place of a persisted map that cannot be loaded.
bool fall_back_on_kept(std::vector<std::string>& remarks) {
    for (const MapRecord& record : kept_maps()) {
        if (record.published == 0) continue;
        try {
            persist_kept(record.number);
        } catch (const CommandError& error) {
            remarks.push_back(error.message);
            continue;
        }
        remarks.push_back(fmt::format("took kept map {} instead", record.number));
        return true;
    }
    return false;
}

// With nothing to serve, nothing that readers could take for a map may lie anywhere.
void clear_tables(int current, std::vector<std::string>& remarks) {
    const NextTable clear(current, remarks);
    if (const std::optional<int> damaged = segment_of_table(current)) remove_segment(*damaged);
}

}  // namespace

Takeover take_over(const PublishOptions& options) {
    const BuildLock lock(options.patience);
    observe(options, BuildStep::kLocked);
    Takeover result;
    result.remarks = recover_persisted_map();
    PrivateLinks::clear_left();
    const int current = repair_current_table(result.remarks);
    if (adopt(current, result, options)) return result;

    const std::string flaw = flaw_of_persisted();
    if (!flaw.empty()) {
        const bool none = !MappedFile(persisted_map_path(), true).exists();
        if (!none || !kept_maps().empty()) result.remarks.push_back(flaw);
        if (!fall_back_on_kept(result.remarks)) {
            clear_tables(current, result.remarks);
            return result;
        }
    }
    drop_unpublished_maps(0);
    const Interruptions interruptions;
    NextTable next(current, result.remarks);
    observe(options, BuildStep::kCleared);
    result.map = load_persisted(options, interruptions, next, {});
    return result;
}

}  // namespace kvadmin
