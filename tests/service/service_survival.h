// The stage of the survival tests: one service after another on the same machine, and what is left
// of each: the shared objects by id, the persisted map, the events.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "service_fixture.h"

namespace kvtest {

struct SharedIds {
    int map = -1;         // segment of the current table
    int semaphores = -1;  // of the maps
    int table = -1;       // configuration
    int staging = -1;
    int staging_semaphore = -1;
    bool operator==(const SharedIds&) const = default;
};
std::ostream& operator<<(std::ostream& out, const SharedIds& ids);

class SurvivalTest : public ServiceTest {
protected:
    static constexpr key_t kMapKeys[] = {0x70657269, 0x7065726A};

    // A new instance in the place of the one before, which is killed if it still runs.
    RunningService& launch();  // at once
    RunningService& start();   // waits until it is ready
    RunningService& service() { return *service_; }
    static void configure(const std::string& text) { write_file(kConfig, text); }

    // Delivers that generation and waits until it is served.
    void serve(unsigned generation, std::size_t folders = 3, std::size_t files = 4);

    static SharedIds shared_ids();
    static std::vector<std::string> system_v_objects(const char* kind);  // "shm" or "sem"
    static long persisted_generation();  // -1: none, or not a whole one
    static void expect_persisted_is_served();
    static std::vector<unsigned> kept_numbers();  // ascending
    static std::string kept_image(unsigned number);
    // An image of that generation, as a build would make it.
    static std::string image_of(unsigned generation);
    static void damage(const std::string& file, std::size_t at);
    // In an anonymous process of that user: a segment with these bytes.
    // Given away to root it is still its maker's.
    static int make_segment(key_t key, const std::string& bytes, uid_t maker,
                            bool give_away = false);

    static std::int32_t shared_number(e_kavrin_global_index_t slot);  // of the shared table
    static std::size_t descriptors_of(pid_t process);
    // In KiB, and what it may grow by without a leak; a sanitizer keeps what was freed for a while.
    static long resident_kib_of(pid_t process);
#ifdef __SANITIZE_ADDRESS__
    static constexpr long kKeptKib = 128 * 1024;
#else
    static constexpr long kKeptKib = 4 * 1024;
#endif

    // As smbd does: with the shared table, in another process.
    static void stage_events(int first, int count);
    static std::size_t events_in_files(const std::string& folder = "/kavrin/staging");

    static bool is_quarantined(const Pair& pair, const std::string& part_of_reason);

private:
    std::unique_ptr<RunningService> service_;
};

}  // namespace kvtest
