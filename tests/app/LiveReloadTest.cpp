// Author mode's live-reload decisions: when a burst of file events is over, which files changed
// between two readings of a show, what of the running show that calls for, and errors that name
// the author's files as they lie on disk.
//
// [SECTION] Bursts
// [SECTION] Changed files
// [SECTION] What a change calls for
// [SECTION] Messages

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "app/LiveReload.h"
#include "content/ArchiveWriter.h"

namespace brisvale {
namespace {

using namespace std::chrono_literals;
using Files = std::vector<std::string>;

// ---------------------------------------------------------------------------------------------
// [SECTION] Bursts
// ---------------------------------------------------------------------------------------------

TEST(ChangeBurst, EventsCloseTogetherAreOneChangeOverAfterTheQuiet) {
    const auto t0 = ChangeBurst::Clock::now();
    ChangeBurst burst;
    EXPECT_FALSE(burst.pending());
    // An editor's save: the temporary file created, written, closed, then renamed into place.
    burst.note(false, t0);
    burst.note(false, t0 + 2ms);
    burst.note(true, t0 + 3ms);
    EXPECT_EQ(burst.dueAt(), t0 + 13ms);
    burst.note(false, t0 + 20ms);  // more came: the quiet starts again, the long one
    EXPECT_EQ(burst.dueAt(), t0 + 70ms);
    burst.note(true, t0 + 30ms);   // the rename
    EXPECT_EQ(burst.dueAt(), t0 + 40ms);
    EXPECT_EQ(burst.lastEventAt(), t0 + 30ms);
    burst.clear();
    EXPECT_FALSE(burst.pending());

    // The next change is timed from its own first event.
    burst.note(false, t0 + 1s);
    EXPECT_EQ(burst.dueAt(), t0 + 1s + 50ms);
}

TEST(ChangeBurst, AFileWrittenWithoutPauseIsStillPickedUp) {
    const auto t0 = ChangeBurst::Clock::now();
    ChangeBurst burst;
    for (int i = 0; i < 100; ++i) burst.note(false, t0 + i * 20ms);
    EXPECT_EQ(burst.dueAt(), t0 + 500ms);
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Changed files
// ---------------------------------------------------------------------------------------------

std::shared_ptr<DemoArchive> showOf(const std::vector<std::pair<std::string, std::string>>& files) {
    std::vector<ArchiveFile> archive;
    for (const auto& [path, text] : files) archive.push_back({path, {text.begin(), text.end()}});
    return DemoArchive::fromFiles(archive);
}

TEST(ChangedFiles, AddedRemovedAndRewrittenFilesInPathOrder) {
    const auto before = showOf({{"demo.ini", "a"}, {"shaders/main.glsl", "void f();"}, {"shaders/lib/x.glsl", "x"},
                                {"images/a.png", "AAAA"}, {"notes.txt", "n"}});
    const auto after = showOf({{"demo.ini", "a"}, {"shaders/main.glsl", "void g();"}, {"shaders/lib/y.glsl", "x"},
                               {"images/a.png", "AAAB"}, {"notes.txt", "n"}});
    EXPECT_EQ(changedFiles(fingerprintShow(*before), fingerprintShow(*after)),
              (Files{"images/a.png", "shaders/lib/x.glsl", "shaders/lib/y.glsl", "shaders/main.glsl"}));
    EXPECT_TRUE(changedFiles(fingerprintShow(*before), fingerprintShow(*before)).empty());
    EXPECT_EQ(changedFiles({}, fingerprintShow(*showOf({{"demo.ini", ""}}))), (Files{"demo.ini"}));
}

// ---------------------------------------------------------------------------------------------
// [SECTION] What a change calls for
// ---------------------------------------------------------------------------------------------

ShowFiles runningShow() {
    ShowFiles files;
    files.music = "music/song.ogg";
    files.shaders = {"shaders/main.glsl", "shaders/lib/noise.glsl"};
    files.images = {"assets.txt", "images/a.png", "images/b.png"};
    return files;
}

// A part that failed may need a file it never got to read (a missing include, created now): it
// is tried again on any change.
TEST(PlanReload, EachPartForItsOwnFilesAndAFailedPartOnAnyChange) {
    enum class Failed { None, Show, Shaders, Images };
    struct Case {
        Files changed;
        bool show, shaders, images;
        Files files;
        Failed failed = Failed::None;
    };
    const Case cases[] = {
        {{"shaders/lib/noise.glsl"}, false, true, false, {"shaders/lib/noise.glsl"}},
        {{"images/b.png"}, false, false, true, {"images/b.png"}},
        {{"assets.txt", "notes.txt"}, false, false, true, {"assets.txt"}},
        {{"images/a.png", "shaders/main.glsl"}, false, true, true, {"images/a.png", "shaders/main.glsl"}},
        {{"demo.ini"}, true, true, true, {"demo.ini"}},
        {{"music/song.ogg"}, true, true, true, {"music/song.ogg"}},
        // Files the show does not read, and a shader no longer included.
        {{"notes.txt", "shaders/old.glsl", "music/other.ogg"}, false, false, false, {}},
        {{}, false, false, false, {}},
        {{"shaders/lib/new.glsl"}, false, true, false, {"shaders/lib/new.glsl"}, Failed::Shaders},
        {{}, false, false, false, {}, Failed::Shaders},
        {{"shaders/main.glsl"}, false, true, true, {"shaders/main.glsl"}, Failed::Images},
        {{"notes.txt"}, true, true, true, {"notes.txt"}, Failed::Show},
    };
    for (const Case& c : cases) {
        ShowFiles files = runningShow();
        files.showFailed = c.failed == Failed::Show;
        files.shadersFailed = c.failed == Failed::Shaders;
        files.imagesFailed = c.failed == Failed::Images;
        const ReloadPlan plan = planReload(c.changed, files);
        const std::string what = "case " + std::to_string(&c - cases);
        EXPECT_EQ(plan.show, c.show) << what;
        EXPECT_EQ(plan.shaders, c.shaders) << what;
        EXPECT_EQ(plan.images, c.images) << what;
        EXPECT_EQ(plan.files, c.files) << what;
    }
}

TEST(PlanReload, FilesAreNamedFewAtATime) {
    EXPECT_EQ(describeFiles({"shaders/main.glsl"}), "shaders/main.glsl");
    EXPECT_EQ(describeFiles({"a", "b"}), "a and b");
    EXPECT_EQ(describeFiles({"a", "b", "c"}), "a, b and c");
    EXPECT_EQ(describeFiles({"a", "b", "c", "d", "e"}), "a, b, c and 2 more");
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Messages
// ---------------------------------------------------------------------------------------------

TEST(FilesOnDisk, LocationsOfShowFilesNameThemUnderTheDirectory) {
    const auto isShowFile = [](std::string_view path) {
        return path == "shaders/main.glsl" || path == "shaders/lib/noise.glsl" || path == "my shader.glsl";
    };
    EXPECT_EQ(withFilesOnDisk("Failed to compile Metal shader source: fragment stage: shaders/main.glsl:12: 'x' : "
                              "undeclared identifier; shaders/lib/noise.glsl:3: syntax error",
                              "shows/harbour", isShowFile),
              "Failed to compile Metal shader source: fragment stage: shows/harbour/shaders/main.glsl:12: 'x' : "
              "undeclared identifier; shows/harbour/shaders/lib/noise.glsl:3: syntax error");
    // A name with a space, at the start of a line; a directory given with its slash.
    EXPECT_EQ(withFilesOnDisk("a\nmy shader.glsl:7: oops", "my show/", isShowFile),
              "a\nmy show/my shader.glsl:7: oops");
    // Locations of no show file, and what only looks like one, stay as they are.
    for (const char* message : {"Failed to compile Metal shader source: 0:12: 'm' : macro expansion exceeds",
                                "Missing file in demo archive: shaders/lib/gone.glsl",
                                "other/shaders/main.glsl:3: x", "shaders/main.glsl:x: y", "shaders/main.glsl:12"}) {
        EXPECT_EQ(withFilesOnDisk(message, "show", isShowFile), message);
    }
}

} // namespace
} // namespace brisvale
