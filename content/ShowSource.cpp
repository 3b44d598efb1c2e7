#include "content/ShowSource.h"

#include <sys/stat.h>

#include <filesystem>
#include <stdexcept>

namespace brisvale {
namespace {

constexpr const char* kNoManifest = "No demo.ini in show directory: ";

} // namespace

std::shared_ptr<DemoArchive> loadShow(const std::string& path) {
    std::error_code error;
    if (!std::filesystem::is_directory(path, error)) {
        return DemoArchive::load(path);
    }
    // Checked first, so that a directory given by mistake (a home directory) is not read whole.
    struct stat status {};
    const std::string manifest = (std::filesystem::path(path) / "demo.ini").string();
    if (::lstat(manifest.c_str(), &status) != 0) {
        throw std::runtime_error(kNoManifest + path);
    }
    auto archive = DemoArchive::loadDirectory(path);
    // A demo.ini that is a link out of the tree, or no regular file, was left out.
    if (!archive->contains("demo.ini")) {
        throw std::runtime_error(kNoManifest + path);
    }
    return archive;
}

} // namespace brisvale
