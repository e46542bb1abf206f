// The rules that look at nothing but paths and flags: joined paths, what open flags ask for, move
// or rename, what nobody deletes, the last component.
#include <fcntl.h>

#include "hook_fixture.h"

namespace kvtest {
namespace {

class PathRules : public testing::Test {
protected:
    // A text that a call returned, freed.
    static std::optional<std::string> text(char* result) {
        if (result == nullptr) return std::nullopt;
        std::string copy = result;
        free(result);
        return copy;
    }
    // Calls the hook with each of its allocations refused in turn and collects what it said.
    template <typename Call>
    static std::vector<std::string> said_without_memory(const Call& hook) {
        std::vector<std::string> said;
        for (int nth = 1;; ++nth) {
            clear_log();
            int result = 0;
            bool refused = false;
            {
                RefusedAllocation watch(nth);
                result = hook();
                refused = RefusedAllocation::count() >= nth;
            }
            if (!refused) return said;
            EXPECT_EQ(result, -1) << "allocation " << nth;
            for (const LogLine& line : log_lines()) said.push_back(line.message);
        }
    }

    ConfigTable config{10};
};

TEST_F(PathRules, AFullPathIsFolderSlashAndPath) {
    EXPECT_EQ(text(get_full_path("/srv/share", "Shared/a b")), "/srv/share/Shared/a b");
    EXPECT_EQ(text(get_full_path("/srv/share/", "/x")), "/srv/share///x");
    EXPECT_EQ(text(get_full_path("", "")), "/");
    const std::string lengthy(9000, 'x');
    EXPECT_EQ(text(get_full_path(lengthy.c_str(), lengthy.c_str())), lengthy + "/" + lengthy);
}

TEST_F(PathRules, AFullPathWithoutMemoryIsReportedAndNull) {
    if (!can_refuse_memory()) GTEST_SKIP();
    char* result = nullptr;
    int error = 0;
    {
        RefusedAllocation first(1);
        result = get_full_path("/srv", "x");
        error = errno;
    }
    EXPECT_EQ(text(result), std::nullopt);
    EXPECT_EQ(error, ENOMEM);
    EXPECT_EQ(logged("calloc failed. errno = 12(Cannot allocate memory)"), 1);
}

TEST_F(PathRules, OpenFlagsAskForTheStrongestModeTheyName) {
    const int flags[] = {O_TRUNC, O_CREAT, O_WRONLY, O_RDWR, O_APPEND, O_EXCL, O_DIRECTORY};
    for (unsigned set = 0; set < 1u << std::size(flags); ++set) {
        int combined = 0;
        for (std::size_t i = 0; i < std::size(flags); ++i)
            if ((set >> i & 1) != 0) combined |= flags[i];
        e_open_mode_t expected = OPENMODE_READ;
        if ((combined & O_TRUNC) != 0)
            expected = OPENMODE_WRITE;
        else if ((combined & O_CREAT) != 0)
            expected = OPENMODE_CREATE;
        else if ((combined & (O_WRONLY | O_RDWR | O_APPEND)) != 0)
            expected = OPENMODE_WRITE;
        clear_log();
        EXPECT_EQ(mode2kavrinmode(combined), expected) << "flags " << combined;
        EXPECT_EQ(logged("mode2kavrinmode O_TRUNC set returning OPENMODE_WRITE"),
                  (combined & O_TRUNC) != 0 ? 1 : 0);
    }
}

struct Pair {
    const char* source;
    const char* target;
    int expected;
};

TEST_F(PathRules, AMoveChangesTheParent) {
    const Pair pairs[] = {
        {"a", "b", 0},
        {"a", "a", 0},
        {"Shared/a", "Shared/b", 0},
        {"Shared/a", "Private/a", 1},
        {"Shared/a", "a", 1},
        {"a", "Shared/a", 1},
        {"Shared/x/a", "Shared/a", 1},
        {"Shared/a", "Shared/x/a", 1},
        {"Shared/x/a", "Shared/y/a", 1},
        {"x/Shared/a", "y/Shared/a", 1},
        {"Shared/x/a", "Shared/x/a/b", 1},
        {"Shared/x//a/", "Shared/x/b", 0},
        {"Shared/xx/a", "Shared/xxx/a", 1},
    };
    for (const Pair& pair : pairs) {
        std::string source = pair.source;
        std::string target = pair.target;
        EXPECT_EQ(is_amove(source.data(), target.data()), pair.expected)
            << pair.source << " -> " << pair.target;
        EXPECT_EQ(source, pair.source);
        EXPECT_EQ(target, pair.target);
    }
}

TEST_F(PathRules, ParentsAreComparedByLengthAndHashNotByName) {
    // The hash passes over letters outside ASCII and ignores case.
    std::string umlaut = "Shared/M\xc3\xbcller/a";
    std::string accent = "Shared/M\xc3\xa9ller/a";
    EXPECT_EQ(is_amove(umlaut.data(), accent.data()), 0);
    std::string upper = "SHARED/FOLDER/a";
    std::string lower = "shared/folder/b";
    EXPECT_EQ(is_amove(upper.data(), lower.data()), 0);
    // The same hash, another length.
    std::string longer = "Shared/M\xc3\xbc\xc3\xbcller/a";
    ASSERT_EQ(permbe_fname_hash("M\xc3\xbcller", 7), permbe_fname_hash("M\xc3\xbc\xc3\xbcller", 9));
    EXPECT_EQ(is_amove(umlaut.data(), longer.data()), 1);
}

TEST_F(PathRules, WithoutBothNamesNothingCanBeTold) {
    std::string name = "Shared/a";
    EXPECT_EQ(is_amove(nullptr, name.data()), -1);
    EXPECT_EQ(logged("Invalid src or dest name, src NULL dst Shared/a"), 1);
    EXPECT_EQ(is_amove(name.data(), nullptr), -1);
    EXPECT_EQ(logged("Invalid src or dest name, src Shared/a dst NULL"), 1);
    EXPECT_EQ(is_amove(nullptr, nullptr), -1);
    EXPECT_EQ(logged("Invalid src or dest name, src NULL dst NULL"), 1);
}

TEST_F(PathRules, WithoutMemoryNothingCanBeTold) {
    if (!can_refuse_memory()) GTEST_SKIP();
    std::string source = "Shared/one/a";
    std::string target = "Shared/two/b";
    config.set_debug_level(0);
    const std::vector<std::string> said =
        said_without_memory([&] { return is_amove(source.data(), target.data()); });
    const auto count = [&](const std::string& message) {
        return std::count(said.begin(), said.end(), message);
    };
    EXPECT_EQ(count("Invalid parent src Shared/one/a"), 1);
    EXPECT_EQ(count("Invalid parent dst Shared/two/b"), 1);
    EXPECT_GE(count("Could not convert src path Shared/one"), 1);
    EXPECT_GE(count("Could not convert dst path Shared/two"), 1);
}

TEST_F(PathRules, NobodyDeletesPrivateOrAUsersOwnFolder) {
    for (const char* path : {"Private", "Private/a", "Private/alice", "Private/alice smith"})
        EXPECT_EQ(is_deleteable(path), 0) << path;
    for (const char* path :
         {"Private/", "Private/alice/doc", "Private/alice/", "Private//", "Private//x", "private",
          "private/alice", "PRIVATE", "Privat", "Privates", "Privates/alice", "Shared",
          "Shared/Private", "Shared/Private/alice", "/Private", "/Private/alice", "./Private", "",
          "."})
        EXPECT_EQ(is_deleteable(path), 1) << path;
    EXPECT_EQ(is_deleteable(nullptr), 1);
}

TEST_F(PathRules, ADeniedDeletionOfAUsersFolderIsTold) {
    is_deleteable("Private/alice");
    EXPECT_EQ(logged("is_deleteable:  path_to_delete=Private/alice not allowed"), 1);
    clear_log();
    is_deleteable("Private/alice/doc");
    is_deleteable("Private");
    EXPECT_EQ(logged_part("not allowed"), 0);
}

TEST_F(PathRules, TheChildIsTheLastComponentWithoutSlashes) {
    EXPECT_EQ(text(child_from_path(nullptr)), std::nullopt);
    EXPECT_EQ(text(child_from_path("file")), "file");
    EXPECT_EQ(text(child_from_path("")), "");
    EXPECT_EQ(text(child_from_path("Shared/a/file")), "file");
    EXPECT_EQ(text(child_from_path("/file")), "file");
    EXPECT_EQ(text(child_from_path("Shared/folder/")), "folder");
    EXPECT_EQ(text(child_from_path("Shared//folder///")), "folder");
    EXPECT_EQ(text(child_from_path("folder/")), "folder");
}

TEST_F(PathRules, TheChildWithoutMemoryIsNull) {
    if (!can_refuse_memory()) GTEST_SKIP();
    char* result = nullptr;
    {
        RefusedAllocation first(1);
        result = child_from_path("a/b");
    }
    EXPECT_EQ(result, nullptr);
}

}  // namespace
}  // namespace kvtest
