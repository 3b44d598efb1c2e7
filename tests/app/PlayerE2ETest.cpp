// The player end to end: the real executable in a bundle folder of its own with a demo.dat packed
// from a variant of the test show, on a private Xvfb display with lavapipe (validation on) and
// SDL's dummy audio driver. Each test watches what a user would: windows, pixels, exit status,
// standard error.
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "app/e2e/X11Session.h"
#include "content/ArchiveWriter.h"

namespace brisvale::e2e {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr const char* kTitle = "Brisvale Metal";


std::vector<std::uint8_t> bytesOf(const std::string& text) { return {text.begin(), text.end()}; }

std::vector<std::uint8_t> readBytes(const fs::path& path) {
    const std::string text = readFile(path);
    return bytesOf(text);
}

// A song made by ffmpeg, `seconds` long.
std::vector<std::uint8_t> flacSong(const fs::path& dir, int seconds) {
    const fs::path path = dir / ("song-" + std::to_string(seconds) + ".flac");
    int status = 0;
    shell("ffmpeg -nostdin -v error -y -f lavfi -i sine=frequency=330:sample_rate=44100:duration=" +
              std::to_string(seconds) + " -ac 2 -c:a flac '" + path.string() + "'",
          &status);
    if (status != 0) throw std::runtime_error("ffmpeg failed");
    return readBytes(path);
}

// One bundle: a copy of the player and, unless told otherwise, a demo.dat.
class Bundle {
public:
    Bundle() {
        std::string pattern = (fs::temp_directory_path() / "brisvale-e2e-XXXXXX").string();
        if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
        dir_ = pattern;
        fs::copy_file(BRISVALE_PLAYER_PATH, player());
    }
    ~Bundle() {
        std::error_code ec;
        fs::remove_all(dir_, ec);
    }
    const fs::path& dir() const { return dir_; }
    fs::path player() const { return dir_ / "brisvale"; }

    // The test show's files, by archive path.
    static std::map<std::string, std::vector<std::uint8_t>> testShow() {
        std::map<std::string, std::vector<std::uint8_t>> files;
        const fs::path root = BRISVALE_TEST_SHOW_DIR;
        for (const auto& entry : fs::recursive_directory_iterator(root)) {
            if (entry.is_regular_file()) {
                files[fs::relative(entry.path(), root).generic_string()] = readBytes(entry.path());
            }
        }
        return files;
    }

    void pack(const std::map<std::string, std::vector<std::uint8_t>>& files) const { packTo(dir_ / "demo.dat", files); }

    static void packTo(const fs::path& file, const std::map<std::string, std::vector<std::uint8_t>>& files) {
        std::vector<ArchiveFile> archive;
        for (const auto& [path, bytes] : files) archive.push_back({path, bytes});
        writeArchiveFile(file.string(), archive);
    }

private:
    fs::path dir_;
};

// One run of the player.
struct PlayerRun {
    Child process;
    Clock::time_point started;
    fs::path out;
    fs::path err;

    std::string stderrText() const { return readFile(err); }
};

class PlayerE2E : public ::testing::Test {
protected:
    PlayerRun start(const Bundle& bundle, const std::map<std::string, std::string>& extraEnv = {}) {
        return startWith(bundle, {}, extraEnv);
    }

    // The player with arguments. The loader adds the validation layer, whose messages reach the
    // player's messenger without an argument of its own.
    PlayerRun startWith(const Bundle& bundle, const std::vector<std::string>& arguments,
                        const std::map<std::string, std::string>& extraEnv = {}) {
        PlayerRun run;
        run.out = bundle.dir() / "stdout.txt";
        run.err = bundle.dir() / "stderr.txt";
        run.started = Clock::now();
        std::map<std::string, std::string> env{{"SDL_AUDIODRIVER", "dummy"},
                                               {"VK_INSTANCE_LAYERS", "VK_LAYER_KHRONOS_validation"},
                                               {"VK_ICD_FILENAMES", "/usr/share/vulkan/icd.d/lvp_icd.x86_64.json"}};
        for (const auto& [name, value] : extraEnv) env[name] = value;
        std::vector<std::string> argv{bundle.player().string()};
        argv.insert(argv.end(), arguments.begin(), arguments.end());
        run.process = spawn(argv, env, run.out, run.err);
        return run;
    }

    // Waits until the window is mapped at the given size; returns when it was first seen so.
    static std::optional<Clock::time_point> waitForWindow(X11Session& x, PlayerRun& run, int width, int height,
                                                          std::chrono::seconds limit = 20s) {
        const auto deadline = Clock::now() + limit;
        while (Clock::now() < deadline && run.process.running()) {
            const auto w = x.window(kTitle);
            if (w && w->viewable && w->width == width && w->height == height) return Clock::now();
            std::this_thread::sleep_for(20ms);
        }
        return std::nullopt;
    }

    static void expectNoValidationMessages(const PlayerRun& run) {
        EXPECT_EQ(run.stderrText().find("Vulkan validation"), std::string::npos) << run.stderrText();
    }
};

void expectNear(Screenshot::Pixel p, int r, int g, int b, int tolerance = 3) {
    EXPECT_NEAR(p.r, r, tolerance);
    EXPECT_NEAR(p.g, g, tolerance);
    EXPECT_NEAR(p.b, b, tolerance);
}

// The band's colour for a drawable of width x height: each over 4096, in 8 bits.
int bandValue(int size) { return static_cast<int>(size / 4096.0 * 255.0 + 0.5); }

// ---------------------------------------------------------------------------------------------

TEST_F(PlayerE2E, AOneSecondShowGoesFullScreenRendersAndEndsByItself) {
    X11Session x(/*withWindowManager=*/true);
    Bundle bundle;
    bundle.pack(Bundle::testShow());
    PlayerRun run = start(bundle);

    const auto fullScreenAt = waitForWindow(x, run, 1920, 1080);
    ASSERT_TRUE(fullScreenAt) << run.stderrText();

    std::this_thread::sleep_until(*fullScreenAt + 1500ms);
    const Screenshot shot = x.screenshot();
    expectNear(shot.at(200, 540), 255, 0, 0);    // intro quad, left half
    expectNear(shot.at(1440, 540), 0, 255, 0);   // generated triangles, right half
    expectNear(shot.at(1700, 300), 5, 5, 6);     // clear colour between them
    expectNear(shot.at(1440, 40), bandValue(1920), bandValue(1080), 255);  // a 1920 x 1080 drawable

    const auto status = run.process.waitFor(15s);
    ASSERT_TRUE(status) << "the show did not end by itself";
    const double afterFullScreen = std::chrono::duration<double>(Clock::now() - *fullScreenAt).count();
    const double afterLaunch = std::chrono::duration<double>(Clock::now() - run.started).count();
    EXPECT_EQ(*status, 0) << run.stderrText();
    // 1 s of music and 3.75 s of tail on the show clock, which starts at the full-screen entry:
    // never before 0.25 s after the launch, and seen here a little after it happened.
    // The margin covers the last frame (slow on a software GPU) and the teardown.
    EXPECT_GE(afterLaunch, 0.25 + 4.75);
    EXPECT_GE(afterFullScreen, 4.75 - 0.5);
    EXPECT_LE(afterFullScreen, 4.75 + 2.5) << "on a machine this loaded the margin may be too small";
    EXPECT_EQ(run.stderrText(), "");
}

// A desktop with panels, tiling or scaling grants full screen at a size other than the display's,
// and takes its time about it: the show starts when full screen is granted, not when asked for.
TEST_F(PlayerE2E, FullScreenGrantedLateAtAnotherSizeStartsTheShow) {
    X11Session x(FullScreenGrant{60, 40, 1800, 1000, 1500ms});
    Bundle bundle;
    bundle.pack(Bundle::testShow());
    PlayerRun run = start(bundle);

    const auto fullScreenAt = waitForWindow(x, run, 1800, 1000);
    ASSERT_TRUE(fullScreenAt) << run.stderrText();

    std::this_thread::sleep_until(*fullScreenAt + 1500ms);
    const Screenshot shot = x.screenshot();
    // The full-screen drawable, 1920 x 1080, stretched over the window at (60, 40).
    expectNear(shot.at(60 + 190, 40 + 500), 255, 0, 0);
    expectNear(shot.at(60 + 1350, 40 + 500), 0, 255, 0);
    expectNear(shot.at(60 + 1350, 40 + 37), bandValue(1920), bandValue(1080), 255);

    const auto status = run.process.waitFor(15s);
    ASSERT_TRUE(status) << "the show did not end by itself";
    const double afterFullScreen = std::chrono::duration<double>(Clock::now() - *fullScreenAt).count();
    EXPECT_EQ(*status, 0) << run.stderrText();
    EXPECT_GE(afterFullScreen, 4.75 - 0.5);
    EXPECT_LE(afterFullScreen, 4.75 + 2.5) << "on a machine this loaded the margin may be too small";
    EXPECT_EQ(run.stderrText(), "");
}

// A window manager that leaves the request unanswered: SDL believes the window is full screen,
// but it never is, so the show must not start.
// A bare X server, as `make run` starts under xvfb-run: no window manager sets any state, SDL
// covers the display itself, and the show must still start and end.
TEST_F(PlayerE2E, WithoutAWindowManagerTheShowStillPlaysToItsEnd) {
    X11Session x(/*withWindowManager=*/false);
    Bundle bundle;
    bundle.pack(Bundle::testShow());
    PlayerRun run = start(bundle);

    const auto status = run.process.waitFor(20s);
    ASSERT_TRUE(status) << "the show did not end by itself";
    EXPECT_EQ(*status, 0) << run.stderrText();
    EXPECT_GE(std::chrono::duration<double>(Clock::now() - run.started).count(), 0.25 + 4.75);
    EXPECT_EQ(run.stderrText(), "");
}

TEST_F(PlayerE2E, FullScreenNeverGrantedNeverStartsTheShow) {
    X11Session x(FullScreenGrant{});
    Bundle bundle;
    bundle.pack(Bundle::testShow());
    PlayerRun run = start(bundle);

    const auto shownAt = waitForWindow(x, run, 1280, 720);
    ASSERT_TRUE(shownAt) << run.stderrText();
    std::this_thread::sleep_until(*shownAt + 1500ms);
    const auto w = x.window(kTitle);
    ASSERT_TRUE(w);
    EXPECT_EQ(w->width, 1280);
    EXPECT_LT(x.screenshot().at(w->x + 100, w->y + 360).r, 128) << "the show started in a window";

    x.key("Escape");
    const auto status = run.process.waitFor(5s);
    ASSERT_TRUE(status);
    EXPECT_EQ(*status, 0);
    EXPECT_EQ(run.stderrText(), "");
}

TEST_F(PlayerE2E, NoDemoDatFailsTheLaunchWithOneLineAndNeverShowsTheWindow) {
    X11Session x(/*withWindowManager=*/false);
    Bundle bundle;  // nothing packed
    // Every window mapped on the display while the player runs.
    Child watcher = spawn({"xev", "-root", "-event", "substructure"}, {}, bundle.dir() / "xev.txt", "/dev/null");
    std::this_thread::sleep_for(300ms);
    PlayerRun run = start(bundle);
    const auto status = run.process.waitFor(20s);
    ASSERT_TRUE(status);
    std::this_thread::sleep_for(200ms);
    watcher.kill();

    EXPECT_EQ(*status, 1);
    EXPECT_EQ(run.stderrText(), "Launch failed: Missing demo.dat in app bundle\n");
    EXPECT_EQ(readFile(run.out), "");
    const std::string events = readFile(bundle.dir() / "xev.txt");
    EXPECT_NE(events.find("CreateNotify"), std::string::npos) << "the watcher saw nothing at all";
    EXPECT_EQ(events.find("MapNotify"), std::string::npos) << events;
}

TEST_F(PlayerE2E, ABrokenDemoIniGivesItsOwnMessage) {
    X11Session x(/*withWindowManager=*/false);
    Bundle bundle;
    auto show = Bundle::testShow();
    show["demo.ini"] = bytesOf("demo.timeline.audio = music/song.flac\ndemo.output.fps = sixty\n");
    bundle.pack(show);
    PlayerRun run = start(bundle);
    const auto status = run.process.waitFor(20s);
    ASSERT_TRUE(status);
    EXPECT_EQ(*status, 1);
    EXPECT_EQ(run.stderrText(), "Launch failed: Invalid numeric demo manifest value: demo.output.fps\n");
    EXPECT_FALSE(x.window(kTitle).has_value());
}

TEST_F(PlayerE2E, WithoutAVulkanDeviceTheRendererRefusesTheLaunch) {
    X11Session x(/*withWindowManager=*/false);
    Bundle bundle;
    bundle.pack(Bundle::testShow());
    // No driver, so nothing to validate (the loader's own complaints would come through the layer).
    PlayerRun run = start(bundle, {{"VK_ICD_FILENAMES", (bundle.dir() / "no-such-driver.json").string()},
                                   {"VK_INSTANCE_LAYERS", ""}});
    const auto status = run.process.waitFor(20s);
    ASSERT_TRUE(status);
    EXPECT_EQ(*status, 1);
    EXPECT_EQ(run.stderrText(), "Launch failed: Metal device is not available\n");
}

// SDL cannot load Vulkan, so the window is made without it, yet the renderer would find a device:
// the window's surface fails, in the launch's one line and nowhere else.
TEST_F(PlayerE2E, AWindowWithoutVulkanFailsTheLaunchWithOneLine) {
    X11Session x(/*withWindowManager=*/false);
    Bundle bundle;
    bundle.pack(Bundle::testShow());
    PlayerRun run = start(bundle, {{"SDL_VULKAN_LIBRARY", (bundle.dir() / "no-such-libvulkan.so").string()}});
    const auto status = run.process.waitFor(20s);
    ASSERT_TRUE(status);
    EXPECT_EQ(*status, 1);
    EXPECT_EQ(run.stderrText(), "Launch failed: Vulkan device was created without window support\n");
}

// Each way of quitting while the show runs: the view's Escape (with and without a modifier),
// the menu's Ctrl+Q, and closing the window through the window manager (openbox: Alt+F4).
class PlayerQuits : public PlayerE2E, public ::testing::WithParamInterface<const char*> {};

TEST_P(PlayerQuits, WhileTheShowRuns) {
    X11Session x(/*withWindowManager=*/true);
    Bundle bundle;
    auto show = Bundle::testShow();
    show["music/song.flac"] = flacSong(bundle.dir(), 30);
    bundle.pack(show);
    PlayerRun run = start(bundle);
    ASSERT_TRUE(waitForWindow(x, run, 1920, 1080)) << run.stderrText();
    std::this_thread::sleep_for(500ms);
    ASSERT_TRUE(run.process.running());

    x.key(GetParam());
    const auto status = run.process.waitFor(5s);
    ASSERT_TRUE(status) << GetParam() << " did not end the show";
    EXPECT_EQ(*status, 0);
    EXPECT_EQ(run.stderrText(), "");
}

INSTANTIATE_TEST_SUITE_P(Keys, PlayerQuits, ::testing::Values("Escape", "shift+Escape", "ctrl+q", "alt+F4"),
                         [](const ::testing::TestParamInfo<const char*>& info) {
                             std::string name;
                             for (const char* c = info.param; *c; ++c) name += std::isalnum(static_cast<unsigned char>(*c)) ? *c : '_';
                             return name;
                         });

TEST_F(PlayerE2E, FLeavesFullScreenAndTheDrawableFollowsTheWindow) {
    X11Session x(/*withWindowManager=*/true);
    Bundle bundle;
    auto show = Bundle::testShow();
    show["music/song.flac"] = flacSong(bundle.dir(), 30);
    bundle.pack(show);
    PlayerRun run = start(bundle);
    ASSERT_TRUE(waitForWindow(x, run, 1920, 1080)) << run.stderrText();
    std::this_thread::sleep_for(500ms);

    x.key("f");
    ASSERT_TRUE(waitForWindow(x, run, 1280, 720, 10s)) << "f did not leave full screen";
    std::this_thread::sleep_for(500ms);  // a few frames at the new size
    const auto w = x.window(kTitle);
    ASSERT_TRUE(w);
    const Screenshot shot = x.screenshot();
    // The same picture, now drawn at the window's 1280 x 720 pixels.
    expectNear(shot.at(w->x + 100, w->y + 360), 255, 0, 0);
    expectNear(shot.at(w->x + 960, w->y + 360), 0, 255, 0);
    expectNear(shot.at(w->x + 960, w->y + 25), bandValue(1280), bandValue(720), 255);
    EXPECT_TRUE(run.process.running()) << "the show must go on";

    // Back to full screen with the menu's key equivalent, the show still running.
    x.key("ctrl+Return");
    ASSERT_TRUE(waitForWindow(x, run, 1920, 1080, 10s));
    std::this_thread::sleep_for(300ms);
    expectNear(x.screenshot().at(1440, 40), bandValue(1920), bandValue(1080), 255);

    x.key("Escape");
    const auto status = run.process.waitFor(5s);
    ASSERT_TRUE(status);
    EXPECT_EQ(*status, 0);
    expectNoValidationMessages(run);
}

TEST_F(PlayerE2E, MusicTheDecoderRejectsRunsSilentUntilEscape) {
    X11Session x(/*withWindowManager=*/true);
    Bundle bundle;
    auto show = Bundle::testShow();
    show["music/song.flac"] = bytesOf(std::string(4096, 'x'));
    bundle.pack(show);
    PlayerRun run = start(bundle);
    const auto fullScreenAt = waitForWindow(x, run, 1920, 1080);
    ASSERT_TRUE(fullScreenAt) << run.stderrText();

    // No end time: still running well after where a song of length 0 would have ended it.
    std::this_thread::sleep_until(*fullScreenAt + 5s);
    EXPECT_TRUE(run.process.running());
    expectNear(x.screenshot().at(200, 540), 255, 0, 0);

    x.key("Escape");
    const auto status = run.process.waitFor(5s);
    ASSERT_TRUE(status);
    EXPECT_EQ(*status, 0);
    EXPECT_EQ(run.stderrText(), "Failed to load audio asset\n");
}

// ---------------------------------------------------------------------------------------------
// The command line

// --help, --version and a command line the player does not understand are answered before SDL
// starts: no display is needed, and no show is looked for.
TEST_F(PlayerE2E, TheCommandLineIsAnsweredWithoutADisplay) {
    Bundle bundle;  // no demo.dat
    struct Case {
        std::vector<std::string> arguments;
        int status;
        std::string stdoutStart;
        std::string stderrStart;
        long lines;  // of the answer, on stdout or stderr; 0 for any number
    };
    const std::vector<Case> cases = {
        {{"--help"}, 0, "Usage: brisvale [OPTIONS] [SHOW]\n", "", 0},
        {{"--version"}, 0, "brisvale ", "", 1},
        {{"--bogus"}, 2, "", "brisvale: unknown option '--bogus'\nUsage: brisvale [", 2},
        {{"--windowed", "--start"}, 2, "", "brisvale: --start needs a value (SECONDS)\nUsage: brisvale [", 2},
    };
    for (const Case& c : cases) {
        std::vector<std::string> argv{"env", "-u", "DISPLAY", "-u", "WAYLAND_DISPLAY", bundle.player().string()};
        argv.insert(argv.end(), c.arguments.begin(), c.arguments.end());
        Child child = spawn(argv, {}, bundle.dir() / "out.txt", bundle.dir() / "err.txt");
        const auto status = child.waitFor(10s);
        const std::string out = readFile(bundle.dir() / "out.txt");
        const std::string err = readFile(bundle.dir() / "err.txt");
        ASSERT_TRUE(status) << c.arguments[0];
        EXPECT_EQ(*status, c.status) << c.arguments[0] << ": " << err;
        EXPECT_EQ(out.rfind(c.stdoutStart, 0), 0u) << out;
        EXPECT_EQ(err.rfind(c.stderrStart, 0), 0u) << err;
        // The answer goes to one stream only, in whole lines.
        const std::string& answer = c.status == 0 ? out : err;
        EXPECT_EQ(c.status == 0 ? err : out, "");
        ASSERT_FALSE(answer.empty()) << c.arguments[0];
        EXPECT_EQ(answer.back(), '\n');
        if (c.lines > 0) {
            EXPECT_EQ(std::count(answer.begin(), answer.end(), '\n'), c.lines) << answer;
        }
    }
}

// A show file named on the command line plays as if it lay beside the player, and a path that
// leads to no show is named as it was given.
TEST_F(PlayerE2E, AShowFileGivenOnTheCommandLinePlaysLikeTheBundledOne) {
    X11Session x(/*withWindowManager=*/true);
    Bundle bundle;  // nothing beside the player
    fs::create_directories(bundle.dir() / "shows");
    const fs::path show = bundle.dir() / "shows" / "my show.dat";
    Bundle::packTo(show, Bundle::testShow());
    PlayerRun run = startWith(bundle, {show.string()});

    const auto fullScreenAt = waitForWindow(x, run, 1920, 1080);
    ASSERT_TRUE(fullScreenAt) << run.stderrText();
    std::this_thread::sleep_until(*fullScreenAt + 1500ms);
    const Screenshot shot = x.screenshot();
    expectNear(shot.at(200, 540), 255, 0, 0);
    expectNear(shot.at(1440, 540), 0, 255, 0);

    const auto status = run.process.waitFor(15s);
    ASSERT_TRUE(status) << "the show did not end by itself";
    EXPECT_EQ(*status, 0) << run.stderrText();
    EXPECT_GE(std::chrono::duration<double>(Clock::now() - *fullScreenAt).count(), 4.75 - 0.5);
    EXPECT_EQ(run.stderrText(), "");

    PlayerRun missing = startWith(bundle, {"shows/no such show.dat"});
    const auto missingStatus = missing.process.waitFor(20s);
    ASSERT_TRUE(missingStatus);
    EXPECT_EQ(*missingStatus, 1);
    EXPECT_EQ(missing.stderrText(), "Launch failed: Failed to open demo archive: shows/no such show.dat\n");
}

// --windowed never asks for full screen and starts the show once the window is shown; --start 10
// begins in the middle phase (the image, blue) and so ends 3.75 s after the 10 s song, not 13.75 s.
TEST_F(PlayerE2E, WindowedFromALaterStartShowsThatTimeAndEndsOnTime) {
    X11Session x(/*withWindowManager=*/true);
    Bundle bundle;
    auto show = Bundle::testShow();
    show["music/song.flac"] = flacSong(bundle.dir(), 10);
    bundle.pack(show);
    PlayerRun run = startWith(bundle, {"--windowed", "--start", "10"});

    const auto shownAt = waitForWindow(x, run, 1280, 720);
    ASSERT_TRUE(shownAt) << run.stderrText();
    std::this_thread::sleep_until(*shownAt + 1500ms);
    const auto w = x.window(kTitle);
    ASSERT_TRUE(w);
    EXPECT_EQ(w->width, 1280) << "the window went full screen";
    const Screenshot shot = x.screenshot();
    expectNear(shot.at(w->x + 200, w->y + 360), 0x20, 0x40, 0xff);
    expectNear(shot.at(w->x + 960, w->y + 360), 0x20, 0x40, 0xff);

    const auto status = run.process.waitFor(15s);
    ASSERT_TRUE(status) << "the show did not end by itself";
    const double afterShown = std::chrono::duration<double>(Clock::now() - *shownAt).count();
    EXPECT_EQ(*status, 0) << run.stderrText();
    EXPECT_GE(afterShown, 3.75 - 0.5);
    EXPECT_LE(afterShown, 3.75 + 2.5) << "on a machine this loaded the margin may be too small";
    EXPECT_EQ(run.stderrText(), "");
}

} // namespace
} // namespace brisvale::e2e
