// The permission-load log: opened, appended to and closed for each report, so that no handle is
// held between loads and rotation needs no signal.
//
// Concurrency: a line is one fputs() on a stream opened for appending and flushed at close, so
// lines of several processes never mix as long as a line fits the stream's buffer.
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "logging.h"
#include "utils/owners.h"
#include "utils/trace.h"

const char* const messgage_dictionary[3] = {
    "Successfully loaded permission map from cloud filesystem",
    "Missing or corrupted temporary files created to import permission map from cloud filesystem. "
    "Please reset permissions",
    "The created permission map is corrupted. To regain access to the share please reset "
    "permissions"};

namespace {

using kavrin::HeapString;
using kavrin::kAlways;

constexpr const char* kLogFile = "/var/log/kavrin_perms.log";

// Room for the numbers and commas of a line beside its two texts.
constexpr std::size_t kLineOverhead = 32;

}  // namespace

extern "C" sweeper_log_t* open_sweeper_log(const char* fname) {
    if (fname == nullptr) {
        KV_TRACE(kAlways, "sweeper: No file given for sweeper log file\n");
        return nullptr;
    }
    auto handle = kavrin::allocate_zeroed<sweeper_log_t>();
    if (handle == nullptr) {
        KV_TRACE(kAlways, "sweeper: Cannot create log file handle. No memory\n");
        return nullptr;
    }
    handle->fp = std::fopen(fname, "a");
    if (handle->fp == nullptr) {
        KV_TRACE(kAlways, "sweeper: Cannot create log file %s. Error: %s\n", fname,
                 std::strerror(errno));
        return nullptr;
    }
    return handle.release();
}

extern "C" void close_sweeper_log(sweeper_log_t* hndl) {
    if (hndl == nullptr) {
        KV_TRACE(kAlways, "sweeper: Null sweeper log\n");
        return;
    }
    if (hndl->fp != nullptr) std::fclose(hndl->fp);
    hndl->fp = nullptr;
}

extern "C" int create_sweeperlog_msg(unsigned int severity, const char* txt, int indx,
                                     char** message, unsigned int* meslen) {
    const std::time_t now = std::time(nullptr);
    // ctime() rereads the time zone, as a service that runs for months needs it to.
    char time_text[64] = "";
    if (const char* text = std::ctime(&now); text != nullptr)
        std::snprintf(time_text, sizeof time_text, "%.*s", static_cast<int>(std::strlen(text) - 1),
                      text);

    const std::size_t size = std::strlen(time_text) + std::strlen(txt) + kLineOverhead;
    char* grown = static_cast<char*>(std::realloc(*message, size));
    if (grown == nullptr) {
        KV_TRACE(kAlways, "sweeper: Cannot allocate memory for sweeper log buffer\n");
        return -1;
    }
    *message = grown;
    *meslen = static_cast<unsigned int>(size);
    std::memset(grown, 0, size);
    // A newline at the end of the text stays: readers of the log know lines broken by it.
    std::snprintf(grown, size, "%lu,%s,%d,%s,%d\n", static_cast<unsigned long>(now), time_text,
                  static_cast<int>(severity), txt, indx);
    return 0;
}

extern "C" int write_sweeper_log(sweeper_log_t* hndl, size_t mes_len, char* message) {
    if (hndl == nullptr) {
        KV_TRACE(kAlways, "sweeper: Null log handle\n");
        return -1;
    }
    if (hndl->fp == nullptr) {
        KV_TRACE(kAlways, "sweeper: Null log file pointer in handle\n");
        return -1;
    }
    if (mes_len == 0) {
        KV_TRACE(kAlways, "Message len is zero. Nothing to write\n");
        return -1;
    }
    if (message == nullptr) {
        KV_TRACE(kAlways, "sweeper: Null message. Nothing to write\n");
        return -1;
    }
    if (std::fputs(message, hndl->fp) < 0) {
        KV_TRACE(kAlways, "sweeper: Write to log file failed %s\n", std::strerror(errno));
        return -1;
    }
    return 0;
}

extern "C" void log_perm_error(const char* txt, int indx, e_sweeper_logmsg_sev_t severity) {
    const kavrin::HeapOwner<sweeper_log_t> log(open_sweeper_log(kLogFile));
    if (log == nullptr) return;
    char* line = nullptr;
    unsigned int size = 0;
    if (create_sweeperlog_msg(severity, txt, indx, &line, &size) == 0)
        write_sweeper_log(log.get(), std::strlen(line), line);
    const HeapString owned_line(line);
    close_sweeper_log(log.get());
}
