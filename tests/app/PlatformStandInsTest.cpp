// The plain-C++ stand-ins for the platform: the main-thread queue and the bundle lookup.
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <thread>
#include <vector>

#include "app/BundleResource.h"
#include "app/DisplayTimer.h"
#include "app/MainThreadQueue.h"
#include "support/TestSupport.h"

namespace brisvale {
namespace {

namespace fs = std::filesystem;

TEST(MainThreadQueue, RunsTasksInOrderAndWakesOncePerBatch) {
    int wakes = 0;
    MainThreadQueue queue([&] { ++wakes; });
    std::vector<int> ran;
    for (int i = 0; i < 5; ++i) queue.post([&ran, i] { ran.push_back(i); });
    EXPECT_EQ(wakes, 1);
    EXPECT_EQ(queue.runPending(), 5u);
    EXPECT_EQ(ran, (std::vector<int>{0, 1, 2, 3, 4}));

    // A task posted while running waits for the next round, and wakes the loop for it.
    queue.post([&] { queue.post([&] { ran.push_back(5); }); });
    EXPECT_EQ(wakes, 2);
    EXPECT_EQ(queue.runPending(), 1u);
    EXPECT_EQ(ran.size(), 5u);
    EXPECT_EQ(wakes, 3);
    EXPECT_EQ(queue.runPending(), 1u);
    EXPECT_EQ(ran.back(), 5);
}

TEST(MainThreadQueue, NoTaskStartsOnceTheApplicationQuits) {
    MainThreadQueue queue(nullptr);
    bool quitting = false;
    std::vector<int> ran;
    queue.post([&] { ran.push_back(1); });
    queue.post([&] {
        ran.push_back(2);
        quitting = true;
    });
    queue.post([&] { ran.push_back(3); });
    queue.postAfter(std::chrono::milliseconds(0), [&] { ran.push_back(4); });
    EXPECT_EQ(queue.runPending([&] { return quitting; }), 2u);
    EXPECT_EQ(ran, (std::vector<int>{1, 2}));
}

TEST(MainThreadQueue, DelayedTasksWaitForTheirTime) {
    MainThreadQueue queue(nullptr);
    EXPECT_EQ(queue.millisecondsUntilNextDue(), -1);
    int ran = 0;
    queue.postAfter(std::chrono::hours(1), [&] { ++ran; });
    queue.postAfter(std::chrono::milliseconds(0), [&] { ran += 10; });
    std::this_thread::sleep_for(std::chrono::milliseconds(3));  // overdue: still 0, not less
    EXPECT_EQ(queue.millisecondsUntilNextDue(), 0);
    queue.runPending();
    EXPECT_EQ(ran, 10);
    EXPECT_GT(queue.millisecondsUntilNextDue(), 3500 * 1000);
    queue.dropAll();
    EXPECT_EQ(queue.millisecondsUntilNextDue(), -1);
}

TEST(MainThreadQueue, PostsFromOtherThreadsAllArrive) {
    std::atomic<int> wakes{0};
    MainThreadQueue queue([&] { ++wakes; });
    std::atomic<int> ran{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 1000; ++i) queue.post([&] { ++ran; });
        });
    }
    std::size_t total = 0;
    while (total < 4000) total += queue.runPending();
    for (auto& t : threads) t.join();
    EXPECT_EQ(ran.load(), 4000);
    EXPECT_GE(wakes.load(), 1);
}

TEST(DisplayTimer, TicksOnItsOwnThreadUntilStopped) {
    std::atomic<int> ticks{0};
    std::atomic<bool> onOtherThread{true};
    const auto mainThread = std::this_thread::get_id();
    DisplayTimer timer(1000.0, [&] {
        if (std::this_thread::get_id() == mainThread) onOtherThread = false;
        ++ticks;
    });
    timer.start();
    while (ticks.load() < 3) std::this_thread::yield();
    timer.stop();
    const int atStop = ticks.load();
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_EQ(ticks.load(), atStop);  // no tick after stop returned
    EXPECT_TRUE(onOtherThread.load());
}

TEST(DisplayTimer, UnknownRefreshRateMeans60) {
    EXPECT_EQ(DisplayTimer::refreshRateOr60(0), 60.0);
    EXPECT_EQ(DisplayTimer::refreshRateOr60(-1), 60.0);
    EXPECT_EQ(DisplayTimer::refreshRateOr60(144), 144.0);
}

// Beside the executable first, then the installed shared folder; a folder is not the resource.
TEST(BundleResource, BesideTheExecutableThenTheSharedFolder) {
    testing::TempDir dir;
    const fs::path bin = dir.path() / "bin", shared = dir.path() / "share" / "brisvale";
    fs::create_directories(bin);
    fs::create_directories(shared);
    EXPECT_EQ(bundleResourcePath(bin.string(), "demo.dat"), std::nullopt);
    EXPECT_EQ(bundleResourcePath("", "demo.dat"), std::nullopt);
    std::ofstream(shared / "demo.dat") << "x";
    EXPECT_EQ(bundleResourcePath(bin.string(), "demo.dat"), (shared / "demo.dat").string());
    std::ofstream(bin / "demo.dat") << "x";
    EXPECT_EQ(bundleResourcePath(bin.string(), "demo.dat"), (bin / "demo.dat").string());
    fs::remove(bin / "demo.dat");
    fs::remove(shared / "demo.dat");
    fs::create_directories(bin / "demo.dat");
    EXPECT_EQ(bundleResourcePath(bin.string(), "demo.dat"), std::nullopt);
}

TEST(RunningExecutable, IsThisTestsFolder) {
    const std::string dir = runningExecutableDirectory();
    ASSERT_FALSE(dir.empty());
    EXPECT_TRUE(fs::exists(fs::path(dir) / "test_app_view_logic"));
}

} // namespace
} // namespace brisvale
