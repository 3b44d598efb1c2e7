// Thousands of damaged containers through load and open, with a fixed seed: only the reader's
// own messages may come out. Crashes, hangs and sanitizer reports show up as test failures.

#include <gtest/gtest.h>

#include <random>
#include <set>

#include "ContentTestSupport.h"
#include "content/ArchiveWriter.h"
#include "content/DemoArchive.h"

namespace brisvale {
namespace {

using testing::TempDir;
using testing::toBytes;

std::vector<std::uint8_t> sampleArchive(std::uint32_t version, ArchiveCompression compression) {
    std::string text;
    for (int i = 0; i < 200; ++i) {
        text += "uniform float v" + std::to_string(i) + ";\n";
    }
    std::vector<std::uint8_t> noise(700);
    std::mt19937 random(3);
    for (auto& b : noise) {
        b = static_cast<std::uint8_t>(random());
    }
    return writeArchive({{"demo.ini", toBytes("demo.timeline.audio = a.ogg\n")},
                         {"shaders/main.glsl", toBytes(text)},
                         {"a.ogg", noise},
                         {"x\\y.bin", toBytes(std::string(64, '\0'))},
                         {"empty", {}}},
                        {version, compression});
}

// Damages `bytes` in one of several ways that reach different parts of the reader.
void damage(std::vector<std::uint8_t>& bytes, std::mt19937& random) {
    auto pick = [&](std::size_t n) { return n == 0 ? std::size_t{0} : random() % n; };
    switch (random() % 5) {
    case 0: // truncate anywhere
        bytes.resize(pick(bytes.size() + 1));
        break;
    case 1: // flip a few bits anywhere
        for (int i = 0, n = 1 + static_cast<int>(random() % 8); i < n && !bytes.empty(); ++i) {
            bytes[pick(bytes.size())] ^= static_cast<std::uint8_t>(1u << (random() % 8));
        }
        break;
    case 2: { // overwrite a field-sized run in the header and directory with a telling value
        const std::uint64_t values[] = {0, 1, 2, 0xFF, 0xFFFFFFFFu, 0x7FFFFFFFFFFFFFFFull,
                                        ~std::uint64_t{0}, bytes.size(), bytes.size() + 1,
                                        std::uint64_t{1} << 40, random()};
        const std::uint64_t value = values[pick(std::size(values))];
        const std::size_t at = pick(std::min<std::size_t>(bytes.size(), 200));
        const std::size_t width = random() % 2 ? 4 : 8;
        for (std::size_t i = 0; i < width && at + i < bytes.size(); ++i) {
            bytes[at + i] = static_cast<std::uint8_t>(value >> (8 * i));
        }
        break;
    }
    case 3: // random bytes over a run of the data area
        if (bytes.size() > 12) {
            const std::size_t at = 12 + pick(bytes.size() - 12);
            for (std::size_t i = at; i < std::min(bytes.size(), at + 1 + pick(64)); ++i) {
                bytes[i] = static_cast<std::uint8_t>(random());
            }
        }
        break;
    default: // append garbage
        for (std::size_t i = 0, n = pick(100); i < n; ++i) {
            bytes.push_back(static_cast<std::uint8_t>(random()));
        }
        break;
    }
}

TEST(ArchiveRobustness, DamagedContainersFailOnlyWithTheReadersMessages) {
    TempDir dir;
    const std::string path = dir.file("demo.dat");
    const std::set<std::string> allowed = {
        "Invalid demo archive: " + path,
        "Unsupported demo archive version",
        "Corrupt demo archive",
        "Corrupt demo archive directory",
        "Failed to decompress demo archive entry",
    };
    const std::vector<std::vector<std::uint8_t>> originals = {
        sampleArchive(1, ArchiveCompression::None),
        sampleArchive(2, ArchiveCompression::None),
        sampleArchive(2, ArchiveCompression::Auto),
        sampleArchive(2, ArchiveCompression::All),
    };

    std::mt19937 random(20261123);
    std::map<std::string, int> seen;
    int loaded = 0;
    int opened = 0;
    for (int round = 0; round < 4000; ++round) {
        std::vector<std::uint8_t> bytes = originals[round % originals.size()];
        for (int hits = 1 + static_cast<int>(random() % 3); hits > 0; --hits) {
            damage(bytes, random);
        }
        testing::writeBytes(path, bytes);
        try {
            const auto archive = DemoArchive::load(path);
            ++loaded;
            for (const auto& [key, entry] : archive->entries()) {
                EXPECT_TRUE(archive->contains(key));
                try {
                    const ArchiveBytes content = archive->open(key);
                    ++opened;
                    // Stored views lie inside the container; inflated ones have their size.
                    if ((entry.flags & DemoArchive::kGzipFlag) == 0) {
                        EXPECT_LE(entry.offset + content.size(), bytes.size());
                    } else {
                        EXPECT_EQ(content.size(), entry.unpackedSize);
                    }
                    EXPECT_EQ(archive->readCopy(key).size(), content.size());
                } catch (const std::runtime_error& e) {
                    ++seen[e.what()];
                    EXPECT_TRUE(allowed.count(e.what())) << "round " << round << ": " << e.what();
                }
            }
            EXPECT_THROW(archive->open("no/such/file"), std::runtime_error);
        } catch (const std::runtime_error& e) {
            ++seen[e.what()];
            EXPECT_TRUE(allowed.count(e.what())) << "round " << round << ": " << e.what();
        }
    }
    // The damage must have reached every layer, or the test proves little.
    EXPECT_GT(loaded, 400);
    EXPECT_GT(opened, 1000);
    for (const std::string& message : allowed) {
        EXPECT_GT(seen[message], 0) << "never saw: " << message;
    }
}

} // namespace
} // namespace brisvale
