// The archive writer: its gzip, what it refuses, and how it replaces the file on disk.
#include <gtest/gtest.h>

#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>
#include <filesystem>
#include <random>

#include "ContentTestSupport.h"
#include "content/ArchiveWriter.h"
#include "content/DemoArchive.h"

namespace brisvale {
namespace {

using testing::errorOf;
using testing::TempDir;
using testing::toBytes;

std::vector<std::uint8_t> randomBytes(std::size_t size, std::uint32_t seed) {
    std::mt19937 random(seed);
    std::vector<std::uint8_t> bytes(size);
    for (auto& b : bytes) {
        b = static_cast<std::uint8_t>(random());
    }
    return bytes;
}

std::vector<ArchiveFile> mixedFiles() {
    return {{"text/readme.txt", toBytes(std::string(3000, 'r') + "end")},
            {"bin/noise.bin", randomBytes(5000, 7)},
            {"empty", {}},
            {"one", toBytes("1")}};
}

TEST(ArchiveWriter, GzipIsDeterministicWithFixedHeader) {
    const auto content = toBytes(std::string(1000, 'g'));
    const auto gzip = gzipDeterministic(content);
    EXPECT_EQ(gzip, gzipDeterministic(content));
    ASSERT_GE(gzip.size(), 18u);
    EXPECT_EQ(gzip[0], 0x1F);
    EXPECT_EQ(gzip[1], 0x8B);
    EXPECT_EQ(gzip[3], 0); // no name, comment or extra field
    EXPECT_EQ(gzip[4] | gzip[5] | gzip[6] | gzip[7], 0); // mtime 0
    EXPECT_EQ(gzip[9], 255); // operating system: unknown
}

// Round trips of every layout and compression mode, and what Auto compresses, are tested through
// brisvale-pack (tests/tools/PackToolTest.cpp), which writes with this writer.

TEST(ArchiveWriter, RejectsWhatTheFormatCannotHold) {
    EXPECT_EQ(errorOf([] { writeArchive({{"a", {}}}, {1, ArchiveCompression::All}); }),
              "Version 1 archives cannot hold compressed files");
    EXPECT_EQ(errorOf([] { writeArchive({{"a", {}}}, {3, ArchiveCompression::None}); }),
              "Unsupported archive version: 3");
    EXPECT_EQ(errorOf([] { writeArchive({{"", {}}}); }), "Invalid archive file name: ''");
    // An empty list is a valid, empty container.
    EXPECT_EQ(writeArchive({}, {1, ArchiveCompression::None}).size(), 12u);
}

TEST(ArchiveWriter, FileIsReplacedWholeOrNotAtAll) {
    TempDir dir;
    const std::string path = dir.file("demo.dat");
    writeArchiveFile(path, mixedFiles());
    const auto first = testing::readBytes(path);
    EXPECT_EQ(first, writeArchive(mixedFiles()));
    EXPECT_EQ(std::filesystem::status(path).permissions() & std::filesystem::perms::others_read,
              std::filesystem::perms::others_read);

    // A refused write leaves the previous file; a successful one leaves no temporary behind.
    EXPECT_NE(errorOf([&] { writeArchiveFile(path, {{"", toBytes("x")}}); }), "<no error>");
    EXPECT_EQ(testing::readBytes(path), first);
    writeArchiveFile(path, {{"new", toBytes("x")}});
    EXPECT_EQ(DemoArchive::load(path)->readText("new"), "x");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()),
                            std::filesystem::directory_iterator()),
              1);

    const std::string nowhere = dir.file("missing/demo.dat");
    EXPECT_EQ(errorOf([&] { writeArchiveFile(nowhere, mixedFiles()); }).rfind("Failed to create ", 0),
              0u);
    EXPECT_FALSE(std::filesystem::exists(dir.path() / "missing"));
}

TEST(ArchiveWriter, OutputIsWrittenOnlyAsARegularFileThroughLinksKeepingItsMode) {
    namespace fs = std::filesystem;
    TempDir dir;
    const std::string fifo = dir.file("fifo.dat");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    EXPECT_EQ(errorOf([&] { writeArchiveFile(fifo, mixedFiles()); }),
              "Failed to write " + fifo + ": not a regular file");
    EXPECT_TRUE(fs::is_fifo(fifo));

    // A link's target is replaced, with its mode kept; the link stays a link.
    const std::string target = dir.file("real.dat");
    testing::writeBytes(target, toBytes("old"));
    fs::permissions(target, fs::perms::owner_read | fs::perms::owner_write);
    fs::create_symlink("real.dat", dir.file("link.dat"));
    writeArchiveFile(dir.file("link.dat"), mixedFiles());
    EXPECT_TRUE(fs::is_symlink(dir.file("link.dat")));
    EXPECT_EQ(testing::readBytes(target), writeArchive(mixedFiles()));
    EXPECT_EQ(fs::status(target).permissions(), fs::perms::owner_read | fs::perms::owner_write);

    // A dangling link: its target comes into being.
    fs::create_symlink(dir.file("new.dat"), dir.file("dangling.dat"));
    writeArchiveFile(dir.file("dangling.dat"), {{"a", toBytes("x")}});
    EXPECT_EQ(DemoArchive::load(dir.file("new.dat"))->readText("a"), "x");
    EXPECT_TRUE(fs::is_symlink(dir.file("dangling.dat")));
    EXPECT_EQ(std::distance(fs::directory_iterator(dir.path()), fs::directory_iterator()), 5);
}

// Runs in a child process: a file size limit makes the write fail after its first 4 KiB.
bool failedWriteKeepsOldFile(const TempDir& dir, const std::string& path,
                             const std::vector<std::uint8_t>& old) {
    std::signal(SIGXFSZ, SIG_IGN);
    const rlimit limit{4096, 4096};
    setrlimit(RLIMIT_FSIZE, &limit);
    const std::string error = errorOf([&] {
        writeArchiveFile(path, {{"big.bin", randomBytes(100000, 1)}}, {2, ArchiveCompression::None});
    });
    const bool untouched = testing::readBytes(path) == old;
    const auto files = std::distance(std::filesystem::directory_iterator(dir.path()),
                                     std::filesystem::directory_iterator());
    return error.rfind("Failed to write ", 0) == 0 && untouched && files == 1;
}

TEST(ArchiveWriterDeathTest, WriteThatFailsHalfwayKeepsTheOldFile) {
    TempDir dir;
    const std::string path = dir.file("demo.dat");
    writeArchiveFile(path, {{"old.txt", toBytes("old")}});
    const auto old = testing::readBytes(path);
    EXPECT_EXIT(std::exit(failedWriteKeepsOldFile(dir, path, old) ? 0 : 1),
                ::testing::ExitedWithCode(0), "");
    EXPECT_EQ(testing::readBytes(path), old);
}

} // namespace
} // namespace brisvale
