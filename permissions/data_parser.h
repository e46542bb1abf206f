// The data file's callbacks as the JSON parser takes them.
#pragma once

#include <yajl/yajl_parse.h>

namespace kavrin {

extern const yajl_callbacks kDataFileCallbacks;

}  // namespace kavrin
