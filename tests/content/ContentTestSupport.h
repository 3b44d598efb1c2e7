#pragma once

// Helpers for the content tests: a temporary directory, archives made with the writer, and a
// byte-level builder for containers the writer would never produce.

#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "content/ArchiveWriter.h"
#include "content/DemoArchive.h"

#include "support/TestSupport.h"

namespace brisvale::testing {

inline std::string toString(ArchiveBytes bytes) {
    return std::string(reinterpret_cast<const char*>(bytes.data()), bytes.size());
}

inline void writeBytes(const std::string& path, const std::vector<std::uint8_t>& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    if (!out) {
        throw std::runtime_error("failed to write " + path);
    }
}

inline std::vector<std::uint8_t> readBytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<std::uint8_t>(std::istreambuf_iterator<char>(in), {});
}

// Writes `bytes` to a file in `dir` and loads it.
inline std::shared_ptr<DemoArchive> loadBytes(const TempDir& dir,
                                              const std::vector<std::uint8_t>& bytes) {
    const std::string path = dir.file("demo.dat");
    writeBytes(path, bytes);
    return DemoArchive::load(path);
}

inline std::shared_ptr<DemoArchive> loadFiles(const TempDir& dir,
                                              const std::vector<ArchiveFile>& files,
                                              ArchiveWriteOptions options = {}) {
    return loadBytes(dir, writeArchive(files, options));
}

// Builds a container field by field, for layouts the writer does not make.
class RawArchive {
public:
    RawArchive(std::uint32_t version, std::uint32_t entryCount) {
        bytes_ = {'B', 'D', 'A', 'T'};
        u32(version);
        u32(entryCount);
    }
    RawArchive& u32(std::uint32_t v) {
        for (int i = 0; i < 4; ++i) bytes_.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
        return *this;
    }
    RawArchive& u64(std::uint64_t v) {
        for (int i = 0; i < 8; ++i) bytes_.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
        return *this;
    }
    RawArchive& raw(std::string_view text) {
        bytes_.insert(bytes_.end(), text.begin(), text.end());
        return *this;
    }
    RawArchive& raw(const std::vector<std::uint8_t>& data) {
        bytes_.insert(bytes_.end(), data.begin(), data.end());
        return *this;
    }
    // A version 1 record.
    RawArchive& record1(std::string_view name, std::uint64_t offset, std::uint64_t size) {
        u32(static_cast<std::uint32_t>(name.size())).u64(offset).u64(size);
        return raw(name);
    }
    // A version 2 record.
    RawArchive& record2(std::string_view name, std::uint64_t offset, std::uint64_t size,
                        std::uint64_t unpacked, std::uint32_t flags) {
        u32(static_cast<std::uint32_t>(name.size())).u64(offset).u64(size).u64(unpacked).u32(flags);
        return raw(name);
    }
    std::size_t size() const { return bytes_.size(); }
    const std::vector<std::uint8_t>& bytes() const { return bytes_; }

private:
    std::vector<std::uint8_t> bytes_;
};

} // namespace brisvale::testing
