#pragma once

// Author mode's live reload, the decisions: when a burst of file events is over, which files of a
// show directory changed, what of the running show that touches, and how an error names the
// author's file. The watcher (app/platform/DirectoryWatcher) and the reload itself
// (app/platform/AuthorMode) act on them.
//
// [SECTION] Bursts
// [SECTION] Changed files
// [SECTION] Plan
// [SECTION] Messages

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "content/DemoArchive.h"

namespace brisvale {

// [SECTION] Bursts
// Editors save with several events (a temporary file written, closed and renamed over
// the old one): events close together are one change. A change is over when 50 ms pass without
// an event, or 10 ms after an event that completes a file (closed after writing, or renamed
// into place), which is how a save ends; a file written without a pause is still picked up
// every 500 ms.
class ChangeBurst {
public:
    using Clock = std::chrono::steady_clock;
    static constexpr std::chrono::milliseconds kQuiet{50};
    static constexpr std::chrono::milliseconds kQuietAfterCompletion{10};
    static constexpr std::chrono::milliseconds kLongest{500};

    void note(bool completesAFile, Clock::time_point at);
    bool pending() const { return events_ > 0; }
    // When the change is over; only while pending.
    Clock::time_point dueAt() const;
    // The last event's time: for a save, the rename.
    Clock::time_point lastEventAt() const { return last_; }
    void clear() { events_ = 0; }

private:
    std::size_t events_ = 0;
    bool lastCompletes_ = false;
    Clock::time_point first_;
    Clock::time_point last_;
};

// [SECTION] Changed files
// A show's files by archive path, each as its size and a hash of its bytes: what
// a show was built from, without keeping the bytes.
struct FileFingerprint {
    std::uint64_t size = 0;
    std::size_t hash = 0;
    bool operator==(const FileFingerprint&) const = default;
};
using ShowFingerprints = std::map<std::string, FileFingerprint, std::less<>>;

ShowFingerprints fingerprintShow(const DemoArchive& archive);
// Every path added, removed or different, in path order.
std::vector<std::string> changedFiles(const ShowFingerprints& before, const ShowFingerprints& after);

// [SECTION] Plan
// What the running show was built from, by part. A part whose last build failed is built
// again on any change: which files it would read is not known.
struct ShowFiles {
    std::string manifest = "demo.ini";
    std::string music;                // the manifest's music
    std::vector<std::string> shaders; // every file the shader source read, includes too
    std::vector<std::string> images;  // the asset manifest and every image it lists
    bool showFailed = false;
    bool shadersFailed = false;
    bool imagesFailed = false;
};

struct ReloadPlan {
    bool show = false;     // demo.ini or the music: everything again, at the same show time
    bool shaders = false;  // the three stages compiled again
    bool images = false;   // the image array made again
    std::vector<std::string> files;  // the changed files that called for it
    bool any() const { return show || shaders || images; }
};

ReloadPlan planReload(const std::vector<std::string>& changed, const ShowFiles& files);

// "shaders/main.glsl", "a.glsl, b.glsl and 3 more": the files of a reload, for its one line.
std::string describeFiles(const std::vector<std::string>& files);

// [SECTION] Messages
// `message` with each location "<file>:<line>:" whose file `isShowFile` knows (an
// archive path of the show directory) named by its path on disk, `directory` joined with it, as
// the author's editor and terminal know it.
std::string withFilesOnDisk(std::string_view message, const std::string& directory,
                            const std::function<bool(std::string_view)>& isShowFile);

} // namespace brisvale
