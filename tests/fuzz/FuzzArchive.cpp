// Fuzzes the archive reader with arbitrary container bytes: load, then every lookup and every
// text reader on every entry. Only std::runtime_error (the content messages) may come out;
// anything else, a crash or a sanitizer report is a finding.

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "content/AssetManifest.h"
#include "content/DemoArchive.h"
#include "content/DemoManifest.h"
#include "content/ShaderSource.h"

namespace {

// load() reads a named file; an in-memory file keeps each run off the disk.
struct MemoryFile {
    int fd;
    std::string path;
};

const MemoryFile& memoryFile() {
    static const MemoryFile file = [] {
        const int fd = memfd_create("fuzz_archive", 0);
        if (fd < 0) {
            std::abort();
        }
        return MemoryFile{fd, "/proc/self/fd/" + std::to_string(fd)};
    }();
    return file;
}

void writeMemoryFile(const std::uint8_t* data, std::size_t size) {
    const int fd = memoryFile().fd;
    if (ftruncate(fd, 0) != 0 ||
        (size > 0 && pwrite(fd, data, size, 0) != static_cast<ssize_t>(size))) {
        std::abort();
    }
}

template <class F>
void expectOnlyContentErrors(F&& f) {
    try {
        f();
    } catch (const std::runtime_error&) {
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    writeMemoryFile(data, size);
    std::shared_ptr<const brisvale::DemoArchive> archive;
    try {
        archive = brisvale::DemoArchive::load(memoryFile().path);
    } catch (const std::runtime_error&) {
        return 0;
    }
    for (const auto& item : archive->entries()) {
        const std::string& key = item.first; // clang 14 cannot capture structured bindings
        if (!archive->contains(key)) {
            std::abort();
        }
        // Streaming (before open fills the cache) and open must agree on content and failure.
        std::optional<std::uint64_t> streamed;
        expectOnlyContentErrors([&] {
            std::uint64_t size = 0;
            archive->stream(key, [&](brisvale::ArchiveBytes piece) { size += piece.size(); });
            streamed = size;
        });
        bool opened = false;
        expectOnlyContentErrors([&] {
            const brisvale::ArchiveBytes first = archive->open(key);
            const brisvale::ArchiveBytes second = archive->open(key);
            if (first.data() != second.data() || first.size() != second.size() ||
                archive->readCopy(key).size() != first.size() || streamed != first.size()) {
                std::abort();
            }
            opened = true;
        });
        if (opened != streamed.has_value()) {
            std::abort();
        }
        expectOnlyContentErrors([&] { brisvale::loadImagePaths(*archive, key); });
        expectOnlyContentErrors([&] {
            std::vector<std::string> stack;
            brisvale::loadMetalSourceWithIncludes(*archive, key, stack);
        });
        expectOnlyContentErrors([&] { brisvale::loadDemoManifest(*archive, key); });
    }
    return 0;
}
