// Author mode: time control through the keys, live reload (the watcher's thread reads and
// prepares, the main thread installs), the errors and reports the author reads, the status line.
//
// [SECTION] Set-up
// [SECTION] Keys
// [SECTION] Reload: watcher thread
// [SECTION] Reload: main thread
// [SECTION] Status

#include "app/platform/AuthorMode.h"

#include <cstdio>
#include <exception>
#include <utility>

#include "app/platform/DirectoryWatcher.h"
#include "content/AssetManifest.h"
#include "content/ShaderSource.h"
#include "content/ShowSource.h"

namespace brisvale {
namespace {

constexpr const char* kDemoManifestPath = "demo.ini";
constexpr const char* kWindowTitle = "Brisvale Metal";
constexpr std::chrono::milliseconds kStatusInterval{250};
// The renderer's phases by show time (docs/shader-interface.md).
constexpr float kIntroEndSeconds = 9.25f;
constexpr float kFinaleStartSeconds = 142.0f;

const char* phaseName(float t) {
    if (t < kIntroEndSeconds) return "intro";
    if (t >= kFinaleStartSeconds) return "finale";
    return "middle";
}

double milliseconds(std::chrono::steady_clock::time_point from, std::chrono::steady_clock::time_point to) {
    return std::chrono::duration<double, std::milli>(to - from).count();
}

double millisecondsSince(std::chrono::steady_clock::time_point since) {
    return milliseconds(since, std::chrono::steady_clock::now());
}

// Every file the shader source reads, includes too; nullopt when it cannot be read.
std::optional<std::vector<std::string>> shaderFiles(const DemoArchive& archive, const DemoManifest& manifest) {
    try {
        return expandShaderSource(archive, manifest.shaderPath).files;
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

// The asset manifest and every image it lists; nullopt when it cannot be read.
std::optional<std::vector<std::string>> imageFiles(const DemoArchive& archive, const DemoManifest& manifest) {
    try {
        std::vector<std::string> files = loadImagePaths(archive, manifest.assetManifestPath);
        files.insert(files.begin(), manifest.assetManifestPath);
        return files;
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

} // namespace

// ---------------------------------------------------------------------------------------------
// [SECTION] Set-up
// ---------------------------------------------------------------------------------------------

AuthorMode::AuthorMode(AuthorModeHost& host, Renderer& renderer, MainThreadQueue& mainQueue,
                       const PlayerOptions& options, const DemoArchive& archive, const DemoManifest& manifest)
    : host_(host),
      renderer_(renderer),
      mainQueue_(mainQueue),
      showPath_(options.showPath),
      timings_(options.timings),
      transport_(host, 1.0 / manifest.defaultFps),
      fingerprints_(fingerprintShow(archive)),
      manifest_(manifest) {
    files_.music = manifest.audioPath;
    const auto shaders = shaderFiles(archive, manifest);
    files_.shaders = shaders.value_or(std::vector<std::string>{});
    files_.shadersFailed = !shaders;
    const auto images = imageFiles(archive, manifest);
    files_.images = images.value_or(std::vector<std::string>{});
    files_.imagesFailed = !images;

    statusAt_ = Clock::now();
    scheduleStatus();
    try {
        watcher_ = std::make_unique<DirectoryWatcher>(
            showPath_, [this](Clock::time_point at) { directoryChanged(at); },
            [](std::string_view problem) {
                std::fprintf(stderr, "%.*s\n", static_cast<int>(problem.size()), problem.data());
            });
    } catch (const std::exception& e) {
        std::fprintf(stderr, "Live reload is off: %s\n", e.what());
    }
}

AuthorMode::~AuthorMode() = default;

// ---------------------------------------------------------------------------------------------
// [SECTION] Keys
// ---------------------------------------------------------------------------------------------

void AuthorMode::keyDown(const KeyPress& key) {
    const AuthorCommand command = authorCommandFor(key);
    // A step while playing does nothing, so it has nothing to report.
    const bool moves = transport_.started() &&
                       (command.action == AuthorAction::Move || command.action == AuthorAction::GoToStart ||
                        (command.action == AuthorAction::StepFrames && transport_.paused()));
    switch (command.action) {
    case AuthorAction::None:
        return;
    case AuthorAction::ToggleStatus:
        statusVisible_ = !statusVisible_;
        updateOverlay();
        return;
    case AuthorAction::TogglePause:
        transport_.togglePause();
        break;
    case AuthorAction::Move:
        transport_.moveBy(command.seconds);
        break;
    case AuthorAction::StepFrames:
        transport_.step(command.frames);
        break;
    case AuthorAction::GoToStart:
        transport_.goToStart();
        break;
    }
    if (timings_ && moves) {
        char subject[64];
        std::snprintf(subject, sizeof subject, "Moved to %.3f s", transport_.timeSeconds());
        moveReport_ = {true, Clock::now(), subject, {}, host_.displayTicks(), {}, {}};
    }
    updateStatus();
}

void AuthorMode::frameDrawn() {
    if (reloadReport_.waiting) {
        reloadReport_.waiting = false;
        if (timings_) {
            std::fprintf(stderr, "%s in %.0f ms (%s, installed %.0f ms later, drawn %.0f ms after that)\n",
                         reloadReport_.subject.c_str(), millisecondsSince(reloadReport_.since),
                         reloadReport_.detail.c_str(), milliseconds(reloadReport_.postedAt, reloadReport_.installedAt),
                         millisecondsSince(reloadReport_.installedAt));
        } else {
            std::fprintf(stderr, "%s in %.0f ms\n", reloadReport_.subject.c_str(),
                         millisecondsSince(reloadReport_.since));
        }
    }
    if (moveReport_.waiting) {
        moveReport_.waiting = false;
        const std::uint64_t ticks = host_.displayTicks() - moveReport_.ticks;
        std::fprintf(stderr, "%s: key to frame %.1f ms, %llu display tick%s\n", moveReport_.subject.c_str(),
                     millisecondsSince(moveReport_.since), static_cast<unsigned long long>(ticks),
                     ticks == 1 ? "" : "s");
    }
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Reload: watcher thread
// ---------------------------------------------------------------------------------------------
// Read the directory again, compare it with what the show was built from, prepare what changed.
// Everything the running show uses stays as it is until the main thread installs the result;
// what fails is reported and the show keeps what it had.

void AuthorMode::directoryChanged(Clock::time_point changedAt) {
    Reload reload;
    reload.changedAt = changedAt;
    reload.readAt = Clock::now();
    std::shared_ptr<DemoArchive> archive;
    try {
        archive = loadShow(showPath_);
    } catch (const std::exception& e) {
        readFailed_ = true;
        reload.readError = e.what();
        hand(std::move(reload));
        return;
    }
    ShowFingerprints fingerprints = fingerprintShow(*archive);
    const std::vector<std::string> changed = changedFiles(fingerprints_, fingerprints);
    fingerprints_ = std::move(fingerprints);
    const ReloadPlan plan = planReload(changed, files_);
    if (!plan.any()) {
        if (readFailed_) {
            // Readable again, and as the show was: only the read error goes.
            readFailed_ = false;
            hand(std::move(reload));
        }
        return;
    }
    readFailed_ = false;
    reload.files = describeFiles(plan.files);
    reload.comparedAt = Clock::now();
    const auto onDisk = [&](const char* message) {
        return withFilesOnDisk(message, showPath_, [&](std::string_view path) { return archive->contains(path); });
    };

    if (plan.show) {
        try {
            manifest_ = loadDemoManifest(*archive, kDemoManifestPath);
            files_.music = manifest_.audioPath;
            files_.showFailed = false;
            reload.archive = archive;
            reload.manifest = manifest_;
        } catch (const std::exception& e) {
            files_.showFailed = true;
            reload.showError = onDisk(e.what());
            hand(std::move(reload));
            return;
        }
    }
    if (plan.shaders) {
        try {
            reload.shaders = renderer_.prepareShaders(*archive, manifest_.shaderPath);
            files_.shaders = shaderFiles(*archive, manifest_).value_or(std::vector<std::string>{});
            files_.shadersFailed = false;
        } catch (const std::exception& e) {
            files_.shadersFailed = true;
            reload.shaderError = onDisk(e.what());
        }
    }
    if (plan.images) {
        try {
            reload.images = renderer_.prepareImages(*archive, manifest_.assetManifestPath);
            files_.images = imageFiles(*archive, manifest_).value_or(std::vector<std::string>{});
            files_.imagesFailed = false;
        } catch (const std::exception& e) {
            files_.imagesFailed = true;
            reload.imageError = onDisk(e.what());
        }
    }
    // From here the archive is the main thread's (an archive takes one caller at a time).
    archive.reset();
    reload.preparedAt = Clock::now();
    hand(std::move(reload));
}

void AuthorMode::hand(Reload reload) {
    {
        std::lock_guard<std::mutex> guard(handedLock_);
        handed_.push_back(std::move(reload));
    }
    mainQueue_.post([this] { applyHanded(); });
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Reload: main thread
// ---------------------------------------------------------------------------------------------
// Between two frames: the next frame draws with what is installed here.

void AuthorMode::applyHanded() {
    std::optional<Reload> reload;
    {
        std::lock_guard<std::mutex> guard(handedLock_);
        if (handed_.empty()) return;
        reload.emplace(std::move(handed_.front()));
        handed_.pop_front();
    }
    apply(*reload);
}

void AuthorMode::apply(const Reload& reload) {
    setError(ReadPart, reload.readError);
    if (reload.readError) {
        updateOverlay();
        return;
    }
    bool installed = false;
    if (reload.showError) {
        setError(ShowPart, reload.showError);
    } else if (reload.archive) {
        const bool musicLoaded = host_.adoptShow(reload.archive, reload.manifest);
        transport_.setFrameSeconds(1.0 / reload.manifest.defaultFps);
        transport_.musicReloaded(host_.musicDurationSeconds(), host_.musicEndSeconds());
        // The view has said why on stderr already.
        const std::optional<std::string> musicError =
            musicLoaded ? std::nullopt : std::optional<std::string>("Failed to load audio asset");
        setError(ShowPart, musicError, false);
        installed = true;
    }
    if (reload.shaders) {
        renderer_.installShaders(reload.shaders);
        setError(ShaderPart, std::nullopt);
        installed = true;
    } else if (reload.shaderError) {
        setError(ShaderPart, reload.shaderError);
    }
    if (reload.images) {
        renderer_.installImages(reload.images);
        setError(ImagePart, std::nullopt);
        installed = true;
    } else if (reload.imageError) {
        setError(ImagePart, reload.imageError);
    }
    if (installed) {
        reloadReport_ = {true, reload.changedAt, "Reloaded " + reload.files, {}, 0, reload.preparedAt, Clock::now()};
        if (timings_) {
            char detail[128];
            std::snprintf(detail, sizeof detail, "waited %.0f ms, read %.0f ms, prepared %.0f ms",
                          milliseconds(reload.changedAt, reload.readAt), milliseconds(reload.readAt, reload.comparedAt),
                          milliseconds(reload.comparedAt, reload.preparedAt));
            reloadReport_.detail = detail;
        }
    }
    updateOverlay();
}

void AuthorMode::setError(Part part, std::optional<std::string> error, bool print) {
    std::string& shown = errors_[part];
    const std::string text = error.value_or(std::string());
    if (text == shown) return;
    shown = text;
    if (print && !text.empty()) {
        std::fprintf(stderr, "%s\n", text.c_str());
    }
}

void AuthorMode::updateOverlay() {
    std::string text = statusVisible_ ? status_ : std::string();
    for (const std::string& error : errors_) {
        if (error.empty()) continue;
        if (!text.empty()) text += '\n';
        text += error;
    }
    if (text == overlay_ || overlayFailed_) return;
    overlay_ = text;
    try {
        renderer_.setOverlayText(text);
    } catch (const std::exception& e) {
        // The picture goes on without text; stderr has every error already.
        overlayFailed_ = true;
        std::fprintf(stderr, "%s\n", e.what());
    }
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Status
// ---------------------------------------------------------------------------------------------
// A few times a second, not per frame: the frame path stays free of formatting.

void AuthorMode::scheduleStatus() {
    mainQueue_.postAfter(kStatusInterval, [this] {
        const Clock::time_point now = Clock::now();
        const std::uint64_t frames = host_.framesDrawn();
        const double seconds = std::chrono::duration<double>(now - statusAt_).count();
        framesPerSecond_ = seconds > 0.0 ? static_cast<double>(frames - framesAtStatus_) / seconds : 0.0;
        framesAtStatus_ = frames;
        statusAt_ = now;
        updateStatus();
        scheduleStatus();
    });
}

void AuthorMode::updateStatus() {
    const float time = transport_.timeSeconds();
    char line[160];
    std::snprintf(line, sizeof line, "%.2f s  %s  %.0f fps  GPU %.1f ms%s", time, phaseName(time), framesPerSecond_,
                  renderer_.lastFrameGpuSeconds() * 1000.0,
                  transport_.holdingEnd() ? "  end (Home: again)"
                  : transport_.paused()   ? "  paused"
                                          : "");
    status_ = line;
    host_.setWindowTitle(std::string(kWindowTitle) + " - " + status_);
    if (statusVisible_) updateOverlay();
}

} // namespace brisvale
