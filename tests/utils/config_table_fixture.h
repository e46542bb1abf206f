// The shared configuration table's segment as tests see it: found by its key alone, and gone
// before and after each test.
#pragma once

#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/shm.h>

#include <chrono>
#include <cstddef>
#include <functional>

#include "support.h"

namespace kvtest {

inline constexpr std::size_t kSlotSize = 1040;
inline constexpr std::size_t kTableSize = 19760;

inline key_t table_key() {
    return ftok("/dev/null", 3456);
}

inline int find_segment() {
    return shmget(table_key(), 0, 0);
}

inline int make_segment(std::size_t size, int mode) {
    return shmget(table_key(), size, IPC_CREAT | IPC_EXCL | mode);
}

inline double seconds_of(const std::function<void()>& call) {
    const auto start = std::chrono::steady_clock::now();
    call();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// Starts and ends without a segment and without a table in use.
class ConfigTableTest : public testing::Test {
protected:
    void SetUp() override {
        drop_segment();
        previous_ = global_params;
        global_params = nullptr;
        kvtest::clear_log();
    }
    void TearDown() override {
        drop_segment();
        global_params = previous_;
    }
    static void drop_segment() {
        const int id = find_segment();
        if (id >= 0) shmctl(id, IPC_RMID, nullptr);
    }

private:
    global_param_t* previous_ = nullptr;
};

}  // namespace kvtest
