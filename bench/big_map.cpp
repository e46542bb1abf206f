// See big_map.h.
#include "big_map.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>

#include "kavrin.h"

namespace kvbench {
namespace {

constexpr std::uint64_t kTopFolders = 10;
constexpr std::uint64_t kSubFolders = 8;
constexpr std::uint64_t kFiles = 20;
constexpr std::uint64_t kSmallFolder = 60;

void require(bool condition, const char* what) {
    if (condition) return;
    std::perror(what);
    std::exit(1);
}

class PairWriter {
public:
    explicit PairWriter(const std::string& directory) {
        files_.size_path = directory + "/size.json";
        files_.data_path = directory + "/data.json";
        data_ = std::fopen(files_.data_path.c_str(), "w");
        require(data_ != nullptr, files_.data_path.c_str());
        std::fprintf(data_, "[{\"NUMCHILDREN\":1}");
        open("/", "", "\"1000\":8", 1, 2);
        open("Private", "", "", 0, 0);
        close();
    }

    void open(const std::string& name, const char* users, const char* groups, int aces,
              std::uint64_t children) {
        ++files_.elements;
        aces_ += static_cast<std::uint64_t>(aces);
        names_ += name.size() + 1;
        std::fprintf(data_,
                     ",{\"DIR\":\"%s\",\"ACL\":[{\"NUMUSERS\":%d},{\"NUMGROUPS\":%d},"
                     "{\"USERS\":{%s}},{\"GROUPS\":{%s}}],\"CHILDREN\":[{\"NUMCHILDREN\":%llu}",
                     name.c_str(), *users != 0 ? 1 : 0, *groups != 0 ? 1 : 0, users, groups,
                     static_cast<unsigned long long>(children));
    }
    void close() { std::fprintf(data_, "]}"); }

    void file(std::uint64_t number) {
        char name[32];
        std::snprintf(name, sizeof name, "file%05llu.txt", static_cast<unsigned long long>(number));
        open(name, "", "", 0, 0);
        close();
    }

    // A folder with `descendants` elements below it.
    void folder(const std::string& name, std::uint64_t descendants) {
        const bool own_acl = ++folders_ % 10 < 3;
        const char* users = own_acl ? "\"1001\":7" : "";
        if (descendants <= kSmallFolder) {
            open(name, users, "", own_acl, descendants);
            for (std::uint64_t i = 0; i < descendants; ++i) file(i);
        } else {
            open(name, users, "", own_acl, kSubFolders + kFiles);
            std::uint64_t left = descendants - kSubFolders - kFiles;
            for (std::uint64_t i = 0; i < kSubFolders; ++i) {
                const std::uint64_t share = left / (kSubFolders - i);
                left -= share;
                char sub[32];
                std::snprintf(sub, sizeof sub, "folder%03llu", static_cast<unsigned long long>(i));
                folder(sub, share);
            }
            for (std::uint64_t i = 0; i < kFiles; ++i) file(i);
        }
        close();
    }

    PairFiles finish() {
        close();  // the root
        std::fprintf(data_, "]\n");
        require(std::fclose(data_) == 0, files_.data_path.c_str());
        std::ofstream size(files_.size_path);
        size << "{\"MAPNAME\":\"bench\",\"VERSION\":\"1\",\"GENERATIONNUM\":1,"
             << "\"TIMESTAMP\":1700000000,\"TOTALFSELEMS\":" << files_.elements
             << ",\"TOTALACES\":" << aces_ << ",\"TOTALNAMELEN\":" << names_ << "}\n";
        size.close();
        struct stat st;
        require(stat(files_.data_path.c_str(), &st) == 0, "stat");
        files_.data_bytes = static_cast<std::uint64_t>(st.st_size);
        return files_;
    }

private:
    PairFiles files_;
    std::FILE* data_ = nullptr;
    std::uint64_t aces_ = 0;
    std::uint64_t names_ = 0;
    std::uint64_t folders_ = 0;
};

}  // namespace

PairFiles write_pair(const std::string& directory, std::uint64_t elements) {
    PairWriter writer(directory);
    writer.open("Shared", "", "\"1000\":1", 1, kTopFolders);
    std::uint64_t left = elements - 3;
    for (std::uint64_t i = 0; i < kTopFolders; ++i) {
        const std::uint64_t share = left / (kTopFolders - i);
        left -= share;
        writer.folder("top" + std::to_string(i), share - 1);
    }
    writer.close();
    return writer.finish();
}

std::string deep_path() {
    return "Shared/top7/folder005/folder003/folder006/folder004/folder002/file00003.txt";
}

PairFiles write_flat_pair(const std::string& directory, std::uint64_t children) {
    PairWriter writer(directory);
    writer.open("Shared", "", "\"1000\":1", 1, 1);
    writer.open("flat", "\"1001\":7", "", 1, children);
    for (std::uint64_t i = 0; i < children; ++i) writer.file(i);
    writer.close();
    writer.close();
    return writer.finish();
}

void publish(const PairFiles& pair) {
    const QuietStdout quiet;
    // The load removes the files it is given: links stand in for them.
    std::string size = pair.size_path + ".load";
    std::string data = pair.data_path + ".load";
    require(link(pair.size_path.c_str(), size.c_str()) == 0, size.c_str());
    require(link(pair.data_path.c_str(), data.c_str()) == 0, data.c_str());
    memsummary_t* summary = nullptr;
    require(init_perm_map_semaphore() == 0, "semaphore");
    const int current = get_current_perm_table_index_for_fill();
    require(get_permbe_shmsize(size.data(), data.data(), &summary) == SHM_MEMBE_OK, "size file");
    int id = -1;
    summary->membuf = create_perm_map_shm(get_next_perm_table_key(current), summary->memsize, &id);
    require(summary->membuf != nullptr, "segment");
    require(init_permbe_shm(summary) == SHM_MEMBE_OK, "load");
    require(swap_maps(current) == 0 && map_initialized(1) == 0, "swap");
    put_perm_map_addr(summary->membuf);
    std::free(summary->perm_map_name_size);
    std::free(summary->perm_map_name_data);
    std::free(summary);
}

void use_private_table(int debug_level) {
    global_params =
        static_cast<global_param_t*>(std::calloc(PARAM_MAX_INDEX, sizeof(global_param_t)));
    require(global_params != nullptr, "calloc");
    global_params[PARAM_DEBUG_LEVEL].value.intval = debug_level;
}

QuietStdout::QuietStdout() {
    std::fflush(stdout);
    saved_ = dup(STDOUT_FILENO);
    const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    require(saved_ >= 0 && null >= 0 && dup2(null, STDOUT_FILENO) >= 0, "/dev/null");
    close(null);
}

QuietStdout::~QuietStdout() {
    std::fflush(stdout);
    dup2(saved_, STDOUT_FILENO);
    close(saved_);
}

double seconds_of(const std::function<void()>& work) {
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

double median(std::vector<double> values) {
    std::nth_element(values.begin(),
                     values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2), values.end());
    return values[values.size() / 2];
}

}  // namespace kvbench
