// Four processes that read through a thousand swaps: no image may ever be torn or older than the
// one before.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <atomic>
#include <new>

#include "ipc_probe.h"

namespace kvtest {
namespace {

class SwapStress : public SwapTest {};

constexpr int kReaders = 4;
constexpr int kSwaps = 1000;
constexpr std::size_t kPiece = 4000;

// One generation of a map: its number stands in the header, in every name, and in the exact sum of
// all bytes that is kept in the header's time stamp.
class Generations {
public:
    Generations() {
        Node root{"/", {{1001, 7}}, {}, {}};
        for (int i = 0; i < 200; ++i)
            root.children.push_back({"g00000000-" + std::to_string(1000 + i), {}, {}, {}});
        image_ = build_image(root);
    }
    std::size_t size() const { return image_.size(); }
    void make(std::uint32_t generation, std::uint8_t* place) {
        std::memcpy(place, image_.data(), image_.size());
        auto* header = reinterpret_cast<kavrin_be_header_t*>(place);
        header->generationnum = generation;
        std::snprintf(header->mapname, sizeof header->mapname, "g%08u", generation);
        for_each_name(place, [&](char* name) {
            char digits[9];
            std::snprintf(digits, sizeof digits, "%08u", generation);
            std::memcpy(name + 1, digits, 8);
        });
        header->timestamp = sum(place, image_.size());
    }
    // The generation that every mark of the image agrees on, or 0.
    static std::uint32_t generation_of(void* address) {
        auto* place = static_cast<std::uint8_t*>(address);
        const auto* header = static_cast<const kavrin_be_header_t*>(address);
        if (header->signature != KAVRIN_BE_HEADER_SIGNATURE) return 0;
        const std::uint32_t generation = header->generationnum;
        char mark[10];
        std::snprintf(mark, sizeof mark, "g%08u", generation);
        bool agree = std::memcmp(header->mapname, mark, sizeof mark) == 0;
        int names = 0;
        for_each_name(place, [&](const char* name) {
            agree = agree && std::memcmp(name, mark, 9) == 0;
            ++names;
        });
        agree = agree && names == 200;
        agree = agree && header->timestamp == sum(place, header->list_offset + header->list_size);
        return agree ? generation : 0;
    }

private:
    // Every name but the root's, as far as the records can be followed.
    template <typename Each>
    static void for_each_name(std::uint8_t* place, Each each) {
        const auto* header = reinterpret_cast<const kavrin_be_header_t*>(place);
        const std::uint8_t* end = place + header->acl_offset;
        std::uint8_t* record = place + header->nameelem_offset + 14;
        while (record + 12 < end && u32_at(record, 4) == NAMESIG) {
            each(reinterpret_cast<char*>(record) + 12);
            record += 13 + (u32_at(record, 0) & 0xFFFF);
        }
    }
    static std::int64_t sum(const std::uint8_t* place, std::size_t size) {
        std::uint64_t total = 1469598103934665603u;
        for (std::size_t i = 0; i < size; ++i) {
            if (i < 104 || i >= 112) total = (total ^ place[i]) * 1099511628211u;
        }
        return static_cast<std::int64_t>(total >> 1);
    }
    Bytes image_;
};

// What a reader tells the test, in memory that both share.
struct ReaderReport {
    std::atomic<std::uint64_t> read;       // images read and found whole
    std::atomic<std::uint64_t> seen;       // different generations among them
    std::atomic<std::uint64_t> torn;       // images whose marks disagree
    std::atomic<std::uint64_t> backwards;  // older than the one before
    std::atomic<std::uint64_t> refused;    // no image within three attempts
    std::atomic<std::uint64_t> swapped;    // swaps noticed between look-up and attach
};

void read_until(const std::atomic<bool>& stop, ReaderReport& report) {
    std::uint32_t before = 0;
    while (!stop.load()) {
        void* address = get_perm_map_addr();
        report.swapped += static_cast<std::uint64_t>(logged_part("swapped out, retry"));
        clear_log();
        if (address == nullptr) {
            ++report.refused;
            continue;
        }
        const std::uint32_t generation = Generations::generation_of(address);
        put_perm_map_addr(address);
        if (generation == 0) {
            ++report.torn;
            continue;
        }
        if (generation < before) ++report.backwards;
        if (generation != before) ++report.seen;
        before = generation;
        ++report.read;
    }
}

TEST_F(SwapStress, FourProcessesReadThroughAThousandSwaps) {
    struct Board {
        std::atomic<bool> stop;
        ReaderReport readers[kReaders];
    };
    void* memory =
        mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(memory, MAP_FAILED);
    config_.set_debug_level(10);
    auto* board = new (memory) Board{};
    Generations generations;
    const auto publish_generation = [&](std::uint32_t generation) {
        const int current = get_current_perm_table_index_for_fill();
        int id = -1;
        void* place = create_perm_map_shm(get_next_perm_table_key(current),
                                          static_cast<unsigned>(generations.size()), &id);
        ASSERT_NE(place, nullptr);
        // In pieces, so that who attaches too early meets half an image.
        Bytes image(generations.size());
        generations.make(generation, image.data());
        for (std::size_t done = 0; done < image.size(); done += kPiece) {
            std::memcpy(static_cast<char*>(place) + done, image.data() + done,
                        std::min(kPiece, image.size() - done));
            usleep(20);
        }
        ASSERT_EQ(swap_maps(current), 0);
        ASSERT_EQ(map_initialized(1), 0);
        put_perm_map_addr(place);
    };
    publish_generation(1);
    pid_t readers[kReaders];
    for (int i = 0; i < kReaders; ++i) {
        readers[i] = fork();
        ASSERT_GE(readers[i], 0);
        if (readers[i] == 0) {
            read_until(board->stop, board->readers[i]);
            _exit(0);
        }
    }
    for (const ReaderReport& report : board->readers)
        while (report.read.load() == 0 && report.torn.load() == 0) usleep(100);
    for (std::uint32_t generation = 2; generation < 2 + kSwaps; ++generation) {
        publish_generation(generation);
        if (HasFatalFailure()) break;
        if (generation % 8 == 0) usleep(generation % 7 * 300);  // the others follow at once
    }
    usleep(20000);
    board->stop = true;
    std::uint64_t read = 0;
    std::uint64_t swapped = 0;
    for (int i = 0; i < kReaders; ++i) {
        int status = -1;
        ASSERT_EQ(waitpid(readers[i], &status, 0), readers[i]);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "reader " << i;
        const ReaderReport& report = board->readers[i];
        EXPECT_EQ(report.torn.load(), 0u) << "reader " << i;
        EXPECT_EQ(report.backwards.load(), 0u) << "reader " << i;
        EXPECT_GT(report.seen.load(), 50u) << "a reader that saw too few swaps proves nothing";
        // Three attempts in a row can each fall between a swap and its look-up, if rarely.
        EXPECT_LE(report.refused.load() * 100, report.read.load()) << "reader " << i;
        read += report.read.load();
        swapped += report.swapped.load();
    }
    RecordProperty("images_read", std::to_string(read));
    RecordProperty("swaps_noticed_while_attaching", std::to_string(swapped));
    munmap(memory, sizeof(Board));
}

// The marks themselves: a changed byte anywhere is noticed.
TEST_F(SwapStress, TornGenerationWouldBeNoticed) {
    Generations generations;
    Bytes one(generations.size());
    Bytes two(generations.size());
    generations.make(41, one.data());
    generations.make(42, two.data());
    EXPECT_EQ(Generations::generation_of(one.data()), 41u);
    EXPECT_EQ(Generations::generation_of(two.data()), 42u);
    int torn_images = 0;
    for (std::size_t cut = 1; cut < one.size(); cut += 97) {
        Bytes torn = one;
        std::copy_n(two.begin(), cut, torn.begin());
        if (torn == one || torn == two) continue;  // what lies there is the same in both
        EXPECT_EQ(Generations::generation_of(torn.data()), 0u) << cut;
        ++torn_images;
    }
    EXPECT_GT(torn_images, 20);
}

}  // namespace
}  // namespace kvtest
