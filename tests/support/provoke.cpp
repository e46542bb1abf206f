// The allocator's entry points are defined here, so the whole test process, library included,
// comes by: glibc allows exactly this, and its own functions stay reachable under their inner
// names. A sanitizer replaces the same entry points, so this steps aside for one.
#include "provoke.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define KVTEST_OWN_ALLOCATOR 0
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) || \
    __has_feature(memory_sanitizer)
#define KVTEST_OWN_ALLOCATOR 0
#endif
#endif
#ifndef KVTEST_OWN_ALLOCATOR
#define KVTEST_OWN_ALLOCATOR 1
#endif

namespace {

bool watching = false;
int refused_at = 0;
int asked = 0;

#if KVTEST_OWN_ALLOCATOR
bool refused() {
    if (!watching || ++asked != refused_at) return false;
    errno = ENOMEM;
    return true;
}
#endif

void require(bool condition, const char* what) {
    if (condition) return;
    std::perror(what);
    std::abort();
}

}  // namespace

#if KVTEST_OWN_ALLOCATOR
extern "C" {
void* __libc_malloc(std::size_t) noexcept;
void* __libc_calloc(std::size_t, std::size_t) noexcept;
void* __libc_realloc(void*, std::size_t) noexcept;

void* malloc(std::size_t size) noexcept {
    return refused() ? nullptr : __libc_malloc(size);
}
void* calloc(std::size_t count, std::size_t size) noexcept {
    return refused() ? nullptr : __libc_calloc(count, size);
}
void* realloc(void* block, std::size_t size) noexcept {
    return refused() ? nullptr : __libc_realloc(block, size);
}
}
#endif

namespace kvtest {

bool can_refuse_memory() {
    return KVTEST_OWN_ALLOCATOR != 0;
}

RefusedAllocation::RefusedAllocation(int nth) {
    asked = 0;
    refused_at = nth;
    watching = true;
}
RefusedAllocation::~RefusedAllocation() {
    watching = false;
}
int RefusedAllocation::count() {
    return asked;
}

void freeze_address_space() {
    void* volatile room = std::malloc(100000);  // what the test itself still needs
    std::free(room);
    rlim_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    const rlim_t bytes = pages * static_cast<rlim_t>(sysconf(_SC_PAGESIZE));
    const rlimit limit{bytes, bytes};
    require(setrlimit(RLIMIT_AS, &limit) == 0, "setrlimit");
}

void hide_folder(const std::string& folder) {
    require(unshare(CLONE_NEWNS) == 0, "unshare");
    require(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "mount --make-private");
    require(mount("empty", folder.c_str(), "tmpfs", 0, "mode=0755") == 0, "mount tmpfs");
}

void replace_samba(const std::string& library) {
    const std::string folder = "/usr/lib/x86_64-linux-gnu/samba";
    if (read_file("/proc/self/maps").find("libsamdb-common") != std::string::npos) {
        std::fputs("Samba's library is open already: run each case in a process of its own\n",
                   stderr);
        std::abort();
    }
    hide_folder(folder);
    if (!library.empty()) std::filesystem::copy_file(library, folder + "/libsamdb-common.so.0");
}

KernelSetting::KernelSetting(std::string path, std::string_view value) : path_(std::move(path)) {
    previous_ = read_file(path_);
    write_file(path_, value);
}
KernelSetting::~KernelSetting() {
    write_file(path_, previous_);
}

ChildResult expect_in_child(const std::function<void()>& body) {
    ChildResult result = run_child([&] {
        body();
        return testing::Test::HasFailure() ? 1 : 0;
    });
    EXPECT_TRUE(result.exited && result.exit_code == 0)
        << "signal " << result.signal << ", exit code " << result.exit_code << "\n"
        << result.out << result.err;
    return result;
}

int logged_matching(const std::vector<LogLine>& lines, const std::string& pattern) {
    const std::regex expression(pattern);
    int found = 0;
    for (const LogLine& line : lines) {
        if (std::regex_match(line.message, expression)) ++found;
    }
    return found;
}

}  // namespace kvtest
