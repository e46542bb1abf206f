// The staging buffer for tests: a fresh one for each, looked at with System V calls of its own so
// that the library is never asked about itself. After each test nothing may be left attached,
// taken, open, or lying about in the staging folder.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "support.h"

namespace kvtest {

constexpr const char* kMarkerFolder = "/kavrin/.conf";
constexpr const char* kMarker = "/kavrin/.conf/kavrin_event_status.dirty";

// A framed record on the heap, of exactly its size.
class Frame {
public:
    explicit Frame(std::string_view payload, std::uint32_t sig = 0x04012010u);
    // A frame that claims `size` bytes of payload and has none.
    static Frame claiming(std::uint32_t size);
    staging_data_t* get() { return reinterpret_cast<staging_data_t*>(bytes_.data()); }
    std::string text() const { return {bytes_.begin(), bytes_.end()}; }

private:
    std::vector<char> bytes_;
};

std::string frame(std::string_view payload);
// The payloads of back-to-back records; null when they do not end where the bytes end.
std::optional<std::vector<std::string>> payloads(std::string_view bytes);
int append(std::string_view payload);  // write_to_staging_buffer() of a frame

// What the kernel knows. Ids are -1 when there is none.
key_t project_key(int project);  // worked out without the library
int segment_id();
int semaphore_id();
int semaphore_value();
int waiting_processes();
int attachments();  // of the segment
int open_files();   // of this process

struct Held {
    std::uint32_t num_records = 0;
    std::uint32_t next_offset = 0;
    std::uint64_t last_flush_time = 0;
    std::string data;  // all of it, to the segment's end
    std::string records() const;
};
Held held();  // what the segment holds; the semaphore is not asked for
void set_header(std::uint32_t num_records, std::uint32_t next_offset);
void fill_segment(char byte);  // header too
void set_semaphore(int value);

// The marker as bytes, "(none)" when there is none; and its reason, up to the first NUL.
std::string marker();
std::string reason();

std::vector<std::string> files_in(const std::string& folder);  // names, sorted
std::vector<std::string> pending_in(const std::string& folder);
// The payloads of all pending files in the order of their names.
std::vector<std::string> pending_payloads(const std::string& folder);

// A file system of this many bytes over the folder, for the life of the object.
class SmallDisk {
public:
    SmallDisk(const std::string& folder, std::size_t bytes);
    ~SmallDisk();
    SmallDisk(const SmallDisk&) = delete;
    SmallDisk& operator=(const SmallDisk&) = delete;
    void fill();  // leaves no byte free
    void empty();
    void make_read_only(bool yes);

private:
    std::string folder_;
};

class StagingTest : public testing::Test {
protected:
    static constexpr int kSize = 4096;
    void SetUp() override;
    void TearDown() override;
    // Recreates the segment with this size and sets the threshold.
    void configure(int size, int percent);
    void use_folder(const std::string& path);

    ConfigTable table_;
    std::string folder_;
    bool leaves_temporaries_ = false;
    bool leaves_open_files_ = false;

private:
    int open_before_ = 0;
};

}  // namespace kvtest
