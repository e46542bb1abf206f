// See service_readers.h.
#include "service_readers.h"

#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <new>

#include "image_reader.h"

namespace kvtest {
namespace {

constexpr gid_t kStaff = 1000;  // reads in Shared, by the map of pair_of_generation()
constexpr gid_t kAdmins = 7001;
constexpr gid_t kPowers = 7002;
constexpr uid_t kUser = 2001;

int verdict_on(const std::string& share, e_fsop_type_t operation) {
    int nav = 0;
    return vfs_enforce_perms(share.c_str(), "Shared/unmapped/inside", operation, nullptr,
                             FSTYPE_FOLDER, &nav);
}

void look_at_map(ReaderReport& report) {
    void* const map = get_perm_map_addr();
    if (map == nullptr) {
        ++report.absent;
        return;
    }
    const auto* header = static_cast<const kavrin_be_header_t*>(map);
    const long generation =
        whole_generation({static_cast<const std::uint8_t*>(map),
                          std::size_t{header->list_offset} + header->list_size});
    put_perm_map_addr(map);
    if (generation < 0) {
        ++report.mixed;
        return;
    }
    if (generation < report.generation) ++report.backwards;
    report.generation = generation;
}

void ask_for_verdicts(const std::string& share, ReaderReport& report) {
    if (const int verdict = verdict_on(share, FSOP_OPENDIR); verdict != KVPERMS_HAS_PERMS) {
        report.verdict = verdict;
        ++report.refused;
    }
    if (const int verdict = verdict_on(share, FSOP_MKDIR); verdict != KVPERMS_NO_PERM) {
        report.verdict = verdict;
        ++report.allowed;
    }
}

// The map is root's; verdicts are asked for as the user, for root may do everything.
void read_until(const std::atomic<bool>& stop, const std::string& share, ReaderReport& report) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    vfs_set_admins_powerusers(kAdmins, kPowers);
    become_user(kUser, kStaff, {kStaff, kPowers});
    while (!stop) {
        if (seteuid(0) != 0) _exit(2);
        look_at_map(report);
        if (seteuid(kUser) != 0) _exit(3);
        ask_for_verdicts(share, report);
        clear_log();
        ++report.looks;
    }
    _exit(0);
}

}  // namespace

long whole_generation(std::span<const std::uint8_t> image) {
    const auto reader = kvadmin::ImageReader::open(image);
    if (!reader || reader->header().signature != KAVRIN_BE_HEADER_SIGNATURE) return -1;
    const std::uint32_t generation = reader->header().generationnum;
    std::uint64_t named = 0;
    for (std::uint64_t i = 0; i < reader->element_count(); ++i) {
        const auto offset = static_cast<kvadmin::ElementOffset>(i * sizeof(fs_elem_t));
        const auto name = reader->name_of(offset);
        if (!name) return -1;
        if (!name->starts_with("folder")) continue;
        const auto element = reader->element(offset);
        if (!element || element->signature != FSELEMSIG) return -1;
        const auto ace = reader->ace(static_cast<kvadmin::AclOffset>(element->acl_offset), 0);
        if (!ace || ace->id != 100'000 + generation) return -1;
        ++named;
    }
    return named > 0 ? static_cast<long>(generation) : -1;
}

Readers::Readers(int count) : share_(make_temp_dir()) {
    mkdir((share_ + "/Shared").c_str(), 0755);
    void* memory =
        mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    board_ = new (memory) Board{};
    for (int i = 0; i < count; ++i) {
        const pid_t process = fork();
        if (process == 0) read_until(board_->stop, share_, board_->reports[i]);
        processes_.push_back(process);
    }
    EXPECT_TRUE(look_again());
}

Readers::~Readers() {
    for (const pid_t process : processes_) {
        kill(process, SIGKILL);
        waitpid(process, nullptr, 0);
    }
    munmap(board_, sizeof(Board));
}

bool Readers::look_again(std::chrono::milliseconds time) const {
    for (std::size_t i = 0; i < processes_.size(); ++i) {
        const ReaderReport& report = board_->reports[i];
        const std::uint64_t before = report.looks;
        if (!within(time, [&] { return report.looks >= before + 2; })) return false;
    }
    return true;
}

bool Readers::all_see(long generation, std::chrono::milliseconds time) const {
    for (std::size_t i = 0; i < processes_.size(); ++i)
        if (!within(time, [&] { return board_->reports[i].generation == generation; }))
            return false;
    return true;
}

std::uint64_t Readers::hurts() const {
    std::uint64_t hurts = 0;
    for (const ReaderReport& report : board_->reports)
        hurts += report.absent + report.mixed + report.backwards + report.refused + report.allowed;
    return hurts;
}

void Readers::expect_unhurt() {
    board_->stop = true;
    for (std::size_t i = 0; i < processes_.size(); ++i) {
        int status = -1;
        waitpid(processes_[i], &status, 0);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "reader " << i;
        const ReaderReport& report = board_->reports[i];
        EXPECT_GT(report.looks, 10U) << "reader " << i;
        EXPECT_EQ(report.absent, 0U) << "reader " << i;
        EXPECT_EQ(report.mixed, 0U) << "reader " << i;
        EXPECT_EQ(report.backwards, 0U) << "reader " << i;
        EXPECT_EQ(report.refused, 0U) << "reader " << i << ", verdict " << report.verdict;
        EXPECT_EQ(report.allowed, 0U) << "reader " << i << ", verdict " << report.verdict;
    }
    processes_.clear();
}

}  // namespace kvtest
