// When the window counts as having entered full screen: the window manager's state together with
// a resize since the request, or the state held for the settle time; never without the state.
#include <gtest/gtest.h>

#include "app/FullScreenEntry.h"

namespace brisvale {
namespace {

using namespace std::chrono_literals;
using Clock = FullScreenEntry::Clock;

TEST(FullScreenEntry, TheStateWithAResizeSinceTheRequestCountsAtOnceAndOnce) {
    FullScreenEntry entry;
    const Clock::time_point t0{};
    EXPECT_FALSE(entry.update(true, true, false, t0));  // asked, resized, not granted yet
    EXPECT_FALSE(entry.settlesAt()) << "nothing settles without the state";
    EXPECT_TRUE(entry.update(true, false, true, t0 + 1s));
    EXPECT_FALSE(entry.update(true, true, true, t0 + 2s));
    EXPECT_FALSE(entry.settlesAt());
    // Left and entered again, at another size: a second entry.
    EXPECT_FALSE(entry.update(false, true, false, t0 + 3s));
    EXPECT_FALSE(entry.update(true, false, false, t0 + 4s));
    EXPECT_TRUE(entry.update(true, true, true, t0 + 4s));
}

TEST(FullScreenEntry, TheStateWithoutAResizeCountsOnceItHasSettled) {
    FullScreenEntry entry;
    const Clock::time_point t0{};
    EXPECT_FALSE(entry.update(false, true, false, t0));  // a resize before the request is no answer
    EXPECT_FALSE(entry.update(true, false, true, t0 + 1s));
    ASSERT_TRUE(entry.settlesAt());
    EXPECT_EQ(*entry.settlesAt(), t0 + 1s + FullScreenEntry::kSettleTime);
    EXPECT_FALSE(entry.update(true, false, true, t0 + 1s + FullScreenEntry::kSettleTime - 1ms));
    EXPECT_TRUE(entry.update(true, false, true, t0 + 1s + FullScreenEntry::kSettleTime));
    // The state dropped before it settled starts the wait again.
    FullScreenEntry flicker;
    EXPECT_FALSE(flicker.update(true, false, true, t0));
    EXPECT_FALSE(flicker.update(true, false, false, t0 + 200ms));
    EXPECT_FALSE(flicker.update(true, false, true, t0 + 400ms));
    EXPECT_FALSE(flicker.update(true, false, true, t0 + 400ms + FullScreenEntry::kSettleTime - 1ms));
}

} // namespace
} // namespace brisvale
