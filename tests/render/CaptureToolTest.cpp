// brisvale-capture run as a program on lavapipe: PNG files of the right size and content, and
// one clear line with a non-zero exit on errors.

#include "RenderTestSupport.h"
#include "content/AtomicFile.h"

#define STB_IMAGE_IMPLEMENTATION
#include <stb/stb_image.h>

#include <array>
#include <cstdio>
#include <sys/stat.h>
#include <sys/wait.h>

namespace brisvale::testing {
namespace {

struct RunResult {
    int status = -1;
    std::string output;
};

RunResult runCapture(const std::string& arguments) {
    const std::string command = std::string(BRISVALE_CAPTURE_TOOL) + " " + arguments + " 2>&1";
    RunResult result;
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return result;
    std::array<char, 4096> buffer{};
    while (std::size_t n = std::fread(buffer.data(), 1, buffer.size(), pipe)) result.output.append(buffer.data(), n);
    const int status = pclose(pipe);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

class CaptureTool : public ::testing::Test {
protected:
    // `moreIni` is appended to the show manifest (later keys win); `damageImage` breaks the
    // image's gzip stream.
    std::string writeShow(const ShowFiles& files, const std::string& moreIni = "", bool damageImage = false) {
        std::vector<ArchiveFile> entries;
        if (files.withShader) entries.push_back({"scene.glsl", toBytes(files.shader)});
        entries.push_back({"assets.txt", toBytes("image.0.path = a.png\n")});
        entries.push_back({"demo.ini", toBytes("demo.name = T\ndemo.timeline.shader = scene.glsl\n"
                                               "demo.timeline.assets = assets.txt\ndemo.timeline.audio = none.wav\n"
                                               "demo.output.width = 40\ndemo.output.height = 30\n"
                                               "demo.output.fps = 10\n" + moreIni)});
        entries.push_back({"a.png", solidPng(2, 2, 255, 255, 255, 255)});
        std::vector<std::uint8_t> bytes = writeArchive(entries, {2, damageImage ? ArchiveCompression::All
                                                                              : ArchiveCompression::Auto});
        if (damageImage) bytes[bytes.size() - 3] ^= 0x55;  // the size in the last gzip trailer
        const std::string path = dir_.file("show.dat");
        replaceFileAtomically(path, bytes);
        return path;
    }
    TempDir dir_;
};

TEST_F(CaptureTool, WritesOnePngPerTimeAtTheRequestedSize) {
    const std::string archive = writeShow({});
    const std::string out = dir_.file("out");
    const RunResult run = runCapture(archive + " --size 64x64 --at 1,50,150 -o " + out);
    ASSERT_EQ(run.status, 0) << run.output;
    // Rectangle B's sample point: green under the quad in the intro, the quad alone in the
    // middle, green with depth 0.75 composited in the finale.
    const std::vector<std::pair<std::string, Pixel>> wanted{{"t1.000.png", expected(0.0f, 0.5f, 0.5f)},
                                                            {"t50.000.png", expected(0.01f, 0.01f, 0.5125f)},
                                                            {"t150.000.png", expected(0.375f, 0.5f, 0.0f)}};
    for (const auto& [name, colour] : wanted) {
        int width = 0, height = 0, channels = 0;
        unsigned char* pixels = stbi_load((out + "/" + name).c_str(), &width, &height, &channels, 4);
        ASSERT_NE(pixels, nullptr) << name;
        EXPECT_EQ(width, 64);
        EXPECT_EQ(height, 64);
        const std::vector<std::uint8_t> rgba(pixels, pixels + 64 * 64 * 4);
        stbi_image_free(pixels);
        EXPECT_TRUE(near(pixelAt(rgba, 64, 40, 30), colour)) << name;
    }
}

TEST_F(CaptureTool, ARangeWritesANumberedSequenceAtTheShowsDefaultSize) {
    const std::string archive = writeShow({});
    const std::string out = dir_.file("seq");
    const RunResult run = runCapture(archive + " --from 9 --to 9.5 --fps 4 -o " + out);
    ASSERT_EQ(run.status, 0) << run.output;
    for (int i = 0; i < 3; ++i) {
        char name[32];
        std::snprintf(name, sizeof(name), "/frame-%05d.png", i);
        int width = 0, height = 0, channels = 0;
        ASSERT_TRUE(stbi_info((out + name).c_str(), &width, &height, &channels)) << name;
        EXPECT_EQ(width, 40);
        EXPECT_EQ(height, 30);
    }
    EXPECT_FALSE(std::filesystem::exists(out + "/frame-00003.png"));
}

TEST_F(CaptureTool, ContentErrorsNameTheShowAndTheFile) {
    ShowFiles files;
    files.withShader = false;
    std::string archive = writeShow(files);
    RunResult run = runCapture(archive + " --at 1 -o " + dir_.file("never"));
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.output, "brisvale-capture: " + archive + ": Missing file in demo archive: scene.glsl\n");
    EXPECT_FALSE(std::filesystem::exists(dir_.file("never")));

    files.withShader = true;
    files.shader = "#include \"./scene.glsl\"\n";
    archive = writeShow(files);
    run = runCapture(archive + " --at 1 -o " + dir_.file("never"));
    EXPECT_EQ(run.output, "brisvale-capture: " + archive + ": scene.glsl -> scene.glsl: Recursive Metal include detected\n");

    archive = writeShow({}, "demo.output.fps = 1x\n");
    run = runCapture(archive + " --at 1 -o " + dir_.file("never"));
    EXPECT_EQ(run.output, "brisvale-capture: " + archive + ": demo.ini: Invalid numeric demo manifest value: demo.output.fps\n");

    archive = writeShow({}, "", true);
    run = runCapture(archive + " --at 1 -o " + dir_.file("never"));
    EXPECT_EQ(run.output, "brisvale-capture: " + archive + ": a.png: Failed to decompress demo archive entry\n");
}

TEST_F(CaptureTool, WhatCannotBeCapturedIsAUsageErrorAndOutputsMustBeRegularFiles) {
    // Taken as it stood, this default size brought the driver down.
    const std::string archive = writeShow({}, "demo.output.width = 65536\ndemo.output.height = 65536\n");
    RunResult run = runCapture(archive + " --at 1 -o " + dir_.file("never"));
    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.output, "brisvale-capture: The show's default size 65536x65536 is out of range (1 to 16384 per side); give --size\n");
    run = runCapture(archive + " --size 8x8 --from 0 --to 3e38 --fps 1 -o " + dir_.file("never"));
    EXPECT_EQ(run.status, 2);
    EXPECT_FALSE(std::filesystem::exists(dir_.file("never")));

    const std::string out = dir_.file("out");
    std::filesystem::create_directories(out);
    ASSERT_EQ(mkfifo((out + "/t1.000.png").c_str(), 0600), 0);
    const FifoPeer peer(out + "/t1.000.png");  // a writer that waits for a reader gets one, and fails
    run = runCapture(archive + " --size 8x8 --at 1 -o " + out);
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.output.find("\nbrisvale-capture: Failed to write " + out + "/t1.000.png: not a regular file\n"),
              std::string::npos) << run.output;
}

TEST_F(CaptureTool, BadArgumentsAndMissingArchivesFail) {
    RunResult run = runCapture("--at 1 -o " + dir_.file("x"));
    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.output, "brisvale-capture: No demo archive given\n");
    run = runCapture(dir_.file("absent.dat") + " --at 1 -o " + dir_.file("x"));
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.output, "brisvale-capture: Failed to open demo archive: " + dir_.file("absent.dat") + "\n");
}

} // namespace
} // namespace brisvale::testing
