// The reader of framed records against honest and hostile files: everything before the damage is
// given, nothing behind it, and what is wrong is said with its place.
#include "record_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include "descriptor.h"
#include "event_files.h"

namespace {

using kvadmin::RecordDamage;
using kvadmin::RecordWalk;
using Kind = RecordDamage::Kind;

struct Reading {
    std::vector<std::string> paths;
    RecordWalk walk;
};

kvadmin::Descriptor file_of(const std::string& bytes) {
    kvadmin::Descriptor file(memfd_create("records", MFD_CLOEXEC));
    EXPECT_EQ(write(file.get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    return file;
}

Reading read_events(const std::string& bytes, std::uint64_t from = 0) {
    const kvadmin::Descriptor file = file_of(bytes);
    Reading reading;
    reading.walk = kvadmin::walk_records<VFSEvent>(
        file.get(), from, [&](const VFSEvent& event) { reading.paths.push_back(event.path); });
    EXPECT_EQ(reading.walk.records, reading.paths.size());
    return reading;
}

void expect_damage(const Reading& reading, Kind kind, std::uint64_t offset, const char* what) {
    ASSERT_TRUE(reading.walk.damage.has_value());
    EXPECT_EQ(reading.walk.damage->kind, kind);
    EXPECT_EQ(reading.walk.damage->offset, offset);
    EXPECT_EQ(reading.walk.damage->what, what);
    EXPECT_EQ(reading.walk.end, offset);
    EXPECT_FALSE(reading.walk.whole());
}

class RecordFile : public ::testing::Test {
protected:
    kvtest::ConfigTable table_{-1};
    const std::string one_ = kvtest::frame(kvtest::numbered_event(1));
    const std::string two_ = one_ + kvtest::frame(kvtest::numbered_event(2));
};

}  // namespace

TEST_F(RecordFile, GivesEveryRecordInOrder) {
    const Reading reading = read_events(kvtest::numbered_file(0, 5000));
    EXPECT_TRUE(reading.walk.whole());
    ASSERT_EQ(reading.paths.size(), 5000u);
    for (int i = 0; i < 5000; ++i)
        EXPECT_EQ(reading.paths[static_cast<std::size_t>(i)], kvtest::numbered_event(i).path);
}

TEST_F(RecordFile, AnEmptyFileIsWholeAndHoldsNothing) {
    const Reading reading = read_events("");
    EXPECT_TRUE(reading.walk.whole());
    EXPECT_EQ(reading.walk.records, 0u);
}

TEST_F(RecordFile, GoesOnFromAGivenRecord) {
    const Reading reading = read_events(two_, one_.size());
    EXPECT_TRUE(reading.walk.whole());
    EXPECT_EQ(reading.paths, std::vector<std::string>{kvtest::numbered_event(2).path});
    EXPECT_EQ(reading.walk.end, two_.size());
}

TEST_F(RecordFile, CutOffAnywhereGivesTheWholeRecordsBefore) {
    const std::string three = two_ + kvtest::frame(kvtest::numbered_event(3));
    const std::size_t ends[] = {0, one_.size(), two_.size(), three.size()};
    for (std::size_t length = 0; length <= three.size(); ++length) {
        const Reading reading = read_events(three.substr(0, length));
        std::size_t whole = 0;
        while (whole < 3 && ends[whole + 1] <= length) ++whole;
        EXPECT_EQ(reading.paths.size(), whole) << length;
        EXPECT_EQ(reading.walk.end, ends[whole]) << length;
        if (ends[whole] == length) {
            EXPECT_TRUE(reading.walk.whole()) << length;
        } else {
            ASSERT_TRUE(reading.walk.damage) << length;
            EXPECT_EQ(reading.walk.damage->kind, Kind::kCutOff) << length;
            EXPECT_EQ(reading.walk.damage->offset, ends[whole]) << length;
        }
    }
}

TEST_F(RecordFile, SaysHowMuchOfAHeaderIsThere) {
    expect_damage(read_events(one_ + "abc"), Kind::kCutOff, one_.size(),
                  "the record is cut off: 3 of the 8 bytes of its header are there");
}

TEST_F(RecordFile, SaysHowMuchOfAPayloadIsThere) {
    expect_damage(read_events(one_ + kvtest::raw_frame(10, STAGING_DATA_SIG, "abc")), Kind::kCutOff,
                  one_.size(),
                  "the record is cut off: its size is 10 and the file has 3 bytes left");
}

TEST_F(RecordFile, SaysWhichSignatureIsWrong) {
    expect_damage(read_events(one_ + kvtest::raw_frame(3, 0x04012011, "abc")), Kind::kSignature,
                  one_.size(), "its signature is 0x04012011 and not 0x04012010");
}

TEST_F(RecordFile, RefusesARecordOfSizeZero) {
    expect_damage(read_events(one_ + kvtest::raw_frame(0, STAGING_DATA_SIG, "") + one_),
                  Kind::kSize, one_.size(), "its size is 0, and no record is empty");
}

TEST_F(RecordFile, RefusesSizesBeyondTheFile) {
    for (const std::uint32_t size : {4U, 0x7fffffffU, 0x80000000U, 0xfffffff7U, 0xffffffffU}) {
        const Reading reading = read_events(kvtest::raw_frame(size, STAGING_DATA_SIG, "abc"));
        ASSERT_TRUE(reading.walk.damage) << size;
        EXPECT_EQ(reading.walk.damage->kind, Kind::kCutOff) << size;
        EXPECT_EQ(reading.walk.end, 0u) << size;
    }
}

TEST_F(RecordFile, RefusesARecordLargerThanAnyEventWithoutFetchingIt) {
    const kvadmin::Descriptor file = file_of(kvtest::raw_frame(0xfffffff0U, STAGING_DATA_SIG, ""));
    ASSERT_EQ(ftruncate(file.get(), off_t{1} << 33), 0);
    kvadmin::RecordReader reader(file.get());
    EXPECT_FALSE(reader.next());
    ASSERT_TRUE(reader.damage());
    EXPECT_EQ(reader.damage()->kind, Kind::kSize);
    EXPECT_EQ(reader.damage()->what,
              "its size is 4294967280, and no event is larger than 16777216");
}

TEST_F(RecordFile, TakesTheLargestRecord) {
    kvtest::EventFields fields;
    fields.path = std::string(kvadmin::kLargestPayload - 100, 'p');
    const Reading reading = read_events(one_ + kvtest::frame(fields) + one_);
    EXPECT_TRUE(reading.walk.whole());
    ASSERT_EQ(reading.paths.size(), 3u);
    EXPECT_EQ(reading.paths[1].size(), fields.path.size());
}

TEST_F(RecordFile, SaysThatAPayloadIsNoEvent) {
    const std::string other = kvtest::frame(kvtest::AuditFields{});
    expect_damage(read_events(one_ + other), Kind::kPayload, one_.size(),
                  "its payload is no VFSEvent");
    const kvadmin::Descriptor file = file_of(other + one_);
    int audits = 0;
    const RecordWalk walk =
        kvadmin::walk_records<AuditEvent>(file.get(), 0, [&](const AuditEvent&) { ++audits; });
    EXPECT_EQ(audits, 1);
    ASSERT_TRUE(walk.damage);
    EXPECT_EQ(walk.damage->offset, other.size());
    EXPECT_EQ(walk.damage->what, "its payload is no AuditEvent");
}

TEST_F(RecordFile, AnEventThatLacksARequiredFieldIsNone) {
    // Field 1, a varint, and nothing else.
    expect_damage(read_events(kvtest::raw_frame(2, STAGING_DATA_SIG, std::string("\x08\x05", 2))),
                  Kind::kPayload, 0, "its payload is no VFSEvent");
}

TEST_F(RecordFile, NoFlippedBitGivesMoreThanTheRecordsBeforeIt) {
    const std::string honest = kvtest::numbered_file(0, 3);
    const std::size_t length = honest.size() / 3;
    for (std::size_t bit = 0; bit < honest.size() * 8; ++bit) {
        std::string bytes = honest;
        bytes[bit / 8] = static_cast<char>(bytes[bit / 8] ^ (1 << bit % 8));
        const Reading reading = read_events(bytes);
        const std::size_t hit = bit / 8 / length;
        const bool in_frame = bit / 8 % length < 8;
        // Every record before the bit is there and as it was.
        ASSERT_GE(reading.paths.size(), hit) << bit;
        for (std::size_t i = 0; i < hit; ++i)
            EXPECT_EQ(reading.paths[i], kvtest::numbered_event(static_cast<int>(i)).path) << bit;
        EXPECT_LE(reading.paths.size(), 3u) << bit;
        // A changed frame is never taken for sound; a changed payload may be another event.
        if (!in_frame) continue;
        ASSERT_TRUE(reading.walk.damage) << bit;
        EXPECT_LE(reading.paths.size(), hit + 1) << bit;
        if (bit / 8 % length >= 4) {
            EXPECT_EQ(reading.walk.damage->offset, hit * length) << bit;
        }
    }
}

TEST_F(RecordFile, TellsAFailedReadFromDamage) {
    const kvadmin::Descriptor folder(open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    kvadmin::RecordReader reader(folder.get());
    if (const auto payload = reader.next()) FAIL() << "a folder has no records";
    EXPECT_FALSE(reader.damage());
    EXPECT_EQ(reader.error(), EISDIR);
}

TEST_F(RecordFile, ReadsALargeFileInLittleMemory) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizer keeps freed memory";
#endif
    // 256 MiB of records must not show in the memory of the process that reads them.
    const std::string piece = [&] {
        kvtest::EventFields fields;
        fields.path = std::string(4000, 'p');
        std::string bytes;
        while (bytes.size() < (1 << 20)) bytes += kvtest::frame(fields);
        return bytes;
    }();
    const std::string path = kvtest::make_temp_dir() + "/large";
    const kvadmin::Descriptor file(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    ASSERT_TRUE(file.valid());
    for (int i = 0; i < 256; ++i)
        ASSERT_EQ(write(file.get(), piece.data(), piece.size()),
                  static_cast<ssize_t>(piece.size()));
    rusage before{};
    getrusage(RUSAGE_SELF, &before);
    std::uint64_t records = 0;
    const RecordWalk walk =
        kvadmin::walk_records<VFSEvent>(file.get(), 0, [&](const VFSEvent&) { ++records; });
    rusage after{};
    getrusage(RUSAGE_SELF, &after);
    EXPECT_TRUE(walk.whole());
    EXPECT_EQ(walk.end, piece.size() * 256);
    EXPECT_EQ(records, kvtest::payloads_of(piece).size() * 256);
    EXPECT_LT(after.ru_maxrss - before.ru_maxrss, 8 << 10) << "KiB";
}
