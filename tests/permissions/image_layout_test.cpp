// From a summary to an image: the header that the counts lead to, the example pair's image byte for
// byte, and what the permission-load log says about the outcome.
#include <gtest/gtest.h>

#include <algorithm>

#include "load_fixture.h"

namespace kvtest {
namespace {

// "init_permbe_shm(123) ..." without the number.
std::string without_line(std::string message) {
    const std::size_t open = message.find('(');
    return message.erase(open + 1, message.find(')') - open - 1);
}

class ImageLayout : public LoadTest {};

TEST_F(ImageLayout, NullSummaryIsRefused) {
    EXPECT_EQ(init_permbe_shm(nullptr), SHM_MEMBE_ERR_BADARGS);
    ASSERT_EQ(log_lines().size(), 1u);
    EXPECT_EQ(without_line(log_lines()[0].message), "init_permbe_shm() perm be shmbe is NULL ");
    EXPECT_TRUE(reports().empty());
    config_.set_debug_level(-1);
    clear_log();
    EXPECT_EQ(init_permbe_shm(nullptr), SHM_MEMBE_ERR_BADARGS);
    EXPECT_TRUE(log_lines().empty());
}

TEST_F(ImageLayout, MissingSegmentIsRefused) {
    PairFiles files;
    const Loading loading = size_pair(files);
    clear_log();
    EXPECT_EQ(init_permbe_shm(loading.summary.get()), SHM_MEMBE_ERR_BADARGS);
    EXPECT_EQ(logged("Shared memory not present"), 1);
    EXPECT_TRUE(reports().empty());
    EXPECT_TRUE(file_exists(files.data));
}

TEST_F(ImageLayout, ExamplePairBuildsTheImageByteForByte) {
    PairFiles files;
    const Loading loading = load(files);
    EXPECT_EQ(loading.result, SHM_MEMBE_OK);
    ASSERT_EQ(loading.image.size(), 581u);
    const Bytes wanted = example_image();
    const auto [got, want] =
        std::mismatch(loading.image.begin(), loading.image.end(), wanted.begin());
    EXPECT_EQ(got, loading.image.end()) << "first difference at " << got - loading.image.begin();
    EXPECT_EQ(reports(), Reports{kLoaded});
    EXPECT_EQ(loading.err, "");
}

TEST_F(ImageLayout, NothingIsWrittenBehindTheImage) {
    PairFiles files;
    Loading loading = size_pair(files);
    Bytes segment(4096, 0xEE);
    loading.summary->membuf = segment.data();
    {
        const CapturedStream out(STDOUT_FILENO);
        EXPECT_EQ(init_permbe_shm(loading.summary.get()), SHM_MEMBE_OK);
    }
    EXPECT_TRUE(std::equal(kExampleImage.begin(), kExampleImage.end(), segment.begin()));
    EXPECT_EQ(std::count(segment.begin() + 581, segment.end(), 0xEE), 4096 - 581);
}

TEST_F(ImageLayout, HeaderFollowsFromTheCounts) {
    PairFiles files(R"({"MAPNAME":"abcdefghijklmnopqrstuvwxyz01234",)"
                    R"("VERSION":"0123456789abcdefghijklmnopqrstuvwxyz","GENERATIONNUM":7,)"
                    R"("TIMESTAMP":5000000000,"TOTALFSELEMS":1000,"TOTALACES":300,)"
                    R"("TOTALNAMELEN":9001})",
                    "");
    const Loading loading = load(files);
    EXPECT_EQ(loading.result, SHM_MEMBE_OK) << "an empty document still leaves its header";
    const Bytes& image = loading.image;
    ASSERT_EQ(image.size(), 9001u + 60000 + 176 + 3600);
    EXPECT_EQ(header_text(image, 0, 32), std::string("abcdefghijklmnopqrstuvwxyz01234") + '\0');
    EXPECT_EQ(header_text(image, 32, 36), "0123456789abcdefghijklmnopqrstuvwxyz");
    EXPECT_EQ(header_text(image, 68, 32), std::string(32, '\0'));
    const auto at = [&](std::size_t offset) { return u32_at(image.data(), offset); };
    EXPECT_EQ(at(100), 7u);
    EXPECT_EQ(at(104), 705032704u) << "low half of the time stamp";
    EXPECT_EQ(at(108), 1u) << "high half of the time stamp";
    EXPECT_EQ(at(112), 1000u);
    EXPECT_EQ(at(116), 300u);
    EXPECT_EQ(at(120), 0u);
    EXPECT_EQ(at(124), 176u);
    EXPECT_EQ(at(128), 24000u);
    EXPECT_EQ(at(132), 0u);
    EXPECT_EQ(at(136), 24176u);
    EXPECT_EQ(at(140), 21001u);
    EXPECT_EQ(at(144), 0u);
    EXPECT_EQ(at(148), 45177u);
    EXPECT_EQ(at(152), 11600u);
    EXPECT_EQ(at(156), 0u);
    EXPECT_EQ(at(160), 56777u);
    EXPECT_EQ(at(164), 16000u);
    EXPECT_EQ(at(168), 0u);
    EXPECT_EQ(at(172), 0x1EA78EAFu);
    EXPECT_EQ(std::count(image.begin() + 176, image.end(), 0), 9001 + 60000 + 3600);
}

TEST_F(ImageLayout, FailedLoadIsReported) {
    PairFiles files;
    Loading loading = size_pair(files);
    unlink(files.data.c_str());
    fill(loading);
    EXPECT_EQ(loading.result, SHM_MEMBE_ERR_BADARGS);
    EXPECT_EQ(reports(),
              (Reports{{"No such file " + files.data, MISSING_JSON_FILES, SWEEPER_LOGSEV_FATAL},
                       kNotLoaded}));
    EXPECT_EQ(u32_at(loading.image.data(), 172), KAVRIN_BE_HEADER_SIGNATURE);
    EXPECT_TRUE(file_exists(files.size));
}

}  // namespace
}  // namespace kvtest
