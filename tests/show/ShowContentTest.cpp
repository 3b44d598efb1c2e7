// The packed default show as the player reads it: its manifest, its images, and its music
// decoded from memory by the audio library with tags and cover.
#include "audio/audio.h"
#include "content/AssetManifest.h"
#include "content/DemoArchive.h"
#include "content/DemoManifest.h"
#include "content/ShaderSource.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace brisvale {
namespace {

using namespace pelora::gamedev::core;

struct PngSize {
    std::uint32_t width = 0, height = 0;
};

PngSize pngSize(const std::vector<std::uint8_t>& png) {
    static constexpr std::uint8_t kSignature[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'};
    if (png.size() < 24 || std::memcmp(png.data(), kSignature, 8) != 0) return {};
    auto be32 = [&](std::size_t at) {
        return (std::uint32_t{png[at]} << 24) | (std::uint32_t{png[at + 1]} << 16) | (std::uint32_t{png[at + 2]} << 8) | png[at + 3];
    };
    return {be32(16), be32(20)};
}

class DefaultShow : public ::testing::Test {
protected:
    void SetUp() override {
        archive_ = DemoArchive::load(BRISVALE_SHOW_DEMO_DAT);
        manifest_ = loadDemoManifest(*archive_, "demo.ini");
    }
    std::shared_ptr<DemoArchive> archive_;
    DemoManifest manifest_;
};

TEST_F(DefaultShow, ManifestNamesFilesThatAreInTheArchive) {
    for (const std::string& path : {manifest_.shaderPath, manifest_.assetManifestPath, manifest_.audioPath})
        EXPECT_TRUE(archive_->contains(path)) << path;
    EXPECT_EQ(manifest_.defaultWidth, 1920u);
    EXPECT_EQ(manifest_.defaultHeight, 1080u);
}

TEST_F(DefaultShow, ShaderSourceExpandsIntoOneTextWithAllThreeEntries) {
    std::vector<std::string> stack;
    const std::string source = loadMetalSourceWithIncludes(*archive_, manifest_.shaderPath, stack);
    EXPECT_TRUE(stack.empty());
    for (const char* entry : {"void scene_vertex()", "void scene_fragment()", "void scene_compute()"})
        EXPECT_NE(source.find(entry), std::string::npos) << entry;
    EXPECT_EQ(source.find("#include"), std::string::npos);  // every include was expanded
    EXPECT_EQ(source.find("#version"), std::string::npos);  // the player adds its own
}

TEST_F(DefaultShow, ImagesAreLargeSquarePngs) {
    const std::vector<std::string> paths = loadImagePaths(*archive_, manifest_.assetManifestPath);
    ASSERT_EQ(paths.size(), 4u);
    for (const std::string& path : paths) {
        const PngSize size = pngSize(archive_->readCopy(path));
        EXPECT_GE(size.width, 1024u) << path;
        EXPECT_EQ(size.width, size.height) << path;
    }
}

TEST_F(DefaultShow, MusicDecodesFromMemoryWithItsTagsAndCover) {
    const std::vector<std::uint8_t> bytes = archive_->readCopy(manifest_.audioPath);
    void* block = std::malloc(bytes.size());
    ASSERT_NE(block, nullptr);
    std::memcpy(block, bytes.data(), bytes.size());
    audio_song song{};
    ASSERT_EQ(audio_song_load_from_memory(&song, block, static_cast<int64_t>(bytes.size())), 0);
    EXPECT_GE(audio_song_duration(&song), 150.0);
    EXPECT_LT(audio_song_duration(&song), 160.0);  // the show ends 3.75 s after it
    EXPECT_EQ(song.title, "Lanterns over Brisvale");
    EXPECT_EQ(song.artist, "The Brisvale Synth Ensemble");
    EXPECT_EQ(song.album, "Brisvale");
    EXPECT_EQ(song.year, "2026");
    EXPECT_EQ(song.genre, "Electronic");
    const PngSize cover = pngSize(song.artwork);
    EXPECT_EQ(cover.width, 400u);
    EXPECT_EQ(cover.height, 400u);
    audio_song_destroy(&song);
}

}  // namespace
}  // namespace brisvale
