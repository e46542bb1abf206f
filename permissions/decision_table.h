// The decision table as data: which rights an operation needs on the element and on its parent, by
// element type. enforce_kavrin_permissions() walks it; an explanation names the row it stopped at.
#pragma once

#include <cstdint>

#include "kavrin_perms.h"
#include "kavrin_structs.h"

namespace kavrin {

// What a row asks of the masks. "Nav" is any of the bits read, navigate and view.
enum class Need : std::uint8_t {
    kAlways,
    kParentRead,
    kParentReadWrite,
    kParentReadWriteDelete,
    kSelfNav,
    kSelfNavAndParentNav,
    kSelfReadAndParentReadWrite,
    kSelfReadAndParentReadWriteDelete,
    kProgrammingError  // nobody may ask: the process ends
};

struct DecisionRow {
    Need need;
    const char* allow;  // traced with the verdict; null: no message
    const char* deny;
};

// The row for an operation (1 to 29) and an element type; any type but file and folder counts as
// "does not exist".
const DecisionRow& decision_row(e_fsop_type_t op, e_file_type_t path_type);

// Whether these masks meet a need. Must not be asked for kProgrammingError.
bool meets(Need need, std::uint32_t path_perm, std::uint32_t parent_perm);

}  // namespace kavrin
