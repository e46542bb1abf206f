// Splitting a path: components with their positions, hashes and buffers, the kept oddity behind
// doubled slashes, every short path against a second reading, and memory that runs out midway.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "hand_image.h"
#include "provoke.h"
#include "support.h"

namespace {

using Names = std::vector<std::string>;

// Splits a copy that ends where the path ends, so that a sanitizer sees every read beside it.
path_array_t* split(const std::string& path, std::size_t zeros = 1) {
    std::vector<char> buffer(path.begin(), path.end());
    buffer.insert(buffer.end(), zeros, '\0');
    buffer.shrink_to_fit();
    path_array_t* array = nullptr;
    get_path_elem_smb4(buffer.data(), static_cast<unsigned>(buffer.size()), &array);
    return array;
}

Names names_of(const path_array_t* array) {
    Names names;
    for (std::uint32_t i = 0; i < array->num_elems; ++i)
        names.emplace_back(array->elems[i]->name_elem);
    return names;
}

Names split_names(const std::string& path) {
    path_array_t* array = split(path);
    if (array == nullptr) return {"no array"};
    Names names = names_of(array);
    cleanup_path_array_smb4(&array);
    return names;
}

// The rules once more, on the text without its trailing slashes.
Names reference_names(std::string path) {
    Names names;
    if (path.starts_with('/')) names.emplace_back("/");
    while (path.ends_with('/')) path.pop_back();
    std::size_t at = path.find_first_not_of('/');
    std::size_t slashes_before = 0;
    while (at != std::string::npos && at < path.size()) {
        const std::size_t end = std::min(path.find('/', at), path.size());
        const bool lost = slashes_before > 1 && end - at == 1 && end == path.size();
        if (!lost) names.push_back(path.substr(at, end - at));
        at = path.find_first_not_of('/', end);
        slashes_before = at == std::string::npos ? 0 : at - end;
    }
    return names;
}

TEST(PathSplit, GivesTheComponentsOfKnownPaths) {
    const std::pair<const char*, Names> examples[] = {
        {"/", {"/"}},
        {"///", {"/"}},
        {"/a", {"/", "a"}},
        {"/a/", {"/", "a"}},
        {"/Shared/Docs", {"/", "Shared", "Docs"}},
        {"Shared/Docs", {"Shared", "Docs"}},
        {"//Shared///Docs//", {"/", "Shared", "Docs"}},
        {"a", {"a"}},
        {"a/", {"a"}},
        {"//b", {"/", "b"}},
        {"/./..", {"/", ".", ".."}},
        {"/Café/日本", {"/", "Café", "日本"}},
    };
    for (const auto& [path, names] : examples) EXPECT_EQ(split_names(path), names) << path;
}

TEST(PathSplit, OneByteComponentBehindDoubledSlashesIsLostAtTheEndOnly) {
    EXPECT_EQ(split_names("/a//b"), (Names{"/", "a"}));
    EXPECT_EQ(split_names("/a//b/"), (Names{"/", "a"}));
    EXPECT_EQ(split_names("a///b"), (Names{"a"}));
    EXPECT_EQ(split_names("/a//bc"), (Names{"/", "a", "bc"}));
    EXPECT_EQ(split_names("/a//b/c"), (Names{"/", "a", "b", "c"}));
    EXPECT_EQ(split_names("/a/b"), (Names{"/", "a", "b"}));
}

TEST(PathSplit, EmptyPathHasNoComponents) {
    path_array_t* array = split("");
    ASSERT_NE(array, nullptr);
    EXPECT_EQ(array->num_elems, 0u);
    cleanup_path_array_smb4(&array);
    EXPECT_EQ(array, nullptr);
}

TEST(PathSplit, EveryShortPathFollowsTheRules) {
    Names level{""};
    int checked = 0;
    for (int length = 0; length <= 9; ++length) {
        Names next;
        for (const std::string& path : level) {
            ASSERT_EQ(split_names(path), reference_names(path)) << "'" << path << "'";
            ++checked;
            for (const char c : {'/', 'a', 'b'}) next.push_back(path + c);
        }
        level = std::move(next);
    }
    EXPECT_EQ(checked, 29524);
}

TEST(PathSplit, ComponentsCarryLengthPositionHashAndAWholeBuffer) {
    const std::string path = "//Shared/Café//report.txt/";
    path_array_t* array = split(path);
    ASSERT_NE(array, nullptr);
    ASSERT_EQ(names_of(array), (Names{"/", "Shared", "Café", "report.txt"}));
    for (std::uint32_t i = 0; i < array->num_elems; ++i) {
        const path_elems_t& element = *array->elems[i];
        const std::string name = element.name_elem;
        EXPECT_EQ(element.len, name.size());
        EXPECT_EQ(element.index, i);
        EXPECT_EQ(element.hashval, kvtest::reference_hash(name));
        for (std::size_t k = name.size(); k < path.size() + 1; ++k)
            EXPECT_EQ(element.name_elem[k], 0) << name << " " << k;
    }
    cleanup_path_array_smb4(&array);
}

TEST(PathSplit, RelativePathIsNumberedFromZero) {
    path_array_t* array = split("Shared/Docs");
    ASSERT_NE(array, nullptr);
    ASSERT_EQ(array->num_elems, 2u);
    EXPECT_EQ(array->elems[0]->index, 0u);
    EXPECT_EQ(array->elems[1]->index, 1u);
    cleanup_path_array_smb4(&array);
}

TEST(PathSplit, ZeroBytesBehindThePathAreSteppedOver) {
    for (const char* path : {"/a/bc/", "/", "a", ""}) {
        path_array_t* array = split(path, 40);
        ASSERT_NE(array, nullptr);
        EXPECT_EQ(names_of(array), reference_names(path)) << path;
        cleanup_path_array_smb4(&array);
    }
}

TEST(PathSplit, ManyAndLongComponentsAreKept) {
    Names expected{"/"};
    std::string path;
    for (int i = 0; i < 300; ++i) {
        expected.push_back(std::string(static_cast<std::size_t>(i % 255 + 1), 'c'));
        path += "/" + expected.back();
    }
    EXPECT_EQ(split_names(path), expected);
}

TEST(PathSplit, PathIsLeftAsItWas) {
    char path[] = "/a//bc/";
    path_array_t* array = nullptr;
    get_path_elem_smb4(path, sizeof path, &array);
    EXPECT_EQ(std::memcmp(path, "/a//bc/", sizeof path), 0);
    cleanup_path_array_smb4(&array);
}

TEST(PathSplit, MissingArgumentsLeaveTheArrayAlone) {
    char path[] = "/a";
    path_array_t sentinel{};
    path_array_t* array = &sentinel;
    get_path_elem_smb4(path, 0, &array);
    EXPECT_EQ(array, &sentinel);
    get_path_elem_smb4(nullptr, 3, &array);
    EXPECT_EQ(array, &sentinel);
    get_path_elem_smb4(path, 3, nullptr);
}

TEST(PathSplit, CleanupOfNothingDoesNothing) {
    path_array_t* array = nullptr;
    cleanup_path_array_smb4(&array);
    EXPECT_EQ(array, nullptr);
}

TEST(PathSplit, WithoutMemoryThereIsNoArrayAtAll) {
    if (!kvtest::can_refuse_memory()) GTEST_SKIP() << "the sanitizer owns the allocator";
    kvtest::ConfigTable table(0);
    char path[] = "/Shared/Docs/report.txt";
    int refusals = 0;
    for (int nth = 1; nth < 100; ++nth) {
        kvtest::clear_log();
        path_array_t sentinel{};
        path_array_t* array = &sentinel;
        {
            const kvtest::RefusedAllocation refused(nth);
            get_path_elem_smb4(path, sizeof path, &array);
        }
        if (array != nullptr) {
            EXPECT_EQ(names_of(array), (Names{"/", "Shared", "Docs", "report.txt"}));
            EXPECT_TRUE(kvtest::log_lines().empty());
            cleanup_path_array_smb4(&array);
            break;
        }
        ++refusals;
        EXPECT_EQ(kvtest::logged("Could not allocate memory for path array "), 1) << nth;
    }
    EXPECT_GE(refusals, 9);  // the array, and a record and a buffer for each component
    table.set_debug_level(-1);
    kvtest::clear_log();
    path_array_t* array = nullptr;
    {
        const kvtest::RefusedAllocation refused(1);
        get_path_elem_smb4(path, sizeof path, &array);
    }
    EXPECT_EQ(array, nullptr);
    EXPECT_TRUE(kvtest::log_lines().empty());
}

}  // namespace
