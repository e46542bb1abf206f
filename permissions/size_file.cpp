// The size file and the image's outline: how many bytes a map needs, and the header that lays out
// its regions before the data file fills them.
//
// The callbacks reach the summary through a process-wide reference and the read buffer is static:
// one size file at a time in a process.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "logging.h"
#include "manage_perms.h"
#include "mkperm_mem.h"
#include "permissions/image_view.h"
#include "permissions/json_session.h"
#include "permissions/load_report.h"
#include "permissions/parse_stack.h"
#include "utils/owners.h"
#include "utils/trace.h"

namespace {

using namespace kavrin;

constexpr int kContinue = 1;
constexpr int kCancel = 0;
constexpr std::size_t kReadBuffer = 65536;
constexpr std::uint32_t kHeaderSize = sizeof(kavrin_be_header_t);

struct Key {
    json_mapsize_states state;
    std::string_view text;
};
constexpr Key state_arr1[] = {{SHMMAPSZ_STATE_MAPNAME, "MAPNAME"},
                              {SHMMAPSZ_STATE_VERSION, "VERSION"},
                              {SHMMAPSZ_STATE_GENERATIONNUM, "GENERATIONNUM"},
                              {SHMMAPSZ_STATE_TIMESTAMP, "TIMESTAMP"},
                              {SHMMAPSZ_STATE_TOTALFSELEMS, "TOTALFSELEMS"},
                              {SHMMAPSZ_STATE_TOTALACES, "TOTALACES"},
                              {SHMMAPSZ_STATE_TOTALNAMELEN, "TOTALNAMELEN"}};

// The summary that the callbacks fill.
memsummary_t* memsummary1 = nullptr;

json_mapsize_states state_of_key(std::string_view text) {
    for (const Key& key : state_arr1) {
        if (key.text == text) return key.state;
    }
    return SHMMAPSZ_STATE_INVAL;
}

// The size file's states lie on the same stack as the data file's and share its elements.
int push_size_state(json_mapsize_states state) {
    push_stackelem_wstatedata(memsummary1, static_cast<e_json_permdata_states>(state), 0, nullptr,
                              STELEM_TYPE_INVALID);
    return kContinue;
}

json_mapsize_states pop_size_state() {
    jsonstack_t* elem = pop_stackelem(memsummary1->sth);
    KV_ASSERT_AS(elem != nullptr, "elem != NULL");
    const auto state = static_cast<json_mapsize_states>(elem->state);
    release_stackelem(elem);
    return state;
}

int size_start_map(void*) {
    KV_ASSERT(STACK_EMPTY(&(memsummary1->sth)));
    return push_size_state(SHMMAPSZ_STATE_STARTMAP);
}

int size_map_key(void*, const unsigned char* key, std::size_t length) {
    const std::string_view text(reinterpret_cast<const char*>(key), length);
    const json_mapsize_states state = state_of_key(text);
    std::printf("%s(%d) Here name %.*s st %d\n", __func__, __LINE__, static_cast<int>(length),
                text.data(), static_cast<int>(state));
    if (state != SHMMAPSZ_STATE_INVAL) return push_size_state(state);
    KV_TRACE(kAlways, "Invalid state %.*s state %d", static_cast<int>(length), text.data(),
             static_cast<int>(state));
    return kCancel;
}

// Fills a text field as far as the text goes, and terminates it where there is room.
template <std::size_t size>
void fill(char (&field)[size], std::string_view text) {
    std::memset(field, 0, std::min(text.size() + 1, size));
    std::memcpy(field, text.data(), std::min(text.size(), size));
}

int size_string(void*, const unsigned char* value, std::size_t stringLen) {
    const std::string_view text(reinterpret_cast<const char*>(value), stringLen);
    const json_mapsize_states cstate = pop_size_state();
    std::printf("%s(%d) Here %.*s cstate %d\n", __func__, __LINE__, static_cast<int>(stringLen),
                text.data(), static_cast<int>(cstate));
    switch (cstate) {
        case SHMMAPSZ_STATE_MAPNAME:
            KV_ASSERT(stringLen < MAXMAP_NAMELEN);
            fill(memsummary1->mapname, text);
            return kContinue;
        case SHMMAPSZ_STATE_VERSION:
            KV_ASSERT(stringLen <= MAXMAP_VERSION_NAMELEN);
            fill(memsummary1->version, text);
            return kContinue;
        default:
            return kCancel;
    }
}

int size_number(void*, const char* number, std::size_t length) {
    const unsigned long long value = decimal_value({number, length});
    std::printf("%s(%d) Here val %lu\n", __func__, __LINE__, static_cast<unsigned long>(value));
    const auto narrowed = static_cast<std::uint32_t>(value);
    switch (pop_size_state()) {
        case SHMMAPSZ_STATE_GENERATIONNUM:
            memsummary1->generationnum = narrowed;
            break;
        case SHMMAPSZ_STATE_TIMESTAMP:
            memsummary1->timestamp = static_cast<std::int64_t>(value);
            break;
        case SHMMAPSZ_STATE_TOTALFSELEMS:
            memsummary1->total_fselems = narrowed;
            break;
        case SHMMAPSZ_STATE_TOTALACES:
            memsummary1->total_aces = narrowed;
            break;
        case SHMMAPSZ_STATE_TOTALNAMELEN:
            memsummary1->total_namelen = narrowed;
            break;
        default:
            KV_ASSERT(0);
    }
    return kContinue;
}

int size_end_map(void*) {
    std::printf("%s(%d) Here \n", __func__, __LINE__);
    pop_size_state();
    KV_ASSERT(STACK_EMPTY(&(memsummary1->sth)));
    return kContinue;
}

constexpr yajl_callbacks kSizeFileCallbacks = {
    nullptr,        nullptr,      nullptr,      nullptr, size_number, size_string,
    size_start_map, size_map_key, size_end_map, nullptr, nullptr};

// Header, elements, names, ACLs and lists, in 32 bits.
std::uint32_t image_size(const memsummary_t& summary) {
    return summary.total_namelen + 60 * summary.total_fselems + kHeaderSize +
           12 * summary.total_aces;
}

// The persisted map's size into a summary that the caller made.
e_membe_shm_err size_of_persisted_map(memsummary_t& summary) {
    const HeapString location(get_permbe_map_location());
    if (location == nullptr) {
        KV_TRACE(kAlways, "Error getting permbe map location");
        return report_failure(SHM_MEMBE_ERR_NOMEM, CONFIG_FILE_ERROR,
                              "Error getting permbe map location");
    }
    struct stat st;
    if (stat(location.get(), &st) != 0) {
        KV_TRACE(kAlways, "Perm map does not exist %s", location.get());
        return report_failure(SHM_MEMBE_ERR_NOCACHE_FILE, CONFIG_FILE_ERROR,
                              "Perm map location does not exist %s", location.get());
    }
    summary.memsize = static_cast<std::uint32_t>(st.st_size);
    return SHM_MEMBE_OK;
}

struct SummaryDeleter {
    void operator()(memsummary_t* summary) const {
        std::free(summary->perm_map_name_size);
        std::free(summary->perm_map_name_data);
        std::free(summary);
    }
};
using SummaryOwner = std::unique_ptr<memsummary_t, SummaryDeleter>;

char* copy_path(const char* path) {
    return strdup(path);
}

// A zeroed summary with both paths, or null after its report.
SummaryOwner init_mem_summary(const char* size_path, const char* data_path) {
    SummaryOwner summary(allocate_zeroed<memsummary_t>().release());
    if (summary == nullptr) {
        const char* error = std::strerror(errno);
        KV_TRACE(kAlways, "Could not allocate memory for memory summary");
        KV_TRACE(kAlways, "Cannot allocate mem summary retval %d err %s", 1, error);
        report_failure(SHM_MEMBE_ERR_NOMEM, OUT_OF_MEMORY,
                       "Cannot allocate mem summary retval %d err %s", 1, error);
        return nullptr;
    }
    summary->perm_map_name_size = copy_path(size_path);
    if (summary->perm_map_name_size != nullptr) summary->perm_map_name_data = copy_path(data_path);
    if (summary->perm_map_name_data == nullptr) {
        const char* error = std::strerror(errno);
        KV_TRACE(kAlways, "Cannot allocate mem summary size path retval %d err %s", 0, error);
        report_failure(SHM_MEMBE_ERR_NOMEM, OUT_OF_MEMORY,
                       "Cannot allocate mem summary size path retval %d err %s", 0, error);
        return nullptr;
    }
    return summary;
}

// Feeds the whole file to the parser. An error ends the parse and nothing else.
void parse_size_file(int file, JsonSession& session) {
    static char buffer[kReadBuffer];
    for (;;) {
        const ssize_t got = read(file, buffer, kReadBuffer - 1);
        if (got < 0) std::fprintf(stderr, "error on file read.\n");
        if (got <= 0) break;
        buffer[got] = 0;
        if (!session.feed({buffer, static_cast<std::size_t>(got)})) break;
    }
    session.complete();
}

// Faults the segment's pages in at one go where the kernel can; the clearing that follows would
// take them one by one.
void populate(void* memory, std::size_t size) {
#ifdef MADV_POPULATE_WRITE
    const auto page = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
    const auto begin = (reinterpret_cast<std::uintptr_t>(memory) + page - 1) & ~(page - 1);
    const auto end = (reinterpret_cast<std::uintptr_t>(memory) + size) & ~(page - 1);
    const int error = errno;
    if (begin < end) madvise(reinterpret_cast<void*>(begin), end - begin, MADV_POPULATE_WRITE);
    errno = error;
#else
    static_cast<void>(memory);
    static_cast<void>(size);
#endif
}

// The header, its validity mark last.
void write_header(kavrin_be_header_t& header, const memsummary_t& summary) {
    const std::uint32_t elements = summary.total_fselems;
    const std::uint32_t aces = summary.total_aces;
    const std::uint32_t names = summary.total_namelen;
    // Into a cleared header: behind its end a text is zero, whatever an earlier value left.
    std::memcpy(header.mapname, summary.mapname, strnlen(summary.mapname, MAXMAP_NAMELEN));
    std::memcpy(header.version, summary.version, strnlen(summary.version, MAXMAP_VERSION_NAMELEN));
    std::memset(header.nextmap, 0, sizeof header.nextmap);
    header.generationnum = summary.generationnum;
    header.timestamp = summary.timestamp;
    header.total_aces = aces;
    header.total_lists = 0;
    header.fselem_offset = kHeaderSize;
    header.fselem_size = 24 * elements;
    header.nameelem_offset = header.fselem_offset + header.fselem_size;
    header.total_fselems = elements;
    header.acl_offset = header.nameelem_offset + names + 12 * elements;
    header.list_offset = header.acl_offset + 12 * aces + 8 * elements;
    header.next_free_fselem = 0;
    header.next_free_nameelem = 0;
    header.next_free_acl = 0;
    header.nameelem_size = names + 12 * elements;
    header.acl_size = 12 * aces + 8 * elements;
    header.list_size = 16 * elements;
    header.next_free_list = 0;
    header.signature = KAVRIN_BE_HEADER_SIGNATURE;
}

}  // namespace

extern "C" e_membe_shm_err get_permbe_shmsize(char* perm_size_file, char* perm_file_data,
                                              memsummary_t** msum) {
    if (perm_size_file == nullptr && perm_file_data == nullptr)
        return size_of_persisted_map(**msum);
    if (perm_size_file == nullptr || perm_file_data == nullptr) {
        KV_TRACE(kAlways, "perm be size file is blank ");
        return report_failure(SHM_MEMBE_ERR_BADARGS, MISSING_JSON_FILES,
                              "perm be JSON files are not given");
    }
    struct stat st;
    struct stat data_st;
    if (stat(perm_size_file, &st) != 0) {
        KV_TRACE(kAlways, "perm be size file %s is missing ", perm_size_file);
        return report_failure(SHM_MEMBE_ERR_NOPERM_SIZE_FILE, MISSING_JSON_FILES,
                              "Missing JSON size file");
    }
    if (stat(perm_file_data, &data_st) != 0) {
        // Names the size file: readers of the log look for this line as it is.
        KV_TRACE(kAlways, "perm be data file %s is missing ", perm_size_file);
        return report_failure(SHM_MEMBE_ERR_NOPERM_FILE, MISSING_JSON_FILES,
                              "Missing JSON data file");
    }
    KV_ASSERT(S_ISREG(st.st_mode));
    const FileDescriptor file(open(perm_size_file, O_RDONLY | O_CLOEXEC));
    if (!file.valid()) {
        KV_TRACE(kAlways, "Cannot open perm size file %s", perm_size_file);
        return report_failure(SHM_MEMBE_ERR_BADARGS, MISSING_JSON_FILES,
                              "Cannot open perm size file %s", perm_size_file);
    }
    JsonSession session(kSizeFileCallbacks);
    if (!session.ready()) return SHM_MEMBE_ERR_NOMEM;
    SummaryOwner summary = init_mem_summary(perm_size_file, perm_file_data);
    if (summary == nullptr) return SHM_MEMBE_ERR_NOMEM;

    memsummary1 = summary.get();
    parse_size_file(file.get(), session);
    empty_stack(summary->sth);  // what a cancelled parse left
    summary->memsize = image_size(*summary);
    *msum = summary.release();
    return SHM_MEMBE_OK;
}

extern "C" e_membe_shm_err init_permbe_shm(memsummary_t* perm_be_shm) {
    if (perm_be_shm == nullptr) {
        KV_TRACE(kAlways, "%s(%d) perm be shmbe is NULL ", __func__, __LINE__);
        return SHM_MEMBE_ERR_BADARGS;
    }
    if (perm_be_shm->membuf == nullptr) {
        KV_TRACE(kAlways, "Shared memory not present");
        return SHM_MEMBE_ERR_BADARGS;
    }
    populate(perm_be_shm->membuf, perm_be_shm->memsize);
    std::memset(perm_be_shm->membuf, 0, perm_be_shm->memsize);
    // A persisted map cut short has no room for one; reading it will say so.
    if (perm_be_shm->memsize >= kHeaderSize)
        write_header(ImageView(perm_be_shm->membuf).header(), *perm_be_shm);

    const e_membe_shm_err result = process_permmap(perm_be_shm);
    if (result == SHM_MEMBE_OK) {
        log_perm_error("Successfully processed permission map", PERMISSION_MAP_SUCCESS,
                       SWEEPER_LOGSEV_INFO);
    } else {
        log_perm_error("Failed processing permission map", CORRUPTED_PERMISSION_MAP,
                       SWEEPER_LOGSEV_CRIT);
    }
    return result;
}
