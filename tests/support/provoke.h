// Ways to make a call fail for real: memory that runs out at a chosen allocation, folders and
// libraries that vanish, kernel limits that are reached. And a driven child whose own expectations
// count, because whatever takes the process's identity or mounts must not happen to the test.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "support.h"

namespace kvtest {

// False where a sanitizer owns the allocator or the address space: tests that need either skip.
bool can_refuse_memory();

// Makes the nth allocation from here on fail, and only that one, while it lives. Also counts.
class RefusedAllocation {
public:
    explicit RefusedAllocation(int nth);
    ~RefusedAllocation();
    RefusedAllocation(const RefusedAllocation&) = delete;
    RefusedAllocation& operator=(const RefusedAllocation&) = delete;
    // Allocations asked for since the start, the refused one included.
    static int count();
};

// From here on no page can be added to this process's address space. Call in a child.
void freeze_address_space();

// Puts an empty folder over this one, in a mount namespace of the calling process. Call in a child.
void hide_folder(const std::string& folder);

// Hides Samba's libraries and puts this file, if any, under the name that is tried first. The
// process must not have opened them before: ctest gives each case a process of its own. In a child.
void replace_samba(const std::string& library = "");

// Writes a kernel setting of the sandbox's namespaces and gives the old value back at the end.
class KernelSetting {
public:
    KernelSetting(std::string path, std::string_view value);
    ~KernelSetting();
    KernelSetting(const KernelSetting&) = delete;
    KernelSetting& operator=(const KernelSetting&) = delete;

private:
    std::string path_;
    std::string previous_;
};

// Runs `body` in a child and fails the calling test with the child's output when an expectation
// failed there or it did not end by itself.
ChildResult expect_in_child(const std::function<void()>& body);

// How many captured messages match this pattern from end to end.
int logged_matching(const std::vector<LogLine>& lines, const std::string& pattern);

}  // namespace kvtest
