#include <gtest/gtest.h>

#include "ContentTestSupport.h"
#include "content/DemoManifest.h"

namespace brisvale {
namespace {

using testing::errorOf;
using testing::TempDir;
using testing::toBytes;

// Loads the manifest text `ini` stored as demo.ini.
class DemoManifestTest : public ::testing::Test {
protected:
    DemoManifest load(std::string_view ini) {
        archive_ = testing::loadFiles(dir_, {{"demo.ini", toBytes(ini)}});
        return loadDemoManifest(*archive_, "demo.ini");
    }
    std::string errorFor(std::string_view ini) {
        return errorOf([&] { load(ini); });
    }

    TempDir dir_;
    std::shared_ptr<DemoArchive> archive_;
};

TEST_F(DemoManifestTest, MissingManifestGivesTheDefaultsUnchecked) {
    const auto archive = testing::loadFiles(dir_, {{"other.ini", toBytes("demo.name = X")}});
    const DemoManifest m = loadDemoManifest(*archive, "demo.ini");
    EXPECT_EQ(m.name, "Demo");
    EXPECT_EQ(m.shaderPath, "Quad.metal");
    EXPECT_EQ(m.assetManifestPath, "assets.txt");
    EXPECT_EQ(m.audioPath, "");
    EXPECT_EQ(m.defaultWidth, 1920u);
    EXPECT_EQ(m.defaultHeight, 1080u);
    EXPECT_EQ(m.defaultFps, 60u);
}

TEST_F(DemoManifestTest, ManifestIsFoundUnderAnyEquivalentPath) {
    const auto archive =
        testing::loadFiles(dir_, {{"cfg/demo.ini", toBytes("demo.timeline.audio = a.ogg")}});
    EXPECT_EQ(loadDemoManifest(*archive, "./cfg\\demo.ini").audioPath, "a.ogg");
}

TEST_F(DemoManifestTest, AudioAloneIsCompleteAndPathsAreNormalised) {
    const DemoManifest m = load("demo.timeline.audio=music/../song.m4a");
    EXPECT_EQ(m.audioPath, "song.m4a");
    EXPECT_EQ(m.shaderPath, "Quad.metal");
}

TEST_F(DemoManifestTest, ReadsEveryKey) {
    const DemoManifest m = load(
        "# show\n"
        "[demo]\n"
        "demo.name = Night Drive\n"
        "demo.timeline.shader = shaders\\main.glsl\n"
        "demo.timeline.assets = ./img//list.txt\n"
        "demo.timeline.audio = /music/track.ogg/\n"
        "demo.output.width = 1280\n"
        "demo.output.height = 720\n"
        "demo.output.fps = 30\n");
    EXPECT_EQ(m.name, "Night Drive");
    EXPECT_EQ(m.shaderPath, "shaders/main.glsl");
    EXPECT_EQ(m.assetManifestPath, "img/list.txt");
    EXPECT_EQ(m.audioPath, "music/track.ogg");
    EXPECT_EQ(m.defaultWidth, 1280u);
    EXPECT_EQ(m.defaultHeight, 720u);
    EXPECT_EQ(m.defaultFps, 30u);
}

TEST_F(DemoManifestTest, TrimsSpacesTabsAndCarriageReturnsOnly) {
    const DemoManifest m = load(" \t demo.output.fps \t = \t 30 \t \r\n"
                                "demo.timeline.audio = a.ogg\r\n"
                                "demo.name =\v X \r\n");
    EXPECT_EQ(m.defaultFps, 30u);
    EXPECT_EQ(m.name, "\v X"); // a vertical tab is not white space here
    // A lone CR does not end a line: the key below is 'demo.name = A\rdemo.output.fps'.
    EXPECT_EQ(load("demo.timeline.audio=a\ndemo.name = A\rdemo.output.fps = 0\n").name,
              "A\rdemo.output.fps = 0");
}

TEST_F(DemoManifestTest, KeysAreExactAndValuesKeepTheirText) {
    const DemoManifest m = load("demo.timeline.audio = a.ogg\n"
                                "Demo.Name = X\n"
                                "demo.name = A = B\n"
                                "demo.output.width\n"
                                "= orphan value\n"
                                "demo.name.extra = Y\n");
    EXPECT_EQ(m.name, "A = B");
    EXPECT_EQ(m.defaultWidth, 1920u);
    EXPECT_EQ(load("demo.timeline.audio = a\ndemo.name = X # note").name, "X # note");
    EXPECT_EQ(load("demo.timeline.audio = a\ndemo.name = ; x").name, "; x");
    EXPECT_EQ(load("demo.timeline.audio = a\ndemo.name =").name, "");
    EXPECT_EQ(load("demo.timeline.audio = a\n  # demo.name = Y\n").name, "Demo");
    // Later lines win.
    EXPECT_EQ(load("demo.timeline.shader = a.glsl\ndemo.timeline.audio = x\ndemo.timeline.shader = b.glsl\n").shaderPath,
              "b.glsl");
}

TEST_F(DemoManifestTest, NumbersArePlainUnsignedDecimals) {
    const std::string invalid = "Invalid numeric demo manifest value: demo.output.width";
    for (const char* value : {"1920px", "-1", "+5", "0x780", "1 920", "", "4294967296",
                              "99999999999999999999999", "1e3", "\xEF\xBC\x91"}) {
        EXPECT_EQ(errorFor(std::string("demo.timeline.audio = a\ndemo.output.width = ") + value),
                  invalid)
            << "'" << value << "'";
    }
    EXPECT_EQ(load("demo.timeline.audio = a\ndemo.output.width = 0004294967295").defaultWidth,
              4294967295u);
    EXPECT_EQ(load("demo.timeline.audio = a\ndemo.output.fps = 000000000000000000001").defaultFps,
              1u);
}

TEST_F(DemoManifestTest, NumericErrorsStopAtTheOffendingLine) {
    // The audio path comes after the bad line, so only the numeric error can be reported.
    EXPECT_EQ(errorFor("demo.output.fps = fast\ndemo.timeline.audio = a.ogg\n"),
              "Invalid numeric demo manifest value: demo.output.fps");
    EXPECT_EQ(errorFor("demo.output.height = 1e3\n"),
              "Invalid numeric demo manifest value: demo.output.height");
}

TEST_F(DemoManifestTest, ValidationRunsAfterTheWholeFile) {
    EXPECT_EQ(errorFor("demo.output.height = 0\ndemo.timeline.audio = a.ogg\n"),
              "Demo manifest output defaults must be non-zero");
    // A zero overwritten later is no error.
    EXPECT_EQ(load("demo.output.height = 0\ndemo.output.height = 5\ndemo.timeline.audio = a")
                  .defaultHeight,
              5u);
    // Missing paths (none at all in an empty file) are reported before zero defaults.
    EXPECT_EQ(errorFor(""), "Demo manifest must define shader, asset manifest, and audio paths");
    EXPECT_EQ(errorFor("demo.output.fps = 0\n"),
              "Demo manifest must define shader, asset manifest, and audio paths");
    for (const char* line : {"demo.timeline.shader = ./", "demo.timeline.assets = a/..",
                             "demo.timeline.audio = /"}) {
        EXPECT_EQ(errorFor(std::string("demo.timeline.audio = a.ogg\n") + line),
                  "Demo manifest must define shader, asset manifest, and audio paths")
            << line;
    }
}

TEST_F(DemoManifestTest, ArchiveErrorsPassThrough) {
    const auto gzip = gzipDeterministic(toBytes("demo.timeline.audio = a"));
    testing::RawArchive raw(2, 1);
    raw.record2("demo.ini", 12 + 32 + 8, gzip.size(), 5, DemoArchive::kGzipFlag).raw(gzip);
    const auto archive = testing::loadBytes(dir_, raw.bytes());
    EXPECT_EQ(errorOf([&] { loadDemoManifest(*archive, "demo.ini"); }),
              "Failed to decompress demo archive entry");
}

} // namespace
} // namespace brisvale
