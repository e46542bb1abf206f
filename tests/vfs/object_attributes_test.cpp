// What kavrin keeps on files themselves: the mark of a fixed folder and the last modifier, both
// read and written as root and without a trace in the process's identity.
#include <sys/xattr.h>

#include <cstring>

#include "hook_fixture.h"

namespace {

// The writes of attributes, which the test binary sees on their way; one may be refused.
struct Write {
    std::string name;
    std::string value;
    int flags;
    uid_t euid;
};
std::vector<Write> writes;
bool watching = false;
int refuse_next_write = 0;

}  // namespace

extern "C" int setxattr(const char* path, const char* name, const void* value, size_t size,
                        int flags) noexcept {
    if (watching)
        writes.push_back(
            {name, std::string(static_cast<const char*>(value), size), flags, geteuid()});
    if (const int error = std::exchange(refuse_next_write, 0); error != 0) {
        errno = error;
        return -1;
    }
    return static_cast<int>(syscall(SYS_setxattr, path, name, value, size, flags));
}

namespace kvtest {
namespace {

constexpr const char* kMark = "user.kavrin.fixed_folder";
constexpr const char* kModifier = "user.kavrin.last_smb_accessed_by";

class ObjectAttributes : public HookTest {
protected:
    void SetUp() override {
        HookTest::SetUp();
        serve(kAlice);
        writes.clear();
        watching = true;
    }
    void TearDown() override {
        watching = false;
        HookTest::TearDown();
    }
    fixed_folder_res mark_of(const std::string& path) {
        fixed_folder_res result{};
        record([&] { result = is_fixed_folder(at(path).c_str()); });
        return result;
    }
    int stamp(const std::string& path, const char* user = "KvAlice") {
        int result = 77;
        writes.clear();
        record([&] { result = set_xattr_modifying_user(at(path).c_str(), user); });
        return result;
    }
};

TEST_F(ObjectAttributes, TheirNamesAreTheOnesThatOthersRead) {
    EXPECT_STREQ(XATTR_FIXED_FOLDER, kMark);
    EXPECT_STREQ(XATTR_MODIFYING_USER, kModifier);
}

TEST_F(ObjectAttributes, AnEmptyMarkMakesAFixedFolder) {
    ASSERT_NE(eaccess(at("Shared/P7").c_str(), F_OK), 0) << "the user cannot get there himself";
    EXPECT_EQ(mark_of(grid(7, 1)), NOT_FIXED_FOLDER);
    EXPECT_EQ(logged_part("failed to get xattr"), 0);
    mark_fixed(grid(7, 1));
    EXPECT_EQ(mark_of(grid(7, 1)), FIXED_FOLDER);
    EXPECT_EQ(logged_part("failed to get xattr"), 0);
    remove_attribute(grid(7, 1), kMark);
    EXPECT_EQ(mark_of(grid(7, 1)), NOT_FIXED_FOLDER);
}

TEST_F(ObjectAttributes, AMarkWithAValueIsInDoubt) {
    mark_fixed(grid(7, 1), "1");
    EXPECT_EQ(mark_of(grid(7, 1)), FOLDER_EACCES);
    EXPECT_EQ(logged_matching(log_lines(),
                              "is_fixed_folder : failed to get xattr user.kavrin.fixed_folder of " +
                                  at(grid(7, 1)) + " folder errno [0-9]+"),
              1);
    mark_fixed(grid(7, 1), "three");
    EXPECT_EQ(mark_of(grid(7, 1)), FOLDER_EACCES);
    EXPECT_EQ(logged("is_fixed_folder : failed to get xattr user.kavrin.fixed_folder of " +
                     at(grid(7, 1)) + " folder errno 34"),
              1);
}

TEST_F(ObjectAttributes, AMarkThatCannotBeReadIsInDoubt) {
    config.set_debug_level(0);
    EXPECT_EQ(mark_of("Shared/nothing"), FOLDER_EACCES);
    EXPECT_EQ(logged("is_fixed_folder : failed to get xattr user.kavrin.fixed_folder of " +
                     at("Shared/nothing") + " folder errno 2"),
              1);
}

TEST_F(ObjectAttributes, WithoutRootAMarkIsInDoubt) {
    without_root([&] {
        config.set_debug_level(0);
        EXPECT_EQ(mark_of("Private/kvalice/sub"), FOLDER_EACCES);
        EXPECT_EQ(logged("is_fixed_folder : failed to allocate perm_ctx"), 1);
        EXPECT_EQ(logged_part("failed to get xattr"), 0);
    });
}

TEST_F(ObjectAttributes, TheLastModifierIsTheNameWithoutATerminator) {
    EXPECT_EQ(stamp(file_in(7)), 0);
    EXPECT_EQ(last_modifier(file_in(7)), "KvAlice");
    EXPECT_EQ(stamp(file_in(7), "B"), 0);
    EXPECT_EQ(last_modifier(file_in(7)), "B");
    EXPECT_EQ(stamp(grid(7, 7), "DOMAIN\\Some Body"), 0);
    EXPECT_EQ(last_modifier(grid(7, 7)), "DOMAIN\\Some Body");
    EXPECT_EQ(logged_part("username = ["), 0);
}

TEST_F(ObjectAttributes, TheLastModifierIsReplacedOrElseCreatedAsRoot) {
    EXPECT_EQ(stamp(file_in(7)), 0);
    ASSERT_EQ(writes.size(), 2u);
    EXPECT_EQ(writes[0].flags, XATTR_REPLACE);
    EXPECT_EQ(writes[1].flags, XATTR_CREATE);
    for (const Write& write : writes) {
        EXPECT_EQ(write.name, kModifier);
        EXPECT_EQ(write.value, "KvAlice");
        EXPECT_EQ(write.euid, 0u);
    }
    EXPECT_EQ(stamp(file_in(7)), 0);
    ASSERT_EQ(writes.size(), 1u) << "it is there now";
    EXPECT_EQ(writes[0].flags, XATTR_REPLACE);
}

TEST_F(ObjectAttributes, ALastModifierThatCannotBeReplacedForAnotherReasonIsNotCreated) {
    config.set_debug_level(0);
    refuse_next_write = EDQUOT;
    EXPECT_EQ(stamp(file_in(7)), -1);
    EXPECT_EQ(writes.size(), 1u);
    EXPECT_EQ(last_modifier(file_in(7)), std::nullopt);
    EXPECT_EQ(logged("set_xattr_modifying_user username = [KvAlice], path = [" + at(file_in(7)) +
                     "], res=[-1], errno=[122]"),
              1);
}

TEST_F(ObjectAttributes, AMissingFileHasNoLastModifier) {
    EXPECT_EQ(stamp("Shared/nothing"), -1);
    EXPECT_EQ(writes.size(), 1u);
    EXPECT_EQ(logged("set_xattr_modifying_user username = [KvAlice], path = [" +
                     at("Shared/nothing") + "], res=[-1], errno=[2]"),
              1);
}

TEST_F(ObjectAttributes, WithoutRootNoLastModifierIsWritten) {
    without_root([&] {
        config.set_debug_level(0);
        EXPECT_EQ(stamp("Private/kvalice/doc"), -1) << "not even on the user's own file";
        EXPECT_EQ(logged("set_xattr_modifying_user failed to allocate perm_ctx"), 1);
        EXPECT_TRUE(writes.empty());
    });
}

TEST_F(ObjectAttributes, RootStaysRoot) {
    become(kRoot);
    mark_fixed(grid(7, 1));
    EXPECT_EQ(mark_of(grid(7, 1)), FIXED_FOLDER);
    EXPECT_EQ(stamp(file_in(7)), 0);
}

TEST_F(ObjectAttributes, NothingIsLeftOnTheHeap) {
    mark_fixed(grid(7, 1));
    watching = false;
    EXPECT_EQ(heap_growth([&] {
                  is_fixed_folder(at(grid(7, 1)).c_str());
                  is_fixed_folder(at(grid(7, 7)).c_str());
                  is_fixed_folder("/nowhere");
                  set_xattr_modifying_user(at(file_in(7)).c_str(), "KvAlice");
                  set_xattr_modifying_user("/nowhere", "KvAlice");
              }),
              0);
}

}  // namespace
}  // namespace kvtest
