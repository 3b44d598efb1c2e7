#pragma once

#include <optional>
#include <string>

namespace brisvale {

// The application's bundle on Linux: a resource lies beside the executable, or, installed, in
// ../share/brisvale/ relative to the executable's directory. Returns the first that exists.
std::optional<std::string> bundleResourcePath(const std::string& executableDirectory, const std::string& name);

// The directory of the running executable (from /proc/self/exe); empty when it cannot be read.
std::string runningExecutableDirectory();

} // namespace brisvale
