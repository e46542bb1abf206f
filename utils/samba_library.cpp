// Samba's own name comparison, taken from its private library at run time: the share must fold
// names outside ASCII exactly as the smbd beside us does. Without it no comparison would be right,
// so a missing library ends the process.
#include <dlfcn.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "kavrin_utils.h"
#include "utils/trace.h"

namespace {

// The library's classic name, then the names under which newer packages ship it.
constexpr const char* kSambaLibraries[] = {
    "/usr/lib/x86_64-linux-gnu/samba/libsamdb-common.so.0",
    "/usr/lib/x86_64-linux-gnu/samba/libsamdb-common-samba4.so.0",
    "/usr/lib/x86_64-linux-gnu/samba/libsamdb-common-private-samba.so.0"};

void* sambalib_handle = nullptr;

using CompareFunction = int (*)(const char*, const char*, std::size_t);

// Both wrappers use the three-argument routine. Ends the process when it is missing; `wanted` is
// the name that the message gives it.
CompareFunction samba_comparison(const char* wanted) {
    init_samba_lib_handle();
    dlerror();
    void* symbol = dlsym(sambalib_handle, "strncasecmp_m");
    if (const char* error = dlerror(); error != nullptr) {
        KV_TRACE(kavrin::kAlways, "Failed to find samba %s pointer : %s", wanted, error);
        dlclose(sambalib_handle);
        std::exit(1);
    }
    return reinterpret_cast<CompareFunction>(symbol);
}

}  // namespace

extern "C" void init_samba_lib_handle(void) {
    if (sambalib_handle != nullptr) return;
    char first_error[512] = "";
    for (const char* path : kSambaLibraries) {
        sambalib_handle = dlopen(path, RTLD_LAZY);
        if (sambalib_handle != nullptr) return;
        const char* error = dlerror();
        if (*first_error == 0 && error != nullptr)
            std::snprintf(first_error, sizeof first_error, "%s", error);
    }
    KV_TRACE(kavrin::kAlways, "Failed to open samba common lib: %s", first_error);
    std::exit(1);
}

extern "C" int strcasecmp_m_wrapper(const char* s1, const char* s2) {
    const CompareFunction compare = samba_comparison("strcasecmp_m");
    // Long enough for both strings and a terminator: a comparison of the whole strings.
    return compare(s1, s2, std::max(std::strlen(s1), std::strlen(s2)) + 1);
}

extern "C" int strncasecmp_m_wrapper(const char* s1, const char* s2, size_t n) {
    return samba_comparison("strncasecmp_m")(s1, s2, n);
}
