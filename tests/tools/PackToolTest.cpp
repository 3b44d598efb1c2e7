// Runs the built brisvale-pack on real directories and containers: round trips in every layout
// and compression mode, determinism, listing, each refusal with its exit status, the show
// check; and the directory source, which must read a directory as the packer packs it.
//
// [SECTION] Round trips
// [SECTION] Listing
// [SECTION] Refusals
// [SECTION] Packing what lies inside
// [SECTION] Checking

#include <gtest/gtest.h>

#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/wait.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <sstream>

#include "content/ContentTestSupport.h"
#include "content/ArchiveWriter.h"
#include "content/DemoArchive.h"
#include "content/DirectoryFiles.h"
#include "content/ShaderSource.h"
#include "content/ShowSource.h"

extern char** environ;

namespace brisvale {
namespace {

namespace fs = std::filesystem;
using testing::errorOf;
using testing::readBytes;
using testing::TempDir;
using testing::toBytes;
using testing::writeBytes;

struct Result {
    int status = -1;
    std::string out;
    std::string err;
    std::uint64_t maxResidentBytes = 0;
};

std::string readText(const std::string& path) {
    const auto bytes = readBytes(path);
    return std::string(bytes.begin(), bytes.end());
}

// Runs brisvale-pack with `args`, capturing its exit status and both output streams.
Result pack(const TempDir& scratch, std::vector<std::string> args) {
    args.insert(args.begin(), BRISVALE_PACK_EXE);
    std::vector<char*> argv;
    for (std::string& arg : args) {
        argv.push_back(arg.data());
    }
    argv.push_back(nullptr);
    const std::string outPath = scratch.file("stdout.txt");
    const std::string errPath = scratch.file("stderr.txt");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, 2, errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    pid_t pid = 0;
    const int spawned = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    Result result;
    if (spawned != 0) {
        ADD_FAILURE() << "cannot run " << argv[0];
        return result;
    }
    int status = 0;
    rusage usage{};
    wait4(pid, &status, 0, &usage);
    result.maxResidentBytes = std::uint64_t(usage.ru_maxrss) * 1024;
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    result.out = readText(outPath);
    result.err = readText(errPath);
    return result;
}

// Every regular file under `root` by relative path, with its bytes.
std::map<std::string, std::vector<std::uint8_t>> snapshot(const fs::path& root) {
    std::map<std::string, std::vector<std::uint8_t>> files;
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
        if (entry.is_regular_file()) {
            files[entry.path().lexically_relative(root).generic_string()] =
                readBytes(entry.path().string());
        }
    }
    return files;
}

// A directory of text and binary files, empty and nested, with awkward but legal names.
void makeMixedTree(const fs::path& root) {
    fs::create_directories(root / "shaders" / "lib");
    fs::create_directories(root / "images" / "empty-dir");
    fs::create_directories(root / "caf\xC3\xA9 dir");
    std::string text;
    for (int i = 0; i < 400; ++i) {
        text += "vec4 colour" + std::to_string(i) + " = vec4(0.5);\r\n";
    }
    writeBytes((root / "shaders" / "main.glsl").string(), toBytes(text));
    writeBytes((root / "shaders" / "lib" / "noise.glsl").string(), toBytes("float n;"));
    std::mt19937 random(11);
    std::vector<std::uint8_t> noise(20000);
    for (auto& b : noise) {
        b = static_cast<std::uint8_t>(random());
    }
    writeBytes((root / "images" / "noise.bin").string(), noise);
    writeBytes((root / "images" / "zeros.raw").string(), std::vector<std::uint8_t>(30000, 0));
    writeBytes((root / "empty.txt").string(), {});
    writeBytes((root / "demo.ini").string(), toBytes("demo.timeline.audio = song.ogg\n"));
    writeBytes((root / "caf\xC3\xA9 dir" / "a file.txt").string(), toBytes(std::string("nul\0byte", 8)));
}

class PackToolTest : public ::testing::Test {
protected:
    PackToolTest() {
        source_ = scratch_.path() / "source";
        makeMixedTree(source_);
    }
    std::string path(std::string_view name) const { return scratch_.file(name); }

    TempDir scratch_;
    fs::path source_;
};

// ---------------------------------------------------------------------------------------------
// [SECTION] Round trips
// ---------------------------------------------------------------------------------------------

TEST_F(PackToolTest, RoundTripsEveryLayoutAndMode) {
    const auto original = snapshot(source_);
    ASSERT_EQ(original.size(), 7u);
    const std::vector<std::vector<std::string>> modes = {
        {}, {"--compress", "all"}, {"--compress", "none"}, {"--compress", "auto"},
        {"--format", "1"}, {"--format", "1", "--compress", "none"}, {"--format", "2"}};
    int round = 0;
    for (const auto& mode : modes) {
        SCOPED_TRACE(::testing::PrintToString(mode));
        const std::string archivePath = path("demo" + std::to_string(round) + ".dat");
        std::vector<std::string> args = {"-o", archivePath, "--no-check"};
        args.insert(args.end(), mode.begin(), mode.end());
        args.push_back(source_.string());
        const Result packed = pack(scratch_, args);
        ASSERT_EQ(packed.status, 0) << packed.err;
        EXPECT_EQ(packed.err, "");
        EXPECT_EQ(std::count(packed.out.begin(), packed.out.end(), '\n'), 1) << packed.out;

        // The reader sees every file byte for byte, under its relative path.
        const auto archive = DemoArchive::load(archivePath);
        ASSERT_EQ(archive->entries().size(), original.size());
        const bool versionOne = std::find(mode.begin(), mode.end(), "1") != mode.end();
        EXPECT_EQ(readBytes(archivePath)[4], versionOne ? 1 : 2);
        for (const auto& [name, bytes] : original) {
            EXPECT_EQ(archive->readCopy(name), bytes) << name;
            const bool gzip = (archive->entries().at(name).flags & DemoArchive::kGzipFlag) != 0;
            if (versionOne || std::find(mode.begin(), mode.end(), "none") != mode.end()) {
                EXPECT_FALSE(gzip) << name;
            } else if (std::find(mode.begin(), mode.end(), "all") != mode.end()) {
                EXPECT_TRUE(gzip) << name;
            }
        }

        // Extracting gives the same tree back.
        const std::string target = path("out" + std::to_string(round));
        const Result extracted = pack(scratch_, {"--extract", archivePath, target});
        ASSERT_EQ(extracted.status, 0) << extracted.err;
        EXPECT_EQ(snapshot(target), original);
        ++round;
    }
}

TEST_F(PackToolTest, AutoCompressesOnlyWhatShrinks) {
    ASSERT_EQ(pack(scratch_, {"-o", path("demo.dat"), "--no-check", source_.string()}).status, 0);
    const auto archive = DemoArchive::load(path("demo.dat"));
    auto gzip = [&](const std::string& name) {
        return (archive->entries().at(name).flags & DemoArchive::kGzipFlag) != 0;
    };
    EXPECT_TRUE(gzip("shaders/main.glsl"));
    EXPECT_TRUE(gzip("images/zeros.raw"));
    EXPECT_FALSE(gzip("images/noise.bin"));
    EXPECT_FALSE(gzip("empty.txt"));
    EXPECT_FALSE(gzip("shaders/lib/noise.glsl"));
}

TEST_F(PackToolTest, OutputIsDeterministicAndSorted) {
    ASSERT_EQ(pack(scratch_, {"-o", path("a.dat"), "--no-check", source_.string()}).status, 0);
    // The same content written again, in another order and at another time.
    const fs::path copy = scratch_.path() / "copy";
    fs::create_directories(copy);
    const auto files = snapshot(source_);
    for (auto it = files.rbegin(); it != files.rend(); ++it) {
        fs::create_directories((copy / it->first).parent_path());
        writeBytes((copy / it->first).string(), it->second);
    }
    ASSERT_EQ(pack(scratch_, {"-o", path("b.dat"), "--no-check", copy.string()}).status, 0);
    ASSERT_EQ(pack(scratch_, {"-o", path("c.dat"), "--no-check", source_.string() + "/"}).status, 0);
    EXPECT_EQ(readBytes(path("a.dat")), readBytes(path("b.dat")));
    EXPECT_EQ(readBytes(path("a.dat")), readBytes(path("c.dat")));

    // Directory records appear in byte order of their paths.
    const auto bytes = readBytes(path("a.dat"));
    std::vector<std::string> names;
    std::size_t cursor = 12;
    for (std::size_t i = 0; i < files.size(); ++i) {
        const std::uint32_t length = bytes[cursor] | bytes[cursor + 1] << 8 |
                                     bytes[cursor + 2] << 16 | bytes[cursor + 3] << 24;
        names.emplace_back(reinterpret_cast<const char*>(&bytes[cursor + 32]), length);
        cursor += 32 + length;
    }
    EXPECT_TRUE(std::is_sorted(names.begin(), names.end()));
    EXPECT_EQ(names.size(), files.size());
}

TEST_F(PackToolTest, OutputInsideTheSourceIsNotPackedIntoItself) {
    const std::string inside = (source_ / "demo.dat").string();
    ASSERT_EQ(pack(scratch_, {"-o", inside, "--no-check", source_.string()}).status, 0);
    const auto first = readBytes(inside);
    ASSERT_EQ(pack(scratch_, {"-o", inside, "--no-check", source_.string()}).status, 0);
    EXPECT_EQ(readBytes(inside), first);
    EXPECT_FALSE(DemoArchive::load(inside)->contains("demo.dat"));
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Listing
// ---------------------------------------------------------------------------------------------

TEST_F(PackToolTest, ListsEveryEntryAndTheTotal) {
    ASSERT_EQ(pack(scratch_, {"-o", path("demo.dat"), "--no-check", source_.string()}).status, 0);
    const Result listed = pack(scratch_, {"--list", path("demo.dat")});
    ASSERT_EQ(listed.status, 0) << listed.err;
    const auto archive = DemoArchive::load(path("demo.dat"));
    std::ostringstream expected;
    std::uint64_t stored = 0;
    std::uint64_t unpacked = 0;
    for (const auto& [name, entry] : archive->entries()) {
        expected << name << '\t' << entry.storedSize << '\t' << archive->open(name).size() << '\t'
                 << ((entry.flags & 1) ? "gzip" : "stored") << '\n';
        stored += entry.storedSize;
        unpacked += archive->open(name).size();
    }
    expected << "total: " << archive->entries().size() << " files\t" << stored << '\t' << unpacked
             << '\n';
    EXPECT_EQ(listed.out, expected.str());
    EXPECT_NE(listed.out.find("images/noise.bin\t20000\t20000\tstored\n"), std::string::npos);
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Refusals
// ---------------------------------------------------------------------------------------------

TEST_F(PackToolTest, BadCommandLinesAreUsageErrors) {
    const Result help = pack(scratch_, {"--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_EQ(help.out.rfind("Usage:", 0), 0u);
    const std::vector<std::vector<std::string>> bad = {
        {},
        {"--bogus"},
        {"-o"},
        {"-o", path("x.dat")},
        {"-o", path("x.dat"), "--format", "3", source_.string()},
        {"-o", path("x.dat"), "--compress", "some", source_.string()},
        {"-o", path("x.dat"), "--format", "1", "--compress", "all", source_.string()},
        {"--list"},
        {"--list", "a", "b"},
        {"--list", path("x.dat"), "--compress", "all"},
        {"--extract", path("x.dat")},
        {"--list", path("x.dat"), "-o", path("y.dat")},
        {"--check"},
        {"--check", source_.string(), source_.string()},
        {"--check", source_.string(), "--no-check"},
        {"--list", path("x.dat"), "--no-check"},
    };
    for (const auto& args : bad) {
        const Result result = pack(scratch_, args);
        EXPECT_EQ(result.status, 2) << ::testing::PrintToString(args);
        EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
        EXPECT_EQ(result.err.rfind("brisvale-pack: ", 0), 0u) << result.err;
    }
    EXPECT_FALSE(fs::exists(path("x.dat")));
    const Result formatOne =
        pack(scratch_, {"-o", path("x.dat"), "--format", "1", "--compress", "all", source_.string()});
    EXPECT_EQ(formatOne.err, "brisvale-pack: --compress all needs --format 2: format 1 stores files only\n");
}

TEST_F(PackToolTest, FailedPacksKeepThePreviousOutput) {
    const std::string out = path("demo.dat");
    ASSERT_EQ(pack(scratch_, {"-o", out, "--no-check", source_.string()}).status, 0);
    const auto good = readBytes(out);

    const Result missing = pack(scratch_, {"-o", out, path("nowhere")});
    EXPECT_EQ(missing.status, 1);
    EXPECT_EQ(missing.err, "brisvale-pack: not a directory: " + path("nowhere") + "\n");
    const Result file = pack(scratch_, {"-o", out, (source_ / "demo.ini").string()});
    EXPECT_EQ(file.status, 1);
    EXPECT_EQ(file.err, "brisvale-pack: not a directory: " + (source_ / "demo.ini").string() + "\n");

    // A (sparse) file too large for the reader is refused before it is read.
    writeBytes((source_ / "huge.bin").string(), {});
    fs::resize_file(source_ / "huge.bin", std::uint64_t{4} << 30);
    const Result huge = pack(scratch_, {"-o", out, source_.string()});
    EXPECT_EQ(huge.status, 1);
    EXPECT_EQ(huge.err, "brisvale-pack: cannot pack 'huge.bin': files of 4 GiB or more cannot be stored\n");
    // The directory source refuses it as it refuses a container over 512 MiB.
    EXPECT_EQ(errorOf([&] { DemoArchive::loadDirectory(source_.string()); }),
              "Show directory larger than 512 MiB: " + source_.string());
    fs::remove(source_ / "huge.bin");

    // A name the archive would read as a different path.
    writeBytes((source_ / "back\\slash.txt").string(), toBytes("x"));
    const Result backslash = pack(scratch_, {"-o", out, source_.string()});
    EXPECT_EQ(backslash.status, 1);
    EXPECT_EQ(backslash.err, "brisvale-pack: cannot take 'back\\slash.txt': its name would read "
                             "as a different archive path\n");
    EXPECT_EQ("brisvale-pack: " + errorOf([&] { DemoArchive::loadDirectory(source_.string()); }) + "\n",
              backslash.err);

    EXPECT_EQ(readBytes(out), good);
    EXPECT_EQ(std::distance(fs::directory_iterator(scratch_.path()), fs::directory_iterator()),
              4) // source, demo.dat, stdout.txt, stderr.txt: no temporary left behind
        << "stray files in " << scratch_.path();
}

TEST_F(PackToolTest, ArchivesThatFailToLoadReportTheReadersMessage) {
    writeBytes(path("short.dat"), toBytes("BDAT"));
    const Result shortFile = pack(scratch_, {"--list", path("short.dat")});
    EXPECT_EQ(shortFile.status, 1);
    EXPECT_EQ(shortFile.err, "brisvale-pack: Invalid demo archive: " + path("short.dat") + "\n");

    auto bytes = writeArchive({{"a", toBytes("x")}}, {1, ArchiveCompression::None});
    bytes[20] = 0xFF; // the data offset now lies past the end
    writeBytes(path("corrupt.dat"), bytes);
    const Result corrupt = pack(scratch_, {"--extract", path("corrupt.dat"), path("x")});
    EXPECT_EQ(corrupt.status, 1);
    EXPECT_EQ(corrupt.err, "brisvale-pack: " + path("corrupt.dat") + ": Corrupt demo archive directory\n");

    const Result absent = pack(scratch_, {"--list", path("absent.dat")});
    EXPECT_EQ(absent.err, "brisvale-pack: Failed to open demo archive: " + path("absent.dat") + "\n");

    // A FIFO is no archive: refused at once, never waited on.
    ASSERT_EQ(mkfifo(path("fifo.dat").c_str(), 0600), 0);
    const testing::FifoPeer peer(path("fifo.dat"));
    for (const auto& args : {std::vector<std::string>{"--list", path("fifo.dat")},
                             std::vector<std::string>{"--extract", path("fifo.dat"), path("x")}}) {
        const Result fifo = pack(scratch_, args);
        EXPECT_EQ(fifo.status, 1);
        EXPECT_EQ(fifo.err, "brisvale-pack: Failed to open demo archive: " + path("fifo.dat") + "\n");
    }
    EXPECT_FALSE(fs::exists(path("x")));
}

TEST_F(PackToolTest, ExtractRefusesEntriesThatNameNothingOrEscape) {
    // A record named "." is stored under the empty key.
    writeArchiveFile(path("root.dat"), {{"ok.txt", toBytes("ok")}, {".", toBytes("root")}});
    const Result empty = pack(scratch_, {"--extract", path("root.dat"), path("x")});
    EXPECT_EQ(empty.status, 1);
    EXPECT_EQ(empty.err, "brisvale-pack: refusing an entry with an empty path in " +
                             path("root.dat") + "\n");
    EXPECT_FALSE(fs::exists(path("x") + "/ok.txt"));

    // A symbolic link inside the target leads outside: nothing is written through it.
    const fs::path target = scratch_.path() / "target";
    const fs::path outside = scratch_.path() / "outside";
    fs::create_directories(target);
    fs::create_directories(outside);
    fs::create_directory_symlink(outside, target / "link");
    writeArchiveFile(path("escape.dat"), {{"link/evil.txt", toBytes("evil")}});
    const Result escape = pack(scratch_, {"--extract", path("escape.dat"), target.string()});
    EXPECT_EQ(escape.status, 1);
    EXPECT_NE(escape.err.find("refusing 'link/evil.txt'"), std::string::npos) << escape.err;
    EXPECT_TRUE(fs::is_empty(outside));

    // Nor through a link in place of the file itself.
    writeBytes((outside / "victim.txt").string(), toBytes("safe"));
    fs::create_symlink(outside / "victim.txt", target / "file.txt");
    writeArchiveFile(path("file.dat"), {{"file.txt", toBytes("overwritten")}});
    const Result file = pack(scratch_, {"--extract", path("file.dat"), target.string()});
    EXPECT_EQ(file.status, 1);
    EXPECT_EQ(readText((outside / "victim.txt").string()), "safe");

    // Backslashes and dot segments in stored names land under their canonical paths.
    writeArchiveFile(path("odd.dat"), {{"..\\..\\up.txt", toBytes("u")}, {"a\\b/./c", toBytes("c")}});
    const Result odd = pack(scratch_, {"--extract", path("odd.dat"), path("odd")});
    ASSERT_EQ(odd.status, 0) << odd.err;
    EXPECT_EQ((snapshot(path("odd"))), (std::map<std::string, std::vector<std::uint8_t>>{
                                           {"a/b/c", toBytes("c")}, {"up.txt", toBytes("u")}}));
}

// A failed extraction leaves the destination as it found it, and never writes through a name
// that is already there.
TEST_F(PackToolTest, ExtractIsAllOrNothingAndCreatesNewFilesOnly) {
    const fs::path target = scratch_.path() / "target";
    fs::create_directories(target / "kept");
    writeBytes((target / "kept" / "old.txt").string(), toBytes("old"));
    const auto before = snapshot(target);

    std::vector<ArchiveFile> files;
    for (int i = 0; i < 3; ++i) {
        files.push_back({"d" + std::to_string(i) + "/f.txt", toBytes(std::string(5000, 'a' + i))});
    }
    files.push_back({"z.txt", toBytes(std::string(5000, 't'))});
    auto bytes = writeArchive(files, {2, ArchiveCompression::All});
    bytes[bytes.size() - 3] ^= 0x55; // inside the last gzip trailer's size field
    writeBytes(path("bad.dat"), bytes);
    const Result damaged = pack(scratch_, {"--extract", path("bad.dat"), target.string()});
    EXPECT_EQ(damaged.status, 1);
    EXPECT_EQ(damaged.err, "brisvale-pack: " + path("bad.dat") + ": z.txt: Failed to decompress demo archive entry\n");
    EXPECT_EQ(snapshot(target), before);
    EXPECT_EQ(std::distance(fs::recursive_directory_iterator(target), {}), 2);
    // Into a directory this run made: that goes too.
    EXPECT_EQ(pack(scratch_, {"--extract", path("bad.dat"), path("new/dir")}).status, 1);
    EXPECT_FALSE(fs::exists(path("new")));

    // A file in the way of a directory the archive needs.
    writeArchiveFile(path("clash.dat"), {{"a/b", toBytes("b")}, {"a/b/c", toBytes("c")}});
    EXPECT_EQ(pack(scratch_, {"--extract", path("clash.dat"), target.string()}).status, 1);
    EXPECT_EQ(std::distance(fs::recursive_directory_iterator(target), {}), 2);

    // A hard link to a file outside: not opened, let alone written.
    writeBytes(path("victim.txt"), toBytes("safe"));
    fs::create_hard_link(path("victim.txt"), target / "kept" / "link.txt");
    writeArchiveFile(path("link.dat"), {{"kept/link.txt", toBytes("overwritten")}});
    const Result linked = pack(scratch_, {"--extract", path("link.dat"), target.string()});
    EXPECT_EQ(linked.status, 1);
    EXPECT_EQ(linked.err, "brisvale-pack: cannot write 'kept/link.txt' to " + (target / "kept" / "link.txt").string() +
                              ": File exists\n");
    EXPECT_EQ(readText(path("victim.txt")), "safe");

    // Where no directory can be made, the reason is given.
    const Result blocked = pack(scratch_, {"--extract", path("link.dat"), path("victim.txt") + "/sub"});
    EXPECT_EQ(blocked.err, "brisvale-pack: cannot create " + path("victim.txt") + "/sub: Not a directory\n");
}

// Pages resident in this process now.
std::uint64_t residentBytes() {
    std::ifstream statm("/proc/self/statm");
    std::uint64_t size = 0;
    std::uint64_t resident = 0;
    statm >> size >> resident;
    return resident * static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
}

// Entries may share their stored bytes: a small archive can unpack to far more than it holds.
TEST_F(PackToolTest, ExtractStreamsEachFileAndFirstChecksTheFreeSpace) {
    constexpr std::size_t kSize = 48 << 20;
    const auto gzip = gzipDeterministic(std::vector<std::uint8_t>(kSize, 0));
    auto shared = [&](int count, std::uint64_t unpacked) {
        testing::RawArchive raw(2, static_cast<std::uint32_t>(count));
        const std::uint64_t offset = 12 + count * (32 + 6);
        for (int i = 0; i < count; ++i) {
            raw.record2("f" + std::to_string(100000 + i).substr(1), offset, gzip.size(), unpacked, 1);
        }
        return raw.raw(gzip).bytes();
    };
    writeBytes(path("three.dat"), shared(3, kSize));
    // Until it runs the tool, the child shares this process's pages, and its peak counts them.
    const std::uint64_t before = residentBytes();
    const Result three = pack(scratch_, {"--extract", path("three.dat"), path("three")});
    ASSERT_EQ(three.status, 0) << three.err;
    EXPECT_LT(three.maxResidentBytes, before + kSize * 3 / 2); // never all three at once
    for (const char* name : {"/f00000", "/f00001", "/f00002"}) {
        EXPECT_EQ(fs::file_size(path("three") + name), kSize);
    }

    // Twice what the disk has free: refused before anything is written. (Each entry claims a
    // byte more than it holds, so that a run without the check fails at once, not with a full disk.)
    struct statvfs space {};
    ASSERT_EQ(statvfs(scratch_.path().c_str(), &space), 0);
    const std::uint64_t free = std::uint64_t{space.f_bavail} * space.f_frsize;
    const int count = static_cast<int>(free / kSize * 2 + 2);
    writeBytes(path("vast.dat"), shared(count, kSize + 1));
    const Result vast = pack(scratch_, {"--extract", path("vast.dat"), path("vast")});
    EXPECT_EQ(vast.status, 1);
    EXPECT_EQ(vast.err.rfind("brisvale-pack: cannot extract " + path("vast.dat") + ": its files take " +
                                 std::to_string(count * (kSize + 1)) + " bytes, ", 0), 0u) << vast.err;
    EXPECT_FALSE(fs::exists(path("vast")));
}

TEST_F(PackToolTest, ListingEscapesNamesAndShowsOnlyCheckedSizes) {
    const std::vector<std::string> names = {"esc\x1B[2J\nforged\t1\t1\tstored", "caf\xC3\xA9", "bad\xFF\xC3",
                                            "c1\xC2\x9B"};
    testing::RawArchive raw(2, 5);
    for (const std::string& name : names) {
        raw.record2(name, 0, 4, 99, 0);
    }
    raw.record2("liar.gz", 0, 100, std::uint64_t{1} << 40, 1);
    writeBytes(path("odd.dat"), raw.bytes());
    const Result listed = pack(scratch_, {"--list", path("odd.dat")});
    ASSERT_EQ(listed.status, 0) << listed.err;
    EXPECT_EQ(listed.out, "bad\\xFF\\xC3\t4\t4\tstored\n"
                          "c1\\xC2\\x9B\t4\t4\tstored\n"
                          "caf\xC3\xA9\t4\t4\tstored\n"
                          "esc\\x1B[2J\\x0Aforged\\x091\\x091\\x09stored\t4\t4\tstored\n"
                          "liar.gz\t100\t?\tgzip\n"
                          "total: 5 files\t116\t16\n");
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Packing what lies inside
// ---------------------------------------------------------------------------------------------

TEST_F(PackToolTest, PacksOnlyWhatLiesInsideAndNamesWhatItSkips) {
    writeBytes(path("secret.txt"), toBytes("secret"));
    fs::create_symlink(path("secret.txt"), source_ / "outside-link");
    fs::create_symlink("shaders/lib/noise.glsl", source_ / "inside-link");
    fs::create_directory_symlink("shaders", source_ / "dir-link");
    fs::create_symlink("nowhere", source_ / "dangling");
    ASSERT_EQ(mkfifo((source_ / "images" / "fifo").c_str(), 0600), 0);

    const Result packed = pack(scratch_, {"-o", path("demo.dat"), "--no-check", source_.string()});
    ASSERT_EQ(packed.status, 0) << packed.err;
    std::vector<std::string> lines;
    std::istringstream err(packed.err);
    for (std::string line; std::getline(err, line);) {
        lines.push_back(line);
    }
    std::sort(lines.begin(), lines.end());
    EXPECT_EQ(lines, (std::vector<std::string>{
                         "brisvale-pack: skipped 'dangling': symbolic link that leads nowhere (No such file or directory)",
                         "brisvale-pack: skipped 'dir-link': symbolic link to a directory, not followed",
                         "brisvale-pack: skipped 'images/fifo': a FIFO",
                         "brisvale-pack: skipped 'outside-link': symbolic link to " + path("secret.txt") +
                             ", outside the directory"}));
    const auto archive = DemoArchive::load(path("demo.dat"));
    EXPECT_EQ(archive->entries().size(), 8u);
    EXPECT_EQ(archive->readText("inside-link"), "float n;");

    // A show directory serves what its packed form holds, byte for byte, under the same names.
    const auto directory = DemoArchive::loadDirectory(source_.string());
    ASSERT_EQ(directory->entries().size(), archive->entries().size());
    for (const auto& [name, entry] : archive->entries()) {
        EXPECT_EQ(directory->readCopy(name), archive->readCopy(name)) << name;
    }
}

TEST_F(PackToolTest, ShowDirectoriesNeedADemoIniAndFailInOneLine) {
    fs::remove(source_ / "demo.ini");
    EXPECT_EQ(errorOf([&] { loadShow(source_.string()); }), "No demo.ini in show directory: " + source_.string());
    fs::create_symlink(path("elsewhere.ini"), source_ / "demo.ini"); // leads out: left out
    writeBytes(path("elsewhere.ini"), toBytes("demo.timeline.audio = a.ogg\n"));
    EXPECT_EQ(errorOf([&] { loadShow(source_.string()); }), "No demo.ini in show directory: " + source_.string());
    EXPECT_EQ(errorOf([&] { loadShow(path("absent")); }), "Failed to open demo archive: " + path("absent"));

    // A file that is gone by the time it is read.
    const DirectoryListing listing = listDirectoryFiles(source_);
    fs::remove(source_ / "empty.txt");
    std::vector<std::uint8_t> bytes = toBytes("kept");
    for (const DirectoryFile& file : listing.files) {
        if (file.name == "empty.txt") {
            EXPECT_EQ(errorOf([&] { appendDirectoryFile(file, 100, bytes); }),
                      "cannot read " + (source_ / "empty.txt").string() + ": No such file or directory");
        } else if (file.name == "images/zeros.raw") {
            EXPECT_FALSE(appendDirectoryFile(file, 29999, bytes)); // one byte too many
        }
    }
    EXPECT_EQ(bytes, toBytes("kept"));
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Checking
// ---------------------------------------------------------------------------------------------

// The lines of `text`.
std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

// The player's test show (made at build time with real FLAC music and a PNG), with one thing
// after another broken.
TEST_F(PackToolTest, CheckListsEveryProblemOfAShowAtOnce) {
    const fs::path good = BRISVALE_TEST_SHOW_DIR;
    const Result clean = pack(scratch_, {"--check", good.string()});
    EXPECT_EQ(clean.status, 0) << clean.out;
    EXPECT_EQ(clean.out, good.string() + ": no problems found\n");

    const fs::path show = scratch_.path() / "show";
    fs::copy(good, show, fs::copy_options::recursive);
    writeBytes((show / "demo.ini").string(), toBytes("demo.name = Broken\n"
                                                     "demo.timeline.assets = assets.txt\n"
                                                     "demo.timeline.audio = music/song.flac\n"
                                                     "demo.output.fps = 6O\n"
                                                     "demo.title = x\n"));
    fs::create_directories(show / "shaders" / "lib");
    fs::rename(show / "shaders" / "phases.glsl", show / "Quad.metal");
    std::string shader = "#include \"shaders/lib/noise.glsl\"\n";
    const auto phases = readBytes((show / "Quad.metal").string());
    shader.append(phases.begin(), phases.end());
    writeBytes((show / "Quad.metal").string(), toBytes(shader));
    writeBytes((show / "shaders" / "lib" / "noise.glsl").string(), toBytes("float ok;\nfloat bad = missingThing;\n"));
    writeBytes((show / "assets.txt").string(), toBytes("image.0.path = images/tile.png\r\n"
                                                       "image.x.path = images/none.png\r\n"
                                                       "image.1.path = images/text.png\r\n"));
    writeBytes((show / "images" / "text.png").string(), toBytes("not an image"));
    writeBytes((show / "music" / "song.flac").string(), std::vector<std::uint8_t>(5000, 0x5A));

    const std::vector<std::string> findings = {
        "demo.ini:4: error: Invalid numeric demo manifest value: demo.output.fps",
        "demo.ini:5: warning: unknown key 'demo.title' is ignored",
        "demo.ini: warning: no demo.timeline.shader: the shader is \"Quad.metal\"",
        "shaders/lib/noise.glsl:2: error: vertex stage: 'missingThing' : undeclared identifier",
        "assets.txt:2: warning: 'image.x.path' counts as image index 0",
        "assets.txt:2: warning: 'image.x.path' replaces 'image.0.path' of line 1: both are image index 0 and "
        "only the last one is used",
        "assets.txt:2: error: Missing file in demo archive: images/none.png",
        "images/text.png: error: Failed to load image: images/text.png",
        "music/song.flac: error: the music does not decode: the show would play silent and never end",
    };
    // A directory's files are named on disk, for an editor to open; a packed file's by their
    // archive paths.
    std::vector<std::string> expected;
    for (const std::string& finding : findings) {
        expected.push_back((show / finding).string());
    }
    expected.push_back(show.string() + ": 5 errors, 4 warnings");
    const Result checked = pack(scratch_, {"--check", show.string()});
    EXPECT_EQ(checked.status, 1);
    EXPECT_EQ(linesOf(checked.out), expected);

    // Packing refuses it, naming the same problems, unless told not to check.
    const Result refused = pack(scratch_, {"-o", path("broken.dat"), show.string()});
    EXPECT_EQ(refused.status, 1);
    expected.back() = "brisvale-pack: not packing " + show.string() +
                      ": the show has 5 errors (--no-check packs it anyway)";
    EXPECT_EQ(linesOf(refused.err), expected);
    EXPECT_FALSE(fs::exists(path("broken.dat")));
    ASSERT_EQ(pack(scratch_, {"-o", path("broken.dat"), "--no-check", show.string()}).status, 0);
    const Result packed = pack(scratch_, {"--check", path("broken.dat")});
    EXPECT_EQ(packed.status, 1);
    expected = findings;
    expected.push_back(path("broken.dat") + ": 5 errors, 4 warnings");
    EXPECT_EQ(linesOf(packed.out), expected);

    // The directory serves the packed show's bytes, includes and images alike.
    const auto fromDirectory = loadShow(show.string());
    const auto fromPacked = loadShow(path("broken.dat"));
    EXPECT_EQ(expandShaderSource(*fromDirectory, "Quad.metal").text, expandShaderSource(*fromPacked, "Quad.metal").text);
    ASSERT_EQ(fromDirectory->entries().size(), fromPacked->entries().size());
    for (const auto& [name, entry] : fromPacked->entries()) {
        EXPECT_EQ(fromDirectory->readCopy(name), fromPacked->readCopy(name)) << name;
    }

    // A demo.ini that names only music that is not there: the defaults lead nowhere either.
    const std::string ini = (source_ / "demo.ini").string();
    const Result notAShow = pack(scratch_, {"--check", source_.string()});
    EXPECT_EQ(notAShow.status, 1);
    EXPECT_EQ(linesOf(notAShow.out),
              (std::vector<std::string>{
                  ini + ": warning: no demo.timeline.shader: the shader is \"Quad.metal\"",
                  ini + ": error: Missing file in demo archive: Quad.metal",
                  ini + ": error: Missing file in demo archive: assets.txt",
                  ini + ":1: error: Missing file in demo archive: song.ogg: the show would play silent and never end",
                  source_.string() + ": 3 errors, 1 warning"}));
    // What cannot be read as a show at all is one error.
    fs::remove(source_ / "demo.ini");
    EXPECT_EQ(pack(scratch_, {"--check", source_.string()}).out,
              source_.string() + ": error: No demo.ini in show directory: " + source_.string() + "\n" +
                  source_.string() + ": 1 error, 0 warnings\n");

    const Result defaultShow = pack(scratch_, {"--check", BRISVALE_SHOW_DEMO_DAT});
    EXPECT_EQ(defaultShow.status, 0) << defaultShow.out;
    EXPECT_EQ(defaultShow.out, std::string(BRISVALE_SHOW_DEMO_DAT) + ": no problems found\n");
}

} // namespace
} // namespace brisvale
