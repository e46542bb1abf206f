// What an SMB create call asks for: every disposition with every state of the file and every
// access, and the trace of each row.
#include "hook_fixture.h"

namespace kvtest {
namespace {

constexpr auto kLeft = static_cast<e_fsop_type_t>(99);
constexpr auto kLeftMode = static_cast<e_open_mode_t>(98);

struct Row {
    std::uint32_t disposition;
    int exists;  // 2: any
    int writes;  // 2: any
    e_fsop_type_t op;
    e_open_mode_t mode;
    const char* name;
    const char* op_name;
};
constexpr Row kRows[] = {
    {0, 1, 2, FSOP_OPEN_WRITE, OPENMODE_WRITE, "FILE_SUPERSEDE", "FSOP_WRITE"},
    {0, 0, 2, FSOP_CREATE, OPENMODE_WRITE, "FILE_SUPERSEDE", "FSOP_CREATE"},
    {1, 2, 0, FSOP_OPEN_READ, OPENMODE_READ, "FILE_OPEN", "FSOP_OPEN_READ"},
    {1, 2, 1, FSOP_OPEN_WRITE, OPENMODE_WRITE, "FILE_OPEN", "FSOP_WRITE"},
    {2, 2, 2, FSOP_CREATE, OPENMODE_WRITE, "FILE_CREATE", "FSOP_CREATE"},
    {3, 1, 2, FSOP_OPEN_WRITE, OPENMODE_WRITE, "FILE_OPEN_IF", "FSOP_WRITE"},
    {3, 0, 2, FSOP_CREATE, OPENMODE_WRITE, "FILE_OPEN_IF", "FSOP_CREATE"},
    {4, 1, 2, FSOP_OPEN_WRITE, OPENMODE_WRITE, "FILE_OVERWRITE", "FSOP_WRITE"},
    {4, 0, 2, kLeft, OPENMODE_WRITE, "FILE_OVERWRITE", nullptr},
    {5, 1, 2, FSOP_OPEN_WRITE, OPENMODE_WRITE, "FILE_OVERWRITE_IF", "FSOP_WRITE"},
    {5, 0, 2, FSOP_CREATE, OPENMODE_WRITE, "FILE_OVERWRITE_IF", "FSOP_CREATE"},
};

const Row& row_of(std::uint32_t disposition, bool exists, bool writes) {
    for (const Row& row : kRows)
        if (row.disposition == disposition && (row.exists == 2 || row.exists == int(exists)) &&
            (row.writes == 2 || row.writes == int(writes)))
            return row;
    throw std::logic_error("no row");
}

class CreateDisposition : public testing::Test {
protected:
    void ask(std::uint32_t disposition, int exists, int writes) {
        op = kLeft;
        mode = kLeftMode;
        clear_log();
        _get_op_create_file("Shared/a", disposition, 0x40, exists, writes, &op, &mode);
    }
    e_fsop_type_t op{};
    e_open_mode_t mode{};
    ConfigTable config{5};
};

TEST_F(CreateDisposition, EachAsksForAnOperationAndAMode) {
    for (std::uint32_t disposition = 0; disposition <= 5; ++disposition)
        for (const int exists : {0, 1, 7})
            for (const int writes : {0, 1, -1}) {
                const Row& row = row_of(disposition, exists != 0, writes != 0);
                ask(disposition, exists, writes);
                EXPECT_EQ(op, row.op) << disposition << " " << exists << " " << writes;
                EXPECT_EQ(mode, row.mode) << disposition << " " << exists << " " << writes;
            }
}

TEST_F(CreateDisposition, UnknownOnesLeaveOperationAndModeAlone) {
    for (const std::uint32_t disposition : {6u, 7u, 255u, 0x80000000u, 0xFFFFFFFFu})
        for (const int exists : {0, 1})
            for (const int writes : {0, 1}) {
                ask(disposition, exists, writes);
                EXPECT_EQ(op, kLeft) << disposition;
                EXPECT_EQ(mode, kLeftMode) << disposition;
            }
}

TEST_F(CreateDisposition, EachRowSaysWhatItDecided) {
    ask(3, 0, 0);
    EXPECT_EQ(
        logged("kavrin:_get_op_create_file ENTRY path=Shared/a is file create_disposition=0x3 "
               "create_options=0x40got FILE_OPEN_IF setting FSP_OP=FSOP_CREATE as file does "
               "not exist."),
        1);
    for (const Row& row : kRows) {
        ask(row.disposition, row.exists == 1 ? 1 : 0, row.writes == 1 ? 1 : 0);
        ASSERT_EQ(log_lines().size(), 1u);
        const std::string start =
            "kavrin:_get_op_create_file ENTRY path=Shared/a is file create_disposition=0x" +
            std::to_string(row.disposition) + " create_options=0x40got " + row.name + " ";
        EXPECT_TRUE(log_lines()[0].message.starts_with(start)) << log_lines()[0].message;
        if (row.op_name == nullptr) continue;
        EXPECT_EQ(logged_part(std::string("setting FSP_OP=") + row.op_name + " "), 1)
            << log_lines()[0].message;
    }
}

TEST_F(CreateDisposition, TheTraceIsOneForLevelsAboveFour) {
    config.set_debug_level(4);
    for (const Row& row : kRows) {
        ask(row.disposition, row.exists, row.writes);
        EXPECT_TRUE(log_lines().empty());
    }
}

}  // namespace
}  // namespace kvtest
