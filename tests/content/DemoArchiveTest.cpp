// DemoArchive: loading containers and show directories (header, directory, limits, every
// refusal with its message) and opening stored and gzip-compressed files.
//
// [SECTION] Load: file and header
// [SECTION] Load: directory
// [SECTION] Open: stored files
// [SECTION] Open: gzip files

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <zlib.h>

#include <limits>

#include "ContentTestSupport.h"
#include "content/ArchiveWriter.h"
#include "content/DemoArchive.h"

namespace brisvale {
namespace {

using testing::errorOf;
using testing::loadBytes;
using testing::loadFiles;
using testing::RawArchive;
using testing::TempDir;
using testing::toBytes;
using testing::toString;

// A zlib-wrapped (not gzip) stream of `content`.
std::vector<std::uint8_t> zlibWrapped(std::string_view content) {
    uLongf size = compressBound(static_cast<uLong>(content.size()));
    std::vector<std::uint8_t> out(size);
    compress(out.data(), &size, reinterpret_cast<const Bytef*>(content.data()),
             static_cast<uLong>(content.size()));
    out.resize(size);
    return out;
}

// A version 2 container with one gzip record for `gzip`, claiming `unpacked` bytes.
std::vector<std::uint8_t> oneGzipRecord(const std::vector<std::uint8_t>& gzip,
                                        std::uint64_t unpacked) {
    const std::string name = "z.bin";
    RawArchive raw(2, 1);
    const std::uint64_t dataOffset = raw.size() + 32 + name.size();
    raw.record2(name, dataOffset, gzip.size(), unpacked, DemoArchive::kGzipFlag).raw(gzip);
    return raw.bytes();
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Load: file and header
// ---------------------------------------------------------------------------------------------

TEST(DemoArchiveLoad, FileErrorsNameThePathAsPassed) {
    TempDir dir;
    const std::string missing = dir.file("nope/../missing.dat");
    EXPECT_EQ(errorOf([&] { DemoArchive::load(missing); }),
              "Failed to open demo archive: " + missing);
    EXPECT_EQ(errorOf([&] { DemoArchive::load(dir.path().string()); }),
              "Failed to open demo archive: " + dir.path().string());
}

TEST(DemoArchiveLoad, OnlyRegularFilesOfBoundedSizeAreRead) {
    TempDir dir;
    const std::string fifo = dir.file("fifo.dat");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    {
        const testing::FifoPeer peer(fifo); // a load that waits for a writer gets one, and fails
        EXPECT_EQ(errorOf([&] { DemoArchive::load(fifo); }), "Failed to open demo archive: " + fifo);
    }
    EXPECT_EQ(errorOf([] { DemoArchive::load("/dev/zero"); }),
              "Failed to open demo archive: /dev/zero");

    // Sparse files: the size is refused before anything is allocated or read.
    const std::string huge = dir.file("huge.dat");
    testing::writeBytes(huge, RawArchive(1, 0).bytes());
    std::filesystem::resize_file(huge, (std::uint64_t{512} << 20) + 1);
    EXPECT_EQ(errorOf([&] { DemoArchive::load(huge); }), "Demo archive larger than 512 MiB: " + huge);
}

TEST(DemoArchiveLoad, ShortFilesAndWrongMagicAreInvalid) {
    TempDir dir;
    const std::string path = dir.file("demo.dat");
    const std::vector<std::vector<std::uint8_t>> invalid = {
        {},
        toBytes("BDAT\x01\x00\x00\x00\x00\x00\x00"), // 11 bytes
        toBytes(std::string("BDAX\x01\x00\x00\x00\x00\x00\x00\x00", 12)),
        toBytes(std::string("bdat\x01\x00\x00\x00\x00\x00\x00\x00", 12)),
    };
    for (const auto& bytes : invalid) {
        testing::writeBytes(path, bytes);
        EXPECT_EQ(errorOf([&] { DemoArchive::load(path); }), "Invalid demo archive: " + path)
            << bytes.size() << " bytes";
    }
}

TEST(DemoArchiveLoad, TwelveByteHeaderIsAnEmptyArchive) {
    TempDir dir;
    const auto archive = loadBytes(dir, RawArchive(1, 0).bytes());
    EXPECT_FALSE(archive->contains(""));
    EXPECT_FALSE(archive->contains("demo.ini"));
    EXPECT_EQ(errorOf([&] { archive->open("./x\\..\\demo.ini"); }),
              "Missing file in demo archive: demo.ini");
    EXPECT_EQ(errorOf([&] { archive->readText("A\\B.txt"); }),
              "Missing file in demo archive: A/B.txt");
    EXPECT_EQ(errorOf([&] { archive->readCopy(""); }), "Missing file in demo archive: ");
}

TEST(DemoArchiveLoad, OnlyVersionsOneAndTwoAreSupported) {
    TempDir dir;
    for (std::uint32_t version : {0u, 3u, 0x01000000u, 0xFFFFFFFFu}) {
        RawArchive raw(version, 1);
        raw.record2("a", 0, 4, 4, 0);
        EXPECT_EQ(errorOf([&] { loadBytes(dir, raw.bytes()); }), "Unsupported demo archive version")
            << version;
    }
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Load: directory
// ---------------------------------------------------------------------------------------------

TEST(DemoArchiveLoad, TruncatedDirectoryFieldsAreCorrupt) {
    TempDir dir;
    // Two records announced, one present: the second's name length runs off the end.
    RawArchive v1(1, 2);
    v1.record1("a", 0, 4);
    EXPECT_EQ(errorOf([&] { loadBytes(dir, v1.bytes()); }), "Corrupt demo archive");

    // Each fixed field of a version 2 record cut short.
    RawArchive full(2, 1);
    full.record2("abc", 0, 1, 1, 0);
    for (std::size_t cut = 12; cut < 12 + 32; ++cut) {
        std::vector<std::uint8_t> bytes = full.bytes();
        bytes.resize(cut);
        EXPECT_EQ(errorOf([&] { loadBytes(dir, bytes); }), "Corrupt demo archive") << cut;
    }
    // The name cut short is a directory error, not a field error.
    for (std::size_t cut = 12 + 32; cut < full.size(); ++cut) {
        std::vector<std::uint8_t> bytes = full.bytes();
        bytes.resize(cut);
        EXPECT_EQ(errorOf([&] { loadBytes(dir, bytes); }), "Corrupt demo archive directory") << cut;
    }
    EXPECT_NO_THROW(loadBytes(dir, full.bytes()));
}

TEST(DemoArchiveLoad, BadNamesAndRangesAreCorruptDirectory) {
    TempDir dir;
    RawArchive emptyName(2, 1);
    emptyName.record2("", 0, 0, 0, 0).raw("padding padding padding");
    EXPECT_EQ(errorOf([&] { loadBytes(dir, emptyName.bytes()); }), "Corrupt demo archive directory");

    RawArchive hugeName(1, 1);
    hugeName.u32(0xFFFFFFFFu).u64(0).u64(0).raw("x");
    EXPECT_EQ(errorOf([&] { loadBytes(dir, hugeName.bytes()); }), "Corrupt demo archive directory");

    // 12 + 20 + 1 = 33 bytes: a range ending exactly at 33 loads, one further does not.
    RawArchive exact(1, 1);
    exact.record1("a", 30, 3);
    ASSERT_EQ(exact.size(), 33u);
    const auto archive = loadBytes(dir, exact.bytes());
    EXPECT_EQ(archive->open("a").size(), 3u);
    RawArchive past(1, 1);
    past.record1("a", 30, 4);
    EXPECT_EQ(errorOf([&] { loadBytes(dir, past.bytes()); }), "Corrupt demo archive directory");
    RawArchive offsetPast(1, 1);
    offsetPast.record1("a", 34, 0);
    EXPECT_EQ(errorOf([&] { loadBytes(dir, offsetPast.bytes()); }), "Corrupt demo archive directory");

    // Offsets near the top of the 64-bit range must not wrap around to a small end.
    const std::uint64_t top = std::numeric_limits<std::uint64_t>::max();
    const std::pair<std::uint64_t, std::uint64_t> wrapping[] = {{top, 1}, {top - 1, 2}, {top - 10, 34}};
    for (const auto& [offset, size] : wrapping) {
        RawArchive wrap(2, 1);
        wrap.record2("w", offset, size, size, 0);
        EXPECT_EQ(errorOf([&] { loadBytes(dir, wrap.bytes()); }), "Corrupt demo archive directory");
    }
    RawArchive hugeSize(2, 1);
    hugeSize.record2("w", 1, top, 0, 0);
    EXPECT_EQ(errorOf([&] { loadBytes(dir, hugeSize.bytes()); }), "Corrupt demo archive directory");
}

TEST(DemoArchiveLoad, RecordsMayShareOverlapAndPointAnywhere) {
    TempDir dir;
    // The directory starts at 12, so data before it can only be the header itself; ranges may
    // overlap and trailing bytes are never examined.
    RawArchive raw(1, 3);
    raw.record1("whole", 0, 12).record1("magic", 0, 4).record1("tail", 4, 8);
    raw.raw("trailing garbage");
    const auto archive = loadBytes(dir, raw.bytes());
    EXPECT_EQ(archive->readText("magic"), "BDAT");
    EXPECT_EQ(archive->readCopy("whole"),
              std::vector<std::uint8_t>(raw.bytes().begin(), raw.bytes().begin() + 12));
    EXPECT_EQ(archive->open("tail").data(), archive->open("whole").data() + 4);
}

TEST(DemoArchiveLoad, LaterRecordWinsForTheSameKey) {
    TempDir dir;
    const auto archive = loadFiles(dir, {{"a.txt", toBytes("first")},
                                         {"./a.txt", toBytes("second")},
                                         {"b/../c.txt", toBytes("c")}},
                                   {2, ArchiveCompression::None});
    EXPECT_EQ(archive->readText("a.txt"), "second");
    EXPECT_TRUE(archive->contains("c.txt"));
    EXPECT_FALSE(archive->contains("b/../c.txt/x"));
}

TEST(DemoArchiveLoad, NamesAreNormalisedAndCaseSensitive) {
    TempDir dir;
    const auto archive = loadFiles(dir, {{".", toBytes("root")},
                                         {"x\\y.bin", toBytes("xy")},
                                         {"A/B.txt", toBytes("upper")}});
    EXPECT_TRUE(archive->contains(""));
    EXPECT_EQ(archive->readText("/"), "root");
    EXPECT_EQ(archive->readText("x/y.bin"), "xy");
    EXPECT_EQ(archive->readText("/x/./y.bin"), "xy");
    EXPECT_EQ(archive->readText("A\\B.txt"), "upper");
    EXPECT_FALSE(archive->contains("a/b.txt"));
    EXPECT_EQ(errorOf([&] { archive->open("a\\b.txt"); }), "Missing file in demo archive: a/b.txt");
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Open: stored files
// ---------------------------------------------------------------------------------------------

TEST(DemoArchiveOpen, StoredFilesAreViewsWithoutCopies) {
    TempDir dir;
    const std::string withNuls("a\0b\0\0c", 6);
    const auto archive = loadFiles(dir, {{"nul.bin", toBytes(withNuls)}, {"empty", {}}},
                                   {1, ArchiveCompression::None});
    const ArchiveBytes first = archive->open("nul.bin");
    const ArchiveBytes second = archive->open("./nul.bin");
    EXPECT_EQ(first.data(), second.data());
    EXPECT_EQ(toString(first), withNuls);
    EXPECT_EQ(archive->readText("nul.bin"), withNuls);
    EXPECT_EQ(archive->readText("nul.bin").size(), 6u);
    EXPECT_EQ(archive->readCopy("nul.bin"), toBytes(withNuls));
    EXPECT_EQ(archive->open("empty").size(), 0u);
    EXPECT_EQ(archive->readText("empty"), "");
}

TEST(DemoArchiveOpen, VersionTwoWithoutGzipBitIsStoredAndIgnoresUnpackedSize) {
    TempDir dir;
    RawArchive raw(2, 2);
    const std::uint64_t data = 12 + 2 * (32 + 1);
    raw.record2("a", data, 5, 999, 2).record2("b", data, 5, 0, 0xFFFFFFFEu).raw("plain");
    const auto archive = loadBytes(dir, raw.bytes());
    EXPECT_EQ(archive->readText("a"), "plain");
    EXPECT_EQ(archive->readText("b"), "plain");
}

TEST(DemoArchiveOpen, VersionOneIgnoresWhatLooksLikeGzip) {
    TempDir dir;
    const auto gzip = gzipDeterministic(toBytes("zipped"));
    RawArchive raw(1, 1);
    raw.record1("g", 12 + 20 + 1, gzip.size()).raw(gzip);
    const auto archive = loadBytes(dir, raw.bytes());
    EXPECT_EQ(archive->readCopy("g"), gzip);
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Open: gzip files
// ---------------------------------------------------------------------------------------------

TEST(DemoArchiveOpen, GzipFilesInflateOnceAndKeepTheirAddress) {
    TempDir dir;
    std::string big;
    for (int i = 0; i < 5000; ++i) {
        big += "line " + std::to_string(i) + "\n";
    }
    const auto archive = loadFiles(dir, {{"big.txt", toBytes(big)},
                                         {"other.txt", toBytes(std::string(4000, 'q'))}},
                                   {2, ArchiveCompression::All});
    const ArchiveBytes first = archive->open("big.txt");
    EXPECT_EQ(toString(first), big);
    // Filling the cache with another entry must not move the first buffer.
    EXPECT_EQ(archive->readText("other.txt"), std::string(4000, 'q'));
    const ArchiveBytes again = archive->open("./big.txt");
    EXPECT_EQ(again.data(), first.data());
    EXPECT_EQ(again.size(), first.size());
    EXPECT_EQ(archive->readText("big.txt"), big);
}

TEST(DemoArchiveOpen, GzipContentMustMatchUnpackedSizeExactly) {
    TempDir dir;
    const std::string content = "exactly twenty bytes";
    const auto gzip = gzipDeterministic(toBytes(content));
    EXPECT_EQ(testing::toString(loadBytes(dir, oneGzipRecord(gzip, content.size()))->open("z.bin")),
              content);
    for (std::uint64_t wrong : {content.size() - 1, content.size() + 1}) {
        const auto archive = loadBytes(dir, oneGzipRecord(gzip, wrong));
        EXPECT_TRUE(archive->contains("z.bin"));
        EXPECT_EQ(errorOf([&] { archive->open("z.bin"); }),
                  "Failed to decompress demo archive entry")
            << wrong;
        // Nothing was cached: the next open tries again and fails the same way.
        EXPECT_EQ(errorOf([&] { archive->readText("z.bin"); }),
                  "Failed to decompress demo archive entry");
    }
}

TEST(DemoArchiveOpen, OnlyGzipWrappedStreamsInflate) {
    TempDir dir;
    const std::string content = "zlib, not gzip";
    const auto archive = loadBytes(dir, oneGzipRecord(zlibWrapped(content), content.size()));
    EXPECT_EQ(errorOf([&] { archive->open("z.bin"); }), "Failed to decompress demo archive entry");

    auto damaged = gzipDeterministic(toBytes(std::string(300, 'd')));
    damaged[damaged.size() - 6] ^= 0xFF; // the CRC no longer matches
    const auto badCrc = loadBytes(dir, oneGzipRecord(damaged, 300));
    EXPECT_EQ(errorOf([&] { badCrc->open("z.bin"); }), "Failed to decompress demo archive entry");

    auto truncated = gzipDeterministic(toBytes(std::string(300, 't')));
    truncated.resize(truncated.size() - 1);
    const auto cut = loadBytes(dir, oneGzipRecord(truncated, 300));
    EXPECT_EQ(errorOf([&] { cut->open("z.bin"); }), "Failed to decompress demo archive entry");
}

TEST(DemoArchiveOpen, BytesAfterTheFirstGzipMemberAreIgnored) {
    TempDir dir;
    auto gzip = gzipDeterministic(toBytes("first member"));
    const auto second = gzipDeterministic(toBytes("second member"));
    gzip.insert(gzip.end(), second.begin(), second.end());
    const auto archive = loadBytes(dir, oneGzipRecord(gzip, 12));
    EXPECT_EQ(archive->readText("z.bin"), "first member");
}

TEST(DemoArchiveOpen, AbsurdUnpackedSizesFailWithoutAllocating) {
    TempDir dir;
    const auto gzip = gzipDeterministic(toBytes(std::string(100, 'a')));
    for (std::uint64_t absurd : {std::uint64_t{1} << 40, std::uint64_t{1} << 32,
                                 std::numeric_limits<std::uint64_t>::max(),
                                 std::uint64_t{gzip.size()} * 1032 + 5000}) {
        const auto archive = loadBytes(dir, oneGzipRecord(gzip, absurd));
        EXPECT_EQ(errorOf([&] { archive->open("z.bin"); }),
                  "Failed to decompress demo archive entry")
            << absurd;
    }
}

TEST(DemoArchiveOpen, HighlyCompressibleContentStillInflates) {
    // Close to deflate's best ratio: the size bound must not reject real data.
    TempDir dir;
    const std::vector<std::uint8_t> zeros(8 << 20, 0);
    const auto gzip = gzipDeterministic(zeros);
    ASSERT_LT(gzip.size() * 1000, zeros.size());
    const auto archive = loadBytes(dir, oneGzipRecord(gzip, zeros.size()));
    const ArchiveBytes content = archive->open("z.bin");
    ASSERT_EQ(content.size(), zeros.size());
    EXPECT_TRUE(std::equal(content.begin(), content.end(), zeros.begin()));
}

TEST(DemoArchiveOpen, EmptyGzipContentOpensAsAnEmptyFile) {
    TempDir dir;
    const auto empty = gzipDeterministic({});
    EXPECT_EQ(loadBytes(dir, oneGzipRecord(empty, 0))->open("z.bin").size(), 0u);
    const auto notEmpty = gzipDeterministic(toBytes("x"));
    const auto archive = loadBytes(dir, oneGzipRecord(notEmpty, 0));
    EXPECT_EQ(errorOf([&] { archive->open("z.bin"); }), "Failed to decompress demo archive entry");
}

TEST(DemoArchiveStream, PiecesAddUpToTheContentWithTheChecksOfOpen) {
    TempDir dir;
    std::vector<std::uint8_t> content(3 << 20);
    for (std::size_t i = 0; i < content.size(); ++i) {
        content[i] = static_cast<std::uint8_t>(i * i >> 7);
    }
    const auto gzip = gzipDeterministic(content);
    for (const std::int64_t error : {-1, 0, 1}) {
        const auto archive = loadBytes(dir, oneGzipRecord(gzip, content.size() + error));
        std::vector<std::uint8_t> streamed;
        int pieces = 0;
        const std::string message = errorOf([&] {
            archive->stream("./z.bin", [&](ArchiveBytes piece) {
                streamed.insert(streamed.end(), piece.begin(), piece.end());
                ++pieces;
            });
        });
        if (error != 0) {
            EXPECT_EQ(message, "Failed to decompress demo archive entry") << error;
            continue;
        }
        EXPECT_EQ(message, "<no error>");
        EXPECT_GT(pieces, 1);
        EXPECT_TRUE(streamed == content);
    }
}

TEST(DemoArchiveOpen, ArchiveOutlivesItsLoaderAndViewsStayValid) {
    TempDir dir;
    std::shared_ptr<const DemoArchive> shared;
    ArchiveBytes view;
    {
        const auto archive = loadFiles(dir, {{"t.txt", toBytes(std::string(1000, 'v'))}},
                                       {2, ArchiveCompression::All});
        shared = archive;
        view = shared->open("t.txt");
    }
    std::filesystem::remove(dir.file("demo.dat"));
    EXPECT_EQ(testing::toString(view), std::string(1000, 'v'));
    EXPECT_EQ(shared->readText("t.txt"), std::string(1000, 'v'));
}

TEST(DemoArchive, DefaultConstructedIsEmpty) {
    const DemoArchive archive;
    EXPECT_FALSE(archive.contains(""));
    EXPECT_EQ(errorOf([&] { archive.open("a"); }), "Missing file in demo archive: a");
    const DemoArchive::Entry entry;
    EXPECT_EQ(entry.offset, 0u);
    EXPECT_EQ(entry.storedSize, 0u);
    EXPECT_EQ(entry.unpackedSize, 0u);
    EXPECT_EQ(entry.flags, 0u);
}

} // namespace
} // namespace brisvale
