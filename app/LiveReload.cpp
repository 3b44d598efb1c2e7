// Author mode's live-reload decisions: when a burst of file events is over, which files
// changed, what of the running show that calls for, and errors that name the author's files.
//
// [SECTION] Bursts
// [SECTION] Changed files
// [SECTION] Plan
// [SECTION] Messages

#include "app/LiveReload.h"

#include <algorithm>
#include <filesystem>

namespace brisvale {
namespace {

bool contains(const std::vector<std::string>& list, std::string_view item) {
    return std::find(list.begin(), list.end(), item) != list.end();
}

bool isDigit(char c) { return c >= '0' && c <= '9'; }

} // namespace

// ---------------------------------------------------------------------------------------------
// [SECTION] Bursts
// ---------------------------------------------------------------------------------------------

void ChangeBurst::note(bool completesAFile, Clock::time_point at) {
    if (events_ == 0) {
        first_ = at;
    }
    ++events_;
    last_ = at;
    lastCompletes_ = completesAFile;
}

ChangeBurst::Clock::time_point ChangeBurst::dueAt() const {
    const auto quiet = lastCompletes_ ? kQuietAfterCompletion : kQuiet;
    return std::min(last_ + quiet, first_ + kLongest);
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Changed files
// ---------------------------------------------------------------------------------------------

ShowFingerprints fingerprintShow(const DemoArchive& archive) {
    ShowFingerprints prints;
    for (const auto& [path, entry] : archive.entries()) {
        const ArchiveBytes bytes = archive.open(path);
        const std::string_view view(reinterpret_cast<const char*>(bytes.data()), bytes.size());
        prints.emplace(path, FileFingerprint{bytes.size(), std::hash<std::string_view>{}(view)});
    }
    return prints;
}

std::vector<std::string> changedFiles(const ShowFingerprints& before, const ShowFingerprints& after) {
    std::vector<std::string> changed;
    auto b = before.begin();
    auto a = after.begin();
    while (b != before.end() || a != after.end()) {
        if (a == after.end() || (b != before.end() && b->first < a->first)) {
            changed.push_back((b++)->first);  // removed
        } else if (b == before.end() || a->first < b->first) {
            changed.push_back((a++)->first);  // added
        } else {
            if (!(a->second == b->second)) changed.push_back(a->first);
            ++a;
            ++b;
        }
    }
    return changed;
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Plan
// ---------------------------------------------------------------------------------------------

ReloadPlan planReload(const std::vector<std::string>& changed, const ShowFiles& files) {
    ReloadPlan plan;
    if (changed.empty()) {
        return plan;
    }
    for (const std::string& path : changed) {
        const bool show = path == files.manifest || path == files.music;
        const bool shaders = contains(files.shaders, path);
        const bool images = contains(files.images, path);
        plan.show = plan.show || show;
        plan.shaders = plan.shaders || shaders;
        plan.images = plan.images || images;
        if (show || shaders || images) plan.files.push_back(path);
    }
    // A part that failed last time is tried again on any change; so is everything after a failed
    // show.
    const bool retryAll = files.showFailed;
    plan.show = plan.show || retryAll;
    plan.shaders = plan.shaders || plan.show || files.shadersFailed;
    plan.images = plan.images || plan.show || files.imagesFailed;
    if (plan.files.empty() && plan.any()) plan.files = changed;
    return plan;
}

std::string describeFiles(const std::vector<std::string>& files) {
    constexpr std::size_t kNamed = 3;
    std::string text;
    for (std::size_t i = 0; i < files.size() && i < kNamed; ++i) {
        if (i > 0) text += i + 1 == files.size() ? " and " : ", ";
        text += files[i];
    }
    if (files.size() > kNamed) text += " and " + std::to_string(files.size() - kNamed) + " more";
    return text;
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Messages
// ---------------------------------------------------------------------------------------------

std::string withFilesOnDisk(std::string_view message, const std::string& directory,
                            const std::function<bool(std::string_view)>& isShowFile) {
    std::string out;
    std::size_t copied = 0;  // message[0, copied) is in `out`
    std::size_t lineStart = 0;
    for (std::size_t colon = 0; colon < message.size(); ++colon) {
        if (message[colon] == '\n') {
            lineStart = colon + 1;
            continue;
        }
        // A location: ':' digits ':'.
        if (message[colon] != ':') continue;
        std::size_t end = colon + 1;
        while (end < message.size() && isDigit(message[end])) ++end;
        if (end == colon + 1 || end >= message.size() || message[end] != ':') continue;
        // The longest name before it that starts a line or follows a space and is a show file.
        for (std::size_t start = std::max(lineStart, copied); start < colon; ++start) {
            if (start != lineStart && message[start - 1] != ' ') continue;
            const std::string_view name = message.substr(start, colon - start);
            if (!isShowFile(name)) continue;
            out.append(message.substr(copied, start - copied));
            out += (std::filesystem::path(directory) / std::string(name)).string();
            copied = colon;
            break;
        }
        colon = end - 1;
    }
    out.append(message.substr(copied));
    return out;
}

} // namespace brisvale
