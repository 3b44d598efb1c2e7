#include "app/BundleResource.h"

#include <filesystem>
#include <system_error>

namespace brisvale {

std::optional<std::string> bundleResourcePath(const std::string& executableDirectory, const std::string& name) {
    if (executableDirectory.empty()) {
        return std::nullopt;
    }
    const std::filesystem::path dir(executableDirectory);
    for (const std::filesystem::path& candidate : {dir / name, dir / ".." / "share" / "brisvale" / name}) {
        std::error_code ec;
        if (std::filesystem::is_regular_file(candidate, ec)) {
            return candidate.lexically_normal().string();
        }
    }
    return std::nullopt;
}

std::string runningExecutableDirectory() {
    std::error_code ec;
    const std::filesystem::path exe = std::filesystem::read_symlink("/proc/self/exe", ec);
    if (ec) {
        return {};
    }
    return exe.parent_path().string();
}

} // namespace brisvale
