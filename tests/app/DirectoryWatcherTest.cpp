// The show directory's watcher on real inotify: an editor's save is one change, a directory made
// while watching is watched too, and reading the show's files (as a reload does) is no change.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "app/platform/DirectoryWatcher.h"
#include "support/TestSupport.h"

namespace brisvale {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

class WatchedDirectory : public ::testing::Test {
protected:
    WatchedDirectory() { fs::create_directories(root_ / "shaders"); }
    void watch() {
        watcher_ = std::make_unique<DirectoryWatcher>(
            root_, [this](DirectoryWatcher::Clock::time_point) { ++changes_; },
            [](std::string_view) { ADD_FAILURE() << "a watcher problem"; });
    }
    // Waits until `count` changes were seen, then a while longer for any that should not come.
    int changesAfter(int count) {
        const auto deadline = std::chrono::steady_clock::now() + 10s;
        while (changes_ < count && std::chrono::steady_clock::now() < deadline) std::this_thread::sleep_for(5ms);
        std::this_thread::sleep_for(ChangeBurst::kQuiet * 4);
        return changes_;
    }
    static void write(const fs::path& file, const std::string& text) { std::ofstream(file) << text; }

    testing::TempDir dir_;
    const fs::path root_ = dir_.path();
    std::atomic<int> changes_{0};
    std::unique_ptr<DirectoryWatcher> watcher_;  // goes before the directory
};

TEST_F(WatchedDirectory, ASaveByRenameIsOneChange) {
    write(root_ / "shaders/main.glsl", "void a();\n");
    watch();
    write(root_ / "shaders/.main.glsl.tmp", "void b();\n");
    fs::rename(root_ / "shaders/.main.glsl.tmp", root_ / "shaders/main.glsl");
    EXPECT_EQ(changesAfter(1), 1);

    // Reading is no change.
    std::string text;
    std::getline(std::ifstream(root_ / "shaders/main.glsl"), text);
    EXPECT_EQ(changesAfter(1), 1);
}

TEST_F(WatchedDirectory, ADirectoryMadeWhileWatchingIsWatchedToo) {
    watch();
    fs::create_directories(root_ / "shaders/lib/deep");
    EXPECT_EQ(changesAfter(1), 1);
    write(root_ / "shaders/lib/deep/noise.glsl", "float n();\n");
    EXPECT_EQ(changesAfter(2), 2);
    fs::remove(root_ / "shaders/lib/deep/noise.glsl");
    EXPECT_EQ(changesAfter(3), 3);
}

} // namespace
} // namespace brisvale
