// What an SMB create call asks for, as a table: disposition, whether the file exists, whether it
// will be written.
#include <cstdint>

#include "processing_functions.h"
#include "utils/trace.h"

namespace {

enum class When : std::uint8_t { kAny, kExists, kMissing, kReads, kWrites };

struct Row {
    std::uint32_t disposition;
    When when;
    e_fsop_type_t op;  // FSOP_INVAL: left as it is
    e_open_mode_t mode;
    const char* name;
    const char* op_name;
    const char* reason;
};

constexpr const char* kExists = "as file exists";
constexpr const char* kMissing = "as file does not exist";

// Overwriting a file that is not there decides no operation: it is checked as none.
constexpr Row kRows[] = {
    {0, When::kExists, FSOP_OPEN_WRITE, OPENMODE_WRITE, "FILE_SUPERSEDE", "FSOP_WRITE", kExists},
    {0, When::kMissing, FSOP_CREATE, OPENMODE_WRITE, "FILE_SUPERSEDE", "FSOP_CREATE", kMissing},
    {1, When::kReads, FSOP_OPEN_READ, OPENMODE_READ, "FILE_OPEN", "FSOP_OPEN_READ",
     "as no write access was requested"},
    {1, When::kWrites, FSOP_OPEN_WRITE, OPENMODE_WRITE, "FILE_OPEN", "FSOP_WRITE",
     "as write access was requested"},
    {2, When::kAny, FSOP_CREATE, OPENMODE_WRITE, "FILE_CREATE", "FSOP_CREATE",
     "as a new file is asked for"},
    {3, When::kExists, FSOP_OPEN_WRITE, OPENMODE_WRITE, "FILE_OPEN_IF", "FSOP_WRITE", kExists},
    {3, When::kMissing, FSOP_CREATE, OPENMODE_WRITE, "FILE_OPEN_IF", "FSOP_CREATE", kMissing},
    {4, When::kExists, FSOP_OPEN_WRITE, OPENMODE_WRITE, "FILE_OVERWRITE", "FSOP_WRITE", kExists},
    {4, When::kMissing, FSOP_INVAL, OPENMODE_WRITE, "FILE_OVERWRITE", "nothing", kMissing},
    {5, When::kExists, FSOP_OPEN_WRITE, OPENMODE_WRITE, "FILE_OVERWRITE_IF", "FSOP_WRITE", kExists},
    {5, When::kMissing, FSOP_CREATE, OPENMODE_WRITE, "FILE_OVERWRITE_IF", "FSOP_CREATE", kMissing},
};

constexpr int kRowTrace = 5;

bool holds(When when, bool exists, bool writes) {
    switch (when) {
        case When::kAny:
            return true;
        case When::kExists:
            return exists;
        case When::kMissing:
            return !exists;
        case When::kReads:
            return !writes;
        case When::kWrites:
            return writes;
    }
    return false;
}

}  // namespace

extern "C" void _get_op_create_file(const char* nlpath, uint32_t create_disposition,
                                    uint32_t create_options, int file_exists,
                                    int write_access_requested, e_fsop_type_t* op,
                                    e_open_mode_t* open_mode) {
    for (const Row& row : kRows) {
        if (row.disposition != create_disposition ||
            !holds(row.when, file_exists != 0, write_access_requested != 0))
            continue;
        KV_TRACE(kRowTrace,
                 "kavrin:%s ENTRY path=%s is file create_disposition=0x%0x create_options=0x%xgot "
                 "%s setting FSP_OP=%s %s.",
                 __func__, nlpath == nullptr ? "NULL" : nlpath, create_disposition, create_options,
                 row.name, row.op_name, row.reason);
        if (row.op != FSOP_INVAL) *op = row.op;
        *open_mode = row.mode;
        return;
    }
}
