// The default show's content is made at build time; the same sources must give the same
// bytes. Runs the generators and the packer twice into separate folders and compares.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "support/TestSupport.h"

namespace {

namespace fs = std::filesystem;

std::vector<char> bytesOf(const fs::path& p) {
    std::ifstream in(p, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

int run(const std::string& command) { return std::system((command + " >/dev/null 2>&1").c_str()); }

class Build {
public:
    explicit Build(const fs::path& root) : root_(root) {}
    // Generates, stages and packs as show/CMakeLists.txt does; returns the container's path.
    fs::path make() const {
        const fs::path gen = root_ / "generated", stage = root_ / "stage";
        fs::create_directories(gen / "images");
        fs::create_directories(stage / "images");
        fs::create_directories(stage / "music");
        EXPECT_EQ(run(std::string(BRISVALE_MAKE_IMAGES) + " " + (gen / "images").string()), 0);
        EXPECT_EQ(run(std::string(BRISVALE_MAKE_MUSIC) + " " + (stage / "music" / "lanterns-over-brisvale.ogg").string() +
                      " " + (gen / "images" / "cover.png").string()),
                  0);
        for (const char* image : {"title.png", "marble.png", "palette.png", "pattern.png"})
            fs::copy_file(gen / "images" / image, stage / "images" / image);
        const fs::path source = BRISVALE_SHOW_SOURCE;
        fs::copy(source / "shaders", stage / "shaders", fs::copy_options::recursive);
        fs::copy_file(source / "demo.ini", stage / "demo.ini");
        fs::copy_file(source / "assets.txt", stage / "assets.txt");
        const fs::path out = root_ / "demo.dat";
        EXPECT_EQ(run(std::string(BRISVALE_PACK) + " -o " + out.string() + " " + stage.string()), 0);
        return out;
    }

private:
    fs::path root_;
};

TEST(ShowBuild, TwoBuildsGiveTheSameDemoDat) {
    brisvale::testing::TempDir root;
    const Build first(root.path() / "a"), second(root.path() / "b");
    const fs::path a = first.make(), b = second.make();
    ASSERT_TRUE(fs::exists(a));
    ASSERT_TRUE(fs::exists(b));
    // The images and the music (with its cover) are all inside.
    const std::vector<char> packedA = bytesOf(a);
    EXPECT_GT(packedA.size(), 1000000u);
    EXPECT_EQ(packedA, bytesOf(b));
}

}  // namespace
