// What the load tests share: a pair of JSON files on disk, the summary as an owner, captured output
// streams, the permission-load log read back line by line, and the images' bytes.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "example_image.h"
#include "kavrin.h"
#include "provoke.h"
#include "support.h"

namespace kvtest {

constexpr const char* kMapFile = "/etc/kavrin/.permbe_map";
constexpr const char* kLoadLog = "/var/log/kavrin_perms.log";

using Bytes = std::vector<std::uint8_t>;
inline Bytes bytes_of(std::string_view text) {
    return Bytes(text.begin(), text.end());
}
inline Bytes example_image() {
    return Bytes(kExampleImage.begin(), kExampleImage.end());
}
inline std::string_view text_of(const Bytes& bytes) {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

// Redirects a descriptor of this process into memory while it lives.
class CapturedStream {
public:
    explicit CapturedStream(int descriptor)
        : descriptor_(descriptor), memory_(memfd_create("captured", MFD_CLOEXEC)) {
        std::fflush(nullptr);
        saved_ = fcntl(descriptor, F_DUPFD_CLOEXEC, 10);
        dup2(memory_, descriptor);
    }
    ~CapturedStream() {
        std::fflush(nullptr);
        dup2(saved_, descriptor_);
        close(saved_);
        close(memory_);
    }
    CapturedStream(const CapturedStream&) = delete;
    CapturedStream& operator=(const CapturedStream&) = delete;
    std::string text() const {
        std::fflush(nullptr);
        std::string all(static_cast<std::size_t>(lseek(memory_, 0, SEEK_END)), '\0');
        const ssize_t got = pread(memory_, all.data(), all.size(), 0);
        EXPECT_EQ(got, static_cast<ssize_t>(all.size()));
        return all;
    }

private:
    int descriptor_;
    int memory_;
    int saved_;
};

// One line of the permission-load log without its time.
struct Report {
    std::string text;
    int index;
    int severity;
    bool operator==(const Report&) const = default;
};
inline void PrintTo(const Report& report, std::ostream* out) {
    *out << '"' << report.text << "\" index " << report.index << " severity " << report.severity;
}

// The log's lines in order. "time,date,severity,text,index".
inline std::vector<Report> reports() {
    std::vector<Report> found;
    if (!file_exists(kLoadLog)) return found;
    const std::string log = read_file(kLoadLog);
    for (std::size_t start = 0; start < log.size();) {
        const std::size_t end = std::min(log.find('\n', start), log.size());
        const std::string line = log.substr(start, end - start);
        const std::size_t date = line.find(',');
        const std::size_t severity = line.find(',', date + 1);
        const std::size_t text = line.find(',', severity + 1);
        const std::size_t index = line.rfind(',');
        found.push_back({line.substr(text + 1, index - text - 1), std::atoi(&line[index + 1]),
                         std::atoi(&line[severity + 1])});
        start = end + 1;
    }
    return found;
}
using Reports = std::vector<Report>;

inline const Report kLoaded{"Successfully processed permission map", PERMISSION_MAP_SUCCESS,
                            SWEEPER_LOGSEV_INFO};
inline const Report kNotLoaded{"Failed processing permission map", CORRUPTED_PERMISSION_MAP,
                               SWEEPER_LOGSEV_CRIT};
inline const Report kReread{"Successfully read the permission map", PERMISSION_MAP_SUCCESS,
                            SWEEPER_LOGSEV_INFO};

// Frees a summary with its paths and whatever an interrupted parse left on its stack.
struct SummaryDeleter {
    void operator()(memsummary_t* summary) const {
        while (summary->sth.sthead.first_elem != nullptr) {
            oneway_list_elem_t* top = summary->sth.sthead.first_elem;
            oneway_list_remove(&summary->sth.sthead, top);
            std::free(top);
        }
        std::free(summary->perm_map_name_size);
        std::free(summary->perm_map_name_data);
        std::free(summary);
    }
};
using Summary = std::unique_ptr<memsummary_t, SummaryDeleter>;

inline Summary empty_summary() {
    return Summary(static_cast<memsummary_t*>(std::calloc(1, sizeof(memsummary_t))));
}

// A pair of JSON files in a folder of its own.
struct PairFiles {
    explicit PairFiles(std::string_view size_json = kExampleSize,
                       std::string_view data_json = kExampleData)
        : folder(make_temp_dir()), size(folder + "/size.json"), data(folder + "/data.json") {
        write_file(size, size_json);
        write_file(data, data_json);
    }
    std::string folder;
    std::string size;
    std::string data;
};

// A load as the map-building service does it, one call at a time, with what it wrote.
struct Loading {
    e_membe_shm_err sized = SHM_MEMBE_OK;
    e_membe_shm_err result = SHM_MEMBE_OK;
    Summary summary;
    Bytes image;
    std::string out;
    std::string err;
};

inline Loading size_pair(PairFiles& files) {
    Loading loading;
    memsummary_t* summary = nullptr;
    const CapturedStream out(STDOUT_FILENO);
    const CapturedStream err(STDERR_FILENO);
    loading.sized = get_permbe_shmsize(files.size.data(), files.data.data(), &summary);
    loading.summary.reset(summary);
    loading.out = out.text();
    loading.err = err.text();
    return loading;
}

// `dirt` fills the memory beforehand: nothing of it may be left.
inline void fill(Loading& loading, std::uint8_t dirt = 0xEE) {
    loading.image.assign(loading.summary->memsize, dirt);
    loading.summary->membuf = loading.image.data();
    const CapturedStream out(STDOUT_FILENO);
    const CapturedStream err(STDERR_FILENO);
    loading.result = init_permbe_shm(loading.summary.get());
    loading.out = out.text();
    loading.err = err.text();
}

inline Loading load(PairFiles& files) {
    Loading loading = size_pair(files);
    EXPECT_EQ(loading.sized, SHM_MEMBE_OK);
    fill(loading);
    return loading;
}

// Each test starts without a persisted map and without a log, at debug level 0.
class LoadTest : public testing::Test {
protected:
    LoadTest() {
        unlink(kMapFile);
        unlink(kLoadLog);
    }
    ConfigTable config_;
};

inline std::string header_text(const Bytes& image, std::size_t offset, std::size_t size) {
    return std::string(text_of(image).substr(offset, size));
}
inline std::uint32_t u32_at(const void* image, std::size_t offset) {
    std::uint32_t value;
    std::memcpy(&value, static_cast<const char*>(image) + offset, sizeof value);
    return value;
}

}  // namespace kvtest
