#include <gtest/gtest.h>

#include "ContentTestSupport.h"
#include "content/AssetManifest.h"

namespace brisvale {
namespace {

using testing::errorOf;
using testing::TempDir;
using testing::toBytes;
using Paths = std::vector<std::string>;

// Stores `text` at `path` and lists its images.
class AssetManifestTest : public ::testing::Test {
protected:
    Paths list(std::string_view text, const std::string& path = "assets.txt") {
        archive_ = testing::loadFiles(dir_, {{path, toBytes(text)}});
        return loadImagePaths(*archive_, path);
    }

    TempDir dir_;
    std::shared_ptr<DemoArchive> archive_;
};

TEST_F(AssetManifestTest, ListsImagesInIndexOrderRelativeToTheManifest) {
    const Paths paths = list("# title cards\n"
                             "image.2.path = cards/end.png\n"
                             "image.0.path = ../logo.png\n"
                             "image.10.path=noise.png\n"
                             "credits.path = x.png\n",
                             "assets/list.txt");
    EXPECT_EQ(paths, (Paths{"logo.png", "assets/cards/end.png", "assets/noise.png"}));
}

TEST_F(AssetManifestTest, EmptyAndCommentOnlyManifestsListNothing) {
    EXPECT_TRUE(list("").empty());
    EXPECT_TRUE(list("# one\n  # two\r\n\n\n").empty());
    EXPECT_TRUE(list("no equals sign here\nimage.0.path\n").empty());
}

TEST_F(AssetManifestTest, IndicesAreSignedDecimalsAndTheLastLineWins) {
    EXPECT_EQ(list("image.1.path = first\nimage.01.path = second\n"), (Paths{"second"}));
    EXPECT_EQ(list("image.007.path = seven\n"
                   "image.-2.path = minus\n"
                   "image.3b.path = three\n"
                   "image.x.path = x\n"
                   "image..path = empty\n"
                   "image.+5.path = five\n"
                   "image. 4.path = four\n"),
              (Paths{"minus", "empty", "three", "four", "five", "seven"}));
    // Gaps close up; the same path may be listed twice.
    EXPECT_EQ(list("image.9.path = a\nimage.5.path = a\nimage.1.path = b\n"),
              (Paths{"b", "a", "a"}));
}

TEST_F(AssetManifestTest, HugeIndicesSaturateInOrder) {
    EXPECT_EQ(list("image.99999999999999999999.path = huge\n"
                   "image.9223372036854775806.path = big\n"
                   "image.-99999999999999999999.path = tiny\n"
                   "image.-9223372036854775808.path = min\n"
                   "image.0.path = zero\n"),
              (Paths{"min", "zero", "big", "huge"}));
}

TEST_F(AssetManifestTest, OnlyExactImageKeysCount) {
    EXPECT_TRUE(list("IMAGE.0.PATH = a.png\n"
                     "image.0.png = a.png\n"
                     "image.path = overlap.png\n"
                     "image.pat = a.png\n"
                     "xmage.0.path = a.png\n")
                    .empty());
}

TEST_F(AssetManifestTest, ValuesKeepHashesAndEmptyValuesNameTheManifest) {
    EXPECT_EQ(list("image.0.path = a.png # logo\n", "gfx/list.txt"), (Paths{"gfx/a.png # logo"}));
    EXPECT_EQ(list("image.0.path =\nimage.1.path = .\nimage.2.path = \t\n", "gfx/list.txt"),
              (Paths{"gfx/list.txt", "gfx/list.txt", "gfx/list.txt"}));
}

TEST_F(AssetManifestTest, UnicodeLineBreaksAndSpaces) {
    // CR alone, VT, FF, NEL, LS and PS all end lines.
    EXPECT_EQ(list("image.0.path = a\rimage.1.path = b\vimage.2.path = c\fimage.3.path = d"
                   "\xC2\x85image.4.path = e\xE2\x80\xA8image.5.path = f\xE2\x80\xA9"
                   "image.6.path = g"),
              (Paths{"a", "b", "c", "d", "e", "f", "g"}));
    // No-break space, ideographic space and em space around key and value are trimmed.
    EXPECT_EQ(list("\xC2\xA0image.0.path\xE3\x80\x80=\xE2\x80\x83pic.png\xE2\x80\xAF\n"),
              (Paths{"pic.png"}));
    // A zero-width space is not white space.
    EXPECT_EQ(list("image.0.path = pic.png\xE2\x80\x8B\n"), (Paths{"pic.png\xE2\x80\x8B"}));
}

TEST_F(AssetManifestTest, NulEndsTheTextAndByteOrderMarkIsDropped) {
    EXPECT_EQ(list(std::string("image.0.path = a\n\0image.1.path = b\n\xFF", 36)), (Paths{"a"}));
    EXPECT_EQ(list("\xEF\xBB\xBFimage.0.path = a\n"), (Paths{"a"}));
}

TEST_F(AssetManifestTest, InvalidUtf8RejectsTheWholeFile) {
    for (const char* bad : {"\xFF", "\xC3", "\xC0\xAF", "\xE0\x80\xAF", "\xED\xA0\x80",
                            "\xF4\x90\x80\x80", "\xF8\x88\x80\x80\x80", "\x80"}) {
        EXPECT_EQ(errorOf([&] { list(std::string("image.0.path = a\n# ") + bad + "\n"); }),
                  "Failed to decode asset manifest")
            << "sequence starting " << std::hex << (static_cast<unsigned char>(bad[0]) + 0);
    }
    // The largest code point and a non-character are valid.
    EXPECT_EQ(list("image.0.path = \xF4\x8F\xBF\xBF\xEF\xBF\xBE"),
              (Paths{"\xF4\x8F\xBF\xBF\xEF\xBF\xBE"}));
}

TEST_F(AssetManifestTest, MissingManifestIsAnArchiveError) {
    const auto archive = testing::loadFiles(dir_, {{"x", toBytes("")}});
    EXPECT_EQ(errorOf([&] { loadImagePaths(*archive, "./img\\list.txt"); }),
              "Missing file in demo archive: img/list.txt");
}

} // namespace
} // namespace brisvale
