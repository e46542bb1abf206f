#include "staging_fixture.h"

#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/mount.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>

namespace kvtest {
namespace {

namespace fs = std::filesystem;

constexpr int kSegmentProject = 1234;
constexpr int kSemaphoreProject = 2345;

void remove_objects() {
    if (segment_id() >= 0) shmctl(segment_id(), IPC_RMID, nullptr);
    if (semaphore_id() >= 0) semctl(semaphore_id(), 0, IPC_RMID);
}

std::size_t segment_size() {
    shmid_ds status{};
    EXPECT_EQ(shmctl(segment_id(), IPC_STAT, &status), 0);
    return status.shm_segsz;
}

std::uint32_t number_at(std::string_view bytes, std::size_t at) {
    std::uint32_t number = 0;
    std::memcpy(&number, bytes.data() + at, sizeof number);
    return number;
}

char* attach() {
    void* const address = shmat(segment_id(), nullptr, 0);
    EXPECT_NE(address, reinterpret_cast<void*>(-1));
    return static_cast<char*>(address);
}

}  // namespace

Frame::Frame(std::string_view payload, std::uint32_t sig) : bytes_(8 + payload.size()) {
    const auto size = static_cast<std::uint32_t>(payload.size());
    std::memcpy(bytes_.data(), &size, 4);
    std::memcpy(bytes_.data() + 4, &sig, 4);
    std::copy(payload.begin(), payload.end(), bytes_.begin() + 8);
}

Frame Frame::claiming(std::uint32_t size) {
    Frame made{""};
    std::memcpy(made.bytes_.data(), &size, 4);
    return made;
}

std::string frame(std::string_view payload) {
    return Frame(payload).text();
}

std::optional<std::vector<std::string>> payloads(std::string_view bytes) {
    std::vector<std::string> found;
    while (!bytes.empty()) {
        if (bytes.size() < 8 || number_at(bytes, 4) != 0x04012010u) return std::nullopt;
        const std::size_t size = number_at(bytes, 0);
        if (size < 1 || size > bytes.size() - 8) return std::nullopt;
        found.emplace_back(bytes.substr(8, size));
        bytes.remove_prefix(8 + size);
    }
    return found;
}

int append(std::string_view payload) {
    return write_to_staging_buffer(Frame(payload).get());
}

key_t project_key(int project) {
    // As the C library describes it: project, device and inode, a byte, a byte and two bytes.
    struct stat st {};
    EXPECT_EQ(stat("/dev/null", &st), 0);
    return static_cast<key_t>(((static_cast<unsigned>(project) & 0xFF) << 24) |
                              ((static_cast<unsigned>(st.st_dev) & 0xFF) << 16) |
                              (static_cast<unsigned>(st.st_ino) & 0xFFFF));
}
int segment_id() {
    return shmget(project_key(kSegmentProject), 0, 0);
}
int semaphore_id() {
    return semget(project_key(kSemaphoreProject), 0, 0);
}
int semaphore_value() {
    return semctl(semaphore_id(), 0, GETVAL);
}
int waiting_processes() {
    return semctl(semaphore_id(), 0, GETNCNT);
}
int attachments() {
    shmid_ds status{};
    return shmctl(segment_id(), IPC_STAT, &status) == 0 ? static_cast<int>(status.shm_nattch) : 0;
}
int open_files() {
    int count = 0;
    for (const auto& entry : fs::directory_iterator("/proc/self/fd")) count += entry.exists();
    return count;
}

std::string Held::records() const {
    if (next_offset < 16 || next_offset > 16 + data.size()) return "(outside)";
    return data.substr(0, next_offset - 16);
}

Held held() {
    Held look;
    const char* const segment = attach();
    std::memcpy(&look.num_records, segment, 4);
    std::memcpy(&look.next_offset, segment + 4, 4);
    std::memcpy(&look.last_flush_time, segment + 8, 8);
    look.data.assign(segment + 16, segment_size() - 16);
    shmdt(segment);
    return look;
}
void set_header(std::uint32_t num_records, std::uint32_t next_offset) {
    char* const segment = attach();
    std::memcpy(segment, &num_records, 4);
    std::memcpy(segment + 4, &next_offset, 4);
    shmdt(segment);
}
void fill_segment(char byte) {
    char* const segment = attach();
    std::memset(segment, byte, segment_size());
    shmdt(segment);
}
void set_semaphore(int value) {
    ASSERT_EQ(semctl(semaphore_id(), 0, SETVAL, value), 0);
}

std::string marker() {
    return file_exists(kMarker) ? read_file(kMarker) : "(none)";
}
std::string reason() {
    return marker().c_str();
}

std::vector<std::string> files_in(const std::string& folder) {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(folder))
        names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
}
std::vector<std::string> pending_in(const std::string& folder) {
    std::vector<std::string> names = files_in(folder);
    std::erase_if(names, [](const std::string& name) { return !name.starts_with("pending_"); });
    return names;
}
std::vector<std::string> pending_payloads(const std::string& folder) {
    std::vector<std::string> all;
    for (const std::string& name : pending_in(folder)) {
        const auto found = payloads(read_file(folder + "/" + name));
        EXPECT_TRUE(found.has_value()) << name << " does not walk";
        if (found) all.insert(all.end(), found->begin(), found->end());
    }
    return all;
}

SmallDisk::SmallDisk(const std::string& folder, std::size_t bytes) : folder_(folder) {
    const std::string options = "mode=0755,size=" + std::to_string(bytes);
    EXPECT_EQ(mount("small", folder_.c_str(), "tmpfs", 0, options.c_str()), 0);
}
SmallDisk::~SmallDisk() {
    EXPECT_EQ(umount(folder_.c_str()), 0);
}
void SmallDisk::fill() {
    const int fd = open((folder_ + "/filler").c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600);
    const std::string page(4096, 'f');
    while (write(fd, page.data(), page.size()) > 0) continue;
    close(fd);
}
void SmallDisk::empty() {
    EXPECT_TRUE(fs::remove(folder_ + "/filler"));
}
void SmallDisk::make_read_only(bool yes) {
    const unsigned long flags = yes ? MS_REMOUNT | MS_RDONLY : MS_REMOUNT;
    ASSERT_EQ(mount("small", folder_.c_str(), "tmpfs", flags, nullptr), 0);
}

void StagingTest::SetUp() {
    ASSERT_NE(std::getenv("KAVRIN_SANDBOX"), nullptr) << "run this below scripts/sandbox";
    remove_objects();
    fs::remove_all(kMarkerFolder);
    fs::create_directories(kMarkerFolder);
    use_folder(make_temp_dir());
    ASSERT_EQ(create_eventstore_staging_semaphore(), 1);
    configure(kSize, 80);
    clear_log();
    open_before_ = open_files();
}

void StagingTest::TearDown() {
    if (std::getenv("KAVRIN_SANDBOX") == nullptr) return;
    EXPECT_EQ(attachments(), 0) << "something stayed attached";
    if (semaphore_id() >= 0) {
        EXPECT_EQ(semaphore_value(), 1) << "the semaphore was not given back";
    }
    if (!leaves_open_files_) {
        EXPECT_EQ(open_files(), open_before_);
    }
    if (!leaves_temporaries_ && fs::is_directory(folder_)) {
        for (const std::string& name : files_in(folder_))
            EXPECT_FALSE(name.starts_with("kvtemp")) << name << " was left";
    }
    remove_objects();
    fs::remove_all(kMarkerFolder);
}

void StagingTest::configure(int size, int percent) {
    if (segment_id() >= 0) shmctl(segment_id(), IPC_RMID, nullptr);
    table_.set_int(PARAM_STAGING_BUFFER_SIZE, size);
    table_.set_int(PARAM_FLUSH_FILL_THRESHOLD, percent);
    ASSERT_EQ(create_staging_buffer(), 0);
}

void StagingTest::use_folder(const std::string& path) {
    folder_ = path;
    table_.set_string(PARAM_STAGING_DIR, path);
}

}  // namespace kvtest
