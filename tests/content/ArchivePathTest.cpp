#include <gtest/gtest.h>

#include "content/ArchivePath.h"

namespace brisvale {
namespace {

struct PathCase {
    const char* input;
    const char* expected;
};

TEST(ArchivePath, NormalizesToCanonicalForm) {
    const PathCase cases[] = {
        {"shaders/main.metal", "shaders/main.metal"},
        {"/shaders//main.metal/", "shaders/main.metal"},
        {"shaders\\common\\noise.metal", "shaders/common/noise.metal"},
        {"./a/./b", "a/b"},
        {"a/../b", "b"},
        {"a/b/..", "a"},
        {"../../x.png", "x.png"},
        {"a/..", ""},
        {"A/B.TXT", "A/B.TXT"},
        {"a/.../b", "a/.../b"},
        {"a\\b/c", "a/b/c"},
        {"", ""},
        {"/", ""},
        {".", ""},
        {"\\\\", ""},
        {".hidden/a./ b /...", ".hidden/a./ b /..."},
        {"x/y/../../../z", "z"},
        {"caf\xC3\xA9/\xE2\x82\xAC.png", "caf\xC3\xA9/\xE2\x82\xAC.png"},
    };
    for (const PathCase& c : cases) {
        EXPECT_EQ(normalizeArchivePath(c.input), c.expected) << "input '" << c.input << "'";
    }
}

TEST(ArchivePath, NormalizingIsIdempotentAndKeepsNulBytes) {
    const char* inputs[] = {"a/b/c", "/x//y/../z/", "..\\..\\q", "a/./b/../c/."};
    for (const char* input : inputs) {
        const std::string once = normalizeArchivePath(input);
        EXPECT_EQ(normalizeArchivePath(once), once);
    }
    // Bytes, not C strings: an embedded NUL is part of its segment.
    EXPECT_EQ(normalizeArchivePath(std::string_view("a/b\0c", 5)), std::string("a/b\0c", 5));
}

struct JoinCase {
    const char* base;
    const char* relative;
    const char* expected;
};

TEST(ArchivePath, JoinsRelativeToTheReferringFile) {
    const JoinCase cases[] = {
        {"shaders/main.metal", "lib/noise.metal", "shaders/lib/noise.metal"},
        {"shaders/main.metal", "../common.metal", "common.metal"},
        {"shaders/main.metal", "/common.metal", "shaders/common.metal"},
        {"main.metal", "lib/noise.metal", "lib/noise.metal"},
        {"main.metal", "../x.metal", "x.metal"},
        {"a/b/c.txt", "../../../../d", "d"},
        {"assets/list.txt", "", "assets/list.txt"},
        {"assets/list.txt", "./", "assets/list.txt"},
        {"assets/list.txt", ".", "assets/list.txt"},
        {"./assets//list.txt", "", "assets/list.txt"},
        {"", "a/b", "a/b"},
        {"", "", ""},
        {"/root.txt", "x\\y", "x/y"},
        {"a\\b\\c.txt", "d.txt", "a/b/d.txt"},
        {"a/b/c.txt", "x/../../y", "a/y"},
    };
    for (const JoinCase& c : cases) {
        EXPECT_EQ(joinArchivePath(c.base, c.relative), c.expected)
            << "base '" << c.base << "' relative '" << c.relative << "'";
    }
}

TEST(ArchivePath, JoinWithRootBaseIgnoresTheBase) {
    EXPECT_EQ(joinArchivePath("top.txt", "../../deep/x"), "deep/x");
    EXPECT_EQ(joinArchivePath("dir/..", "a/b"), "a/b");
}

} // namespace
} // namespace brisvale
