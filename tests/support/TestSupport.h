#pragma once

// Helpers every test folder uses: bytes from text, the message an error carries, and a
// temporary directory that cleans up after itself.

#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

namespace brisvale::testing {

inline std::vector<std::uint8_t> toBytes(std::string_view text) {
    return std::vector<std::uint8_t>(text.begin(), text.end());
}

// The message of the std::runtime_error that `f` throws, or "<no error>".
template <class F>
std::string errorOf(F&& f) {
    try {
        f();
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "<no error>";
}

// A fresh directory under the system's temporary directory, removed with its content.
class TempDir {
public:
    TempDir() {
        std::string pattern = (std::filesystem::temp_directory_path() / "brisvale-XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
        path_ = pattern;
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    const std::filesystem::path& path() const { return path_; }
    std::string file(std::string_view name) const { return (path_ / name).string(); }

private:
    std::filesystem::path path_;
};

} // namespace brisvale::testing
