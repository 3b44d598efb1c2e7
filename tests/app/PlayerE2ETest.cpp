// The player end to end: the real executable in a bundle folder of its own with a demo.dat packed
// from a variant of the test show, on a private Xvfb display with lavapipe (validation on) and
// SDL's dummy audio driver. Each test watches what a user would: windows, pixels, exit status,
// standard error.
//
// [SECTION] The player started without arguments
// [SECTION] The command line
// [SECTION] Author mode: a show directory played live
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "app/e2e/X11Session.h"
#include "content/ArchiveWriter.h"
#include "support/TestSupport.h"

namespace brisvale::e2e {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr const char* kTitle = "Brisvale Metal";


using testing::toBytes;

std::vector<std::uint8_t> readBytes(const fs::path& path) { return toBytes(readFile(path)); }

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
    Bundle() { fs::copy_file(BRISVALE_PLAYER_PATH, player()); }
    const fs::path& dir() const { return dir_.path(); }
    fs::path player() const { return dir() / "brisvale"; }

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

    void pack(const std::map<std::string, std::vector<std::uint8_t>>& files) const { packTo(dir() / "demo.dat", files); }

    static void packTo(const fs::path& file, const std::map<std::string, std::vector<std::uint8_t>>& files) {
        std::vector<ArchiveFile> archive;
        for (const auto& [path, bytes] : files) archive.push_back({path, bytes});
        writeArchiveFile(file.string(), archive);
    }

private:
    testing::TempDir dir_;
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
        // With arguments the player keeps a pipeline cache: in the bundle, not the user's home.
        std::map<std::string, std::string> env{{"SDL_AUDIODRIVER", "dummy"},
                                               {"VK_INSTANCE_LAYERS", "VK_LAYER_KHRONOS_validation"},
                                               {"VK_ICD_FILENAMES", "/usr/share/vulkan/icd.d/lvp_icd.x86_64.json"},
                                               {"XDG_CACHE_HOME", (bundle.dir() / "cache").string()}};
        for (const auto& [name, value] : extraEnv) env[name] = value;
        std::vector<std::string> argv{bundle.player().string()};
        argv.insert(argv.end(), arguments.begin(), arguments.end());
        run.process = spawn(argv, env, run.out, run.err);
        return run;
    }

    // Waits until the window is mapped at the given size; returns when it was first seen so.
    // Author mode's title changes as the show runs: only its start is known.
    static std::optional<Clock::time_point> waitForWindow(X11Session& x, PlayerRun& run, int width, int height,
                                                          std::chrono::seconds limit = 20s, bool titleChanges = false) {
        const auto deadline = Clock::now() + limit;
        while (Clock::now() < deadline && run.process.running()) {
            const auto w = titleChanges ? x.windowTitled(kTitle) : x.window(kTitle);
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
// [SECTION] The player started without arguments

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
    EXPECT_FALSE(fs::exists(bundle.dir() / "cache" / "brisvale")) << "a player without arguments kept a cache";
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
    show["demo.ini"] = toBytes("demo.timeline.audio = music/song.flac\ndemo.output.fps = sixty\n");
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

INSTANTIATE_TEST_SUITE_P(Keys, PlayerQuits, ::testing::Values("Escape", "shift+Escape", "ctrl+q", "alt+F4"));

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
    show["music/song.flac"] = toBytes(std::string(4096, 'x'));
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
// [SECTION] The command line

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
        {{"--windowed", "--bogus"}, 2, "", "brisvale: unknown option '--bogus'\nUsage: brisvale [", 2},
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
// leads to no show is named as it was given. --start 10 begins in the middle phase (the image,
// blue) and so ends 3.75 s after the 10 s song, not 13.75 s. (--windowed: author mode's test.)
TEST_F(PlayerE2E, AShowFileGivenOnTheCommandLinePlaysFromALaterStartAndEndsOnTime) {
    X11Session x(/*withWindowManager=*/true);
    Bundle bundle;  // nothing beside the player
    fs::create_directories(bundle.dir() / "shows");
    const fs::path show = bundle.dir() / "shows" / "my show.dat";
    auto files = Bundle::testShow();
    files["music/song.flac"] = flacSong(bundle.dir(), 10);
    Bundle::packTo(show, files);
    PlayerRun run = startWith(bundle, {"--start", "10", show.string()});

    const auto fullScreenAt = waitForWindow(x, run, 1920, 1080);
    ASSERT_TRUE(fullScreenAt) << run.stderrText();
    std::this_thread::sleep_until(*fullScreenAt + 1500ms);
    const Screenshot shot = x.screenshot();
    expectNear(shot.at(200, 540), 0x20, 0x40, 0xff);
    expectNear(shot.at(1440, 540), 0x20, 0x40, 0xff);

    const auto status = run.process.waitFor(15s);
    ASSERT_TRUE(status) << "the show did not end by itself";
    const double afterFullScreen = std::chrono::duration<double>(Clock::now() - *fullScreenAt).count();
    EXPECT_EQ(*status, 0) << run.stderrText();
    EXPECT_GE(afterFullScreen, 3.75 - 0.5);
    EXPECT_LE(afterFullScreen, 3.75 + 2.5) << "on a machine this loaded the margin may be too small";
    EXPECT_EQ(run.stderrText(), "");

    PlayerRun missing = startWith(bundle, {"shows/no such show.dat"});
    const auto missingStatus = missing.process.waitFor(20s);
    ASSERT_TRUE(missingStatus);
    EXPECT_EQ(*missingStatus, 1);
    EXPECT_EQ(missing.stderrText(), "Launch failed: Failed to open demo archive: shows/no such show.dat\n");
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Author mode: a show directory played live

// The author's show. The left third's red is the show time over 32 s, the middle third's green
// the version in an included file, the right third the first image.
constexpr const char* kAuthorShader = R"(#include "lib/frame.glsl"
#include "version.glsl"

#ifdef BRISVALE_COMPUTE
layout(local_size_x = 64) in;
void scene_compute() {
    if (gl_GlobalInvocationID.x == 0u) {
        drawArguments.vertexCount = 0u; drawArguments.instanceCount = 0u; drawArguments.firstVertex = 0u;
        drawArguments.firstInstance = 0u;
        request.requestedVertexCount = 0u; request.overflowFlag = 0u;
    }
}
#endif
#ifdef BRISVALE_VERTEX
layout(location = 0) out vec2 quadUv;
void scene_vertex() {
    vec2 uv = vec2(float(gl_VertexIndex & 1), float((gl_VertexIndex >> 1) & 1));
    gl_Position = vec4(uv.x * 2.0 - 1.0, 1.0 - uv.y * 2.0, 0.0, 1.0);
    quadUv = uv;
}
#endif
#ifdef BRISVALE_FRAGMENT
layout(location = 0) in vec2 quadUv;
layout(location = 0) out vec4 outColour;
void scene_fragment() {
    if (quadUv.x < 1.0 / 3.0) {
        outColour = vec4(clamp(frame.timeSeconds / 32.0, 0.0, 1.0), 0.0, 0.0, 1.0);
    } else if (quadUv.x < 2.0 / 3.0) {
        outColour = vec4(0.0, kVersion, 0.0, 1.0);
    } else {
        outColour = vec4(texture(images, vec3(quadUv, 0.0)).rgb, 1.0);
    }
}
#endif
)";

std::string versionSource(const std::string& line2, const std::string& line3 = "") {
    return "// The version, edited by the test.\n" + line2 + "\n" + line3 + "\n";
}

int timeRed(double seconds) { return static_cast<int>(std::min(seconds / 32.0, 1.0) * 255.0 + 0.5); }

// As editors save: a temporary file beside the file, renamed over it.
void saveLikeAnEditor(const fs::path& file, const std::vector<std::uint8_t>& bytes) {
    const fs::path temporary = file.parent_path() / ("." + file.filename().string() + ".tmp");
    {
        std::ofstream out(temporary, std::ios::binary);
        out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    }
    fs::rename(temporary, file);
}

// A 64 x 64 PNG of one colour, made by ffmpeg.
std::vector<std::uint8_t> pngOfColour(const fs::path& dir, const std::string& colour) {
    const fs::path path = dir / ("colour-" + colour + ".png");
    int status = 0;
    shell("ffmpeg -nostdin -v error -y -f lavfi -i color=c=" + colour + ":s=64x64 -frames:v 1 '" + path.string() + "'",
          &status);
    if (status != 0) throw std::runtime_error("ffmpeg failed");
    return readBytes(path);
}

class AuthorMode : public PlayerE2E {
protected:
    // The pixels of the three thirds of the window's drawable, and one in the corner where the
    // text over the picture has its box (left of the text, so never on a letter).
    struct Thirds {
        Screenshot::Pixel time, version, image, corner;
    };
    Thirds look() const {
        const Screenshot shot = x_->screenshot();
        return {shot.at(w_.x + 200, w_.y + 400), shot.at(w_.x + 640, w_.y + 400), shot.at(w_.x + 1060, w_.y + 400),
                shot.at(w_.x + 12, w_.y + 20)};
    }
    // Seconds until `seen` holds for a screenshot, polling for up to `limit`; nullopt if never.
    template <typename Seen>
    std::optional<double> secondsUntil(Seen seen, std::chrono::seconds limit = 10s) const {
        const auto from = Clock::now();
        while (Clock::now() - from < limit) {
            if (seen(look())) return std::chrono::duration<double>(Clock::now() - from).count();
            std::this_thread::sleep_for(50ms);
        }
        return std::nullopt;
    }
    bool stderrSays(PlayerRun& run, const std::string& text, std::chrono::seconds limit = 10s) const {
        const auto deadline = Clock::now() + limit;
        while (Clock::now() < deadline) {
            if (run.stderrText().find(text) != std::string::npos) return true;
            std::this_thread::sleep_for(50ms);
        }
        return false;
    }
    // The time the picture shows, held still by a pause: read twice, a moment apart, alike.
    double heldSeconds() const {
        const int red = look().time.r;
        std::this_thread::sleep_for(200ms);
        EXPECT_EQ(look().time.r, red) << "the picture moves while paused";
        return red / 255.0 * 32.0;
    }

    std::unique_ptr<X11Session> x_;
    WindowInfo w_;
};

TEST_F(AuthorMode, AShowDirectoryPlaysLiveThroughEditsAndMovesThroughTime) {
    x_ = std::make_unique<X11Session>(/*withWindowManager=*/true);
    Bundle bundle;

    // A directory without demo.ini is no show: one line, and no window.
    fs::create_directories(bundle.dir() / "empty");
    PlayerRun refused = startWith(bundle, {(bundle.dir() / "empty").string()});
    const auto refusedStatus = refused.process.waitFor(20s);
    ASSERT_TRUE(refusedStatus);
    EXPECT_EQ(*refusedStatus, 1);
    EXPECT_EQ(refused.stderrText(),
              "Launch failed: No demo.ini in show directory: " + (bundle.dir() / "empty").string() + "\n");

    const fs::path show = bundle.dir() / "show";
    fs::create_directories(show / "shaders" / "lib");
    fs::create_directories(show / "images");
    fs::create_directories(show / "music");
    auto write = [&](const std::string& path, const std::vector<std::uint8_t>& bytes) {
        std::ofstream out(show / path, std::ios::binary);
        out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    };
    write("demo.ini", toBytes("demo.name = Author test show\ndemo.timeline.shader = shaders/main.glsl\n"
                              "demo.timeline.assets = assets.txt\ndemo.timeline.audio = music/song.flac\n"));
    write("assets.txt", toBytes("image.0.path = images/tile.png\n"));
    write("shaders/main.glsl", toBytes(kAuthorShader));
    write("shaders/version.glsl", toBytes(versionSource("const float kVersion = 0.2;")));
    write("shaders/lib/frame.glsl", Bundle::testShow().at("shaders/lib/frame.glsl"));
    write("images/tile.png", Bundle::testShow().at("images/tile.png"));
    write("music/song.flac", flacSong(bundle.dir(), 20));  // the show ends at 23.75 s

    PlayerRun run = startWith(bundle, {"--start", "12", show.string()});
    const auto shownAt = Clock::now();
    ASSERT_TRUE(waitForWindow(*x_, run, 1280, 720, 30s, /*titleChanges=*/true)) << run.stderrText();
    w_ = *x_->windowTitled(kTitle);
    ASSERT_TRUE(secondsUntil([](const Thirds& t) { return t.version.g > 40; })) << run.stderrText();
    Thirds first = look();
    expectNear(first.version, 0, 51, 0);
    expectNear(first.image, 0x20, 0x40, 0xff);

    // Space pauses at the time --start began from and more; the title says so.
    x_->key("space");
    std::this_thread::sleep_for(400ms);
    const double paused = heldSeconds();
    EXPECT_GE(paused, 12.0 - 0.2);
    EXPECT_LE(paused, 12.0 + std::chrono::duration<double>(Clock::now() - shownAt).count());
    EXPECT_NE(x_->windowTitled(kTitle)->title.find("paused"), std::string::npos) << x_->windowTitled(kTitle)->title;

    // An edit of an included file shows within 2 s, the show time held where it was.
    saveLikeAnEditor(show / "shaders/version.glsl", toBytes(versionSource("const float kVersion = 0.8;")));
    auto took = secondsUntil([](const Thirds& t) { return std::abs(t.version.g - 204) <= 3; });
    ASSERT_TRUE(took) << run.stderrText();
    EXPECT_LE(*took, 2.0) << "the edit took long to show";
    EXPECT_TRUE(stderrSays(run, "Reloaded shaders/version.glsl in ")) << run.stderrText();
    EXPECT_NEAR(look().time.r, timeRed(paused), 1);

    // A broken edit names the file on disk and its line; the last good shaders keep drawing,
    // and the error stays over the picture (the dark box in the corner) until it is fixed.
    saveLikeAnEditor(show / "shaders/version.glsl",
                     toBytes(versionSource("const float kVersion = 0.5;", "const float kBroken = undefinedThing;")));
    EXPECT_TRUE(stderrSays(run, (show / "shaders/version.glsl").string() + ":3: 'undefinedThing'")) << run.stderrText();
    std::this_thread::sleep_for(300ms);
    Thirds broken = look();
    expectNear(broken.version, 0, 204, 0);
    EXPECT_LT(broken.corner.r, look().time.r - 20) << "no error over the picture";

    // Deleted, then turned into 20 MB of binary: errors, and the show plays on.
    fs::remove(show / "shaders/version.glsl");
    EXPECT_TRUE(stderrSays(run, "Missing file in demo archive: shaders/version.glsl")) << run.stderrText();
    std::vector<std::uint8_t> binary(20 << 20);
    for (std::size_t i = 0; i < binary.size(); ++i) {
        binary[i] = static_cast<std::uint8_t>(1 + (i * 2654435761u >> 7) % 255);  // no NUL: the decoder reads it all
    }
    saveLikeAnEditor(show / "shaders/version.glsl", binary);
    EXPECT_TRUE(stderrSays(run, "Failed to decode Metal shader source: shaders/version.glsl")) << run.stderrText();
    expectNear(look().version, 0, 204, 0);

    // Fixed: the new version shows and the error goes.
    saveLikeAnEditor(show / "shaders/version.glsl", toBytes(versionSource("const float kVersion = 0.5;")));
    took = secondsUntil([](const Thirds& t) { return std::abs(t.version.g - 128) <= 3; });
    ASSERT_TRUE(took) << run.stderrText();
    EXPECT_LE(*took, 2.0);
    EXPECT_TRUE(secondsUntil([](const Thirds& t) { return std::abs(t.corner.r - t.time.r) <= 2; }))
        << "the error stayed over the picture";

    // A replaced image.
    saveLikeAnEditor(show / "images/tile.png", pngOfColour(bundle.dir(), "0xff8000"));
    took = secondsUntil([](const Thirds& t) { return t.image.r > 240 && t.image.b < 15; });
    ASSERT_TRUE(took) << run.stderrText();
    EXPECT_LE(*took, 2.0);
    expectNear(look().image, 0xff, 0x80, 0x00);

    // H shows the status line over the picture, and hides it again.
    x_->key("h");
    EXPECT_TRUE(secondsUntil([](const Thirds& t) { return t.corner.r < t.time.r - 20; })) << "no status line";
    x_->key("h");
    EXPECT_TRUE(secondsUntil([](const Thirds& t) { return std::abs(t.corner.r - t.time.r) <= 2; }));

    // Right moves the paused show 5 s on, Shift+Right 1 s, Home back to 0.
    x_->key("Right");
    EXPECT_TRUE(secondsUntil([&](const Thirds& t) { return std::abs(t.time.r - timeRed(paused + 5)) <= 1; }))
        << look().time.r << " for " << timeRed(paused + 5);
    x_->key("shift+Right");
    EXPECT_TRUE(secondsUntil([&](const Thirds& t) { return std::abs(t.time.r - timeRed(paused + 6)) <= 1; }))
        << look().time.r << " for " << timeRed(paused + 6);
    x_->key("Home");
    EXPECT_TRUE(secondsUntil([](const Thirds& t) { return t.time.r == 0; })) << look().time.r;

    // Played on to the end (Right past it), the last frame holds and the player stays; Home
    // starts the show again.
    x_->key("space");
    for (int i = 0; i < 5; ++i) x_->key("Right");
    EXPECT_TRUE(secondsUntil([](const Thirds& t) { return t.time.r >= timeRed(23.75); })) << look().time.r;
    const int end = look().time.r;
    EXPECT_LE(end, timeRed(23.75 + 1.0)) << "the end held late";
    std::this_thread::sleep_for(1s);
    EXPECT_TRUE(run.process.running()) << "the show quit at its end";
    EXPECT_EQ(look().time.r, end);
    EXPECT_NE(x_->windowTitled(kTitle)->title.find("end"), std::string::npos);
    x_->key("Home");
    EXPECT_TRUE(secondsUntil([](const Thirds& t) { return t.time.r > 0 && t.time.r < timeRed(3.0); }))
        << look().time.r;

    x_->key("Escape");
    const auto status = run.process.waitFor(10s);
    ASSERT_TRUE(status);
    EXPECT_EQ(*status, 0);
    expectNoValidationMessages(run);
    // The author's tools keep their compiled pipelines for the next start.
    EXPECT_FALSE(fs::is_empty(bundle.dir() / "cache" / "brisvale"));
}

} // namespace
} // namespace brisvale::e2e
