// The pipeline cache file: where it lives, its header, and how it is read and replaced.
//
// [SECTION] Location and name
// [SECTION] File header
// [SECTION] Reading
// [SECTION] Writing

#include "render/PipelineCacheFile.h"

#include "content/FileDescriptor.h"
#include "render/gpu/Device.h"
#include "render/gpu/PipelineCache.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <stdexcept>
#include <system_error>

namespace brisvale {
namespace {

constexpr const char* kNotADirectory = "not a directory of its own (a link?)";
constexpr const char* kNotRegular = "not a regular file";
constexpr const char* kTooLarge = "larger than any cache this program writes";
constexpr const char* kTruncated = "truncated";
constexpr const char* kForeign = "not a pipeline cache of this program";
constexpr const char* kOtherDevice = "made for another device or driver";
constexpr const char* kDamaged = "damaged (checksum)";

// ---------------------------------------------------------------------------------------------
// [SECTION] File header
// ---------------------------------------------------------------------------------------------

// Ours, before the driver's bytes: which program, device and driver wrote them, how many there
// are and their CRC-32. Native byte order: the file never leaves the machine that wrote it.
struct FileHeader {
    char magic[4];
    std::uint32_t version;
    std::uint32_t vendorID;
    std::uint32_t deviceID;
    std::uint32_t driverVersion;
    std::uint8_t uuid[VK_UUID_SIZE];
    std::uint32_t checksum;
    std::uint64_t size;
};
static_assert(sizeof(FileHeader) == 48);
constexpr char kMagic[4] = {'B', 'V', 'P', 'C'};
constexpr std::uint32_t kVersion = 1;

FileHeader headerFor(const gpu::Device& device, std::span<const std::uint8_t> bytes) {
    FileHeader header{};
    std::memcpy(header.magic, kMagic, sizeof kMagic);
    header.version = kVersion;
    const VkPhysicalDeviceProperties& properties = device.properties();
    header.vendorID = properties.vendorID;
    header.deviceID = properties.deviceID;
    header.driverVersion = properties.driverVersion;
    std::memcpy(header.uuid, properties.pipelineCacheUUID, VK_UUID_SIZE);
    header.size = bytes.size();
    header.checksum = static_cast<std::uint32_t>(
        crc32(0L, bytes.data(), static_cast<uInt>(bytes.size())));  // bounded far below 4 GiB
    return header;
}

} // namespace

// ---------------------------------------------------------------------------------------------
// [SECTION] Location and name
// ---------------------------------------------------------------------------------------------

std::optional<std::filesystem::path> userPipelineCacheDirectory() {
    const auto absolute = [](const char* value) { return value != nullptr && value[0] == '/'; };
    if (const char* cache = std::getenv("XDG_CACHE_HOME"); absolute(cache))
        return std::filesystem::path(cache) / "brisvale";
    if (const char* home = std::getenv("HOME"); absolute(home))
        return std::filesystem::path(home) / ".cache" / "brisvale";
    return std::nullopt;
}

std::string pipelineCacheFileName(const gpu::Device& device) {
    const VkPhysicalDeviceProperties& properties = device.properties();
    char numbers[64];
    std::snprintf(numbers, sizeof numbers, "%08x-%08x-%08x-", properties.vendorID, properties.deviceID,
                  properties.driverVersion);
    std::string name = std::string("pipelines-") + numbers;
    for (const std::uint8_t byte : properties.pipelineCacheUUID) {
        char hex[3];
        std::snprintf(hex, sizeof hex, "%02x", byte);
        name += hex;
    }
    return name + ".bin";
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Reading
// ---------------------------------------------------------------------------------------------

PipelineCacheLoad loadPipelineCache(const std::filesystem::path& directory, const gpu::Device& device) {
    PipelineCacheLoad load;
    const std::string name = pipelineCacheFileName(device);
    load.path = (directory / name).string();
    const auto ignore = [&](const char* why) {
        load.bytes.clear();
        load.problem = why;
        return load;
    };

    const FileDescriptor folder(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (folder.get() < 0) {
        if (errno == ENOENT) return load;
        return ignore(errno == ELOOP || errno == ENOTDIR ? kNotADirectory : std::strerror(errno));
    }
    // Non-blocking: a FIFO planted under the name must not hold the start up.
    const FileDescriptor file(::openat(folder.get(), name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (file.get() < 0) {
        if (errno == ENOENT) return load;
        return ignore(errno == ELOOP ? kNotRegular : std::strerror(errno));
    }
    struct stat status {};
    if (::fstat(file.get(), &status) != 0) return ignore(std::strerror(errno));
    if (!S_ISREG(status.st_mode)) return ignore(kNotRegular);
    const auto fileSize = static_cast<std::uint64_t>(status.st_size);
    if (fileSize < sizeof(FileHeader)) return ignore(kTruncated);
    if (fileSize > sizeof(FileHeader) + kMaxPipelineCacheBytes) return ignore(kTooLarge);

    std::vector<std::uint8_t> contents(static_cast<std::size_t>(fileSize));
    std::size_t done = 0;
    while (done < contents.size()) {
        const ssize_t got = ::read(file.get(), contents.data() + done, contents.size() - done);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return ignore(std::strerror(errno));
        if (got == 0) return ignore(kTruncated);  // shrunk while being read
        done += static_cast<std::size_t>(got);
    }

    FileHeader header;
    std::memcpy(&header, contents.data(), sizeof header);
    if (std::memcmp(header.magic, kMagic, sizeof kMagic) != 0 || header.version != kVersion) return ignore(kForeign);
    const std::span<const std::uint8_t> payload(contents.data() + sizeof header, contents.size() - sizeof header);
    const FileHeader expected = headerFor(device, payload);
    if (header.vendorID != expected.vendorID || header.deviceID != expected.deviceID ||
        header.driverVersion != expected.driverVersion || std::memcmp(header.uuid, expected.uuid, VK_UUID_SIZE) != 0)
        return ignore(kOtherDevice);
    if (header.size != payload.size()) return ignore(kTruncated);
    if (header.checksum != expected.checksum) return ignore(kDamaged);
    if (!gpu::pipelineCacheHeaderMatches(device, payload)) return ignore(kOtherDevice);
    load.bytes.assign(payload.begin(), payload.end());
    return load;
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Writing
// ---------------------------------------------------------------------------------------------

void savePipelineCacheFile(const std::filesystem::path& directory, const gpu::Device& device,
                           std::span<const std::uint8_t> bytes) {
    const auto fail = [](const std::string& path, const char* why) {
        throw std::runtime_error(path + ": " + why);
    };
    if (bytes.size() > kMaxPipelineCacheBytes) fail(directory.string(), kTooLarge);

    std::error_code ignored;
    std::filesystem::create_directories(directory.parent_path(), ignored);  // the open below reports
    if (::mkdir(directory.c_str(), 0700) != 0 && errno != EEXIST) fail(directory.string(), std::strerror(errno));
    const FileDescriptor folder(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (folder.get() < 0)
        fail(directory.string(), errno == ELOOP || errno == ENOTDIR ? kNotADirectory : std::strerror(errno));

    const std::string name = pipelineCacheFileName(device);
    // A fresh name that nothing else holds: exclusive creation, never through a link.
    std::string temporary;
    int created = -1;
    std::random_device entropy;
    for (int attempt = 0; attempt < 16 && created < 0; ++attempt) {
        temporary = "." + name + "." + std::to_string(::getpid()) + "-" + std::to_string(entropy()) + ".tmp";
        created = ::openat(folder.get(), temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
        if (created < 0 && errno != EEXIST) break;
    }
    if (created < 0) fail((directory / name).string(), std::strerror(errno));
    FileDescriptor file(created);
    bool renamed = false;
    struct RemoveUnlessRenamed {
        int folder;
        const std::string& name;
        const bool& renamed;
        ~RemoveUnlessRenamed() {
            if (!renamed) ::unlinkat(folder, name.c_str(), 0);
        }
    } cleanup{folder.get(), temporary, renamed};

    const FileHeader header = headerFor(device, bytes);
    const auto writeAll = [&](const void* data, std::size_t size) {
        const auto* from = static_cast<const std::uint8_t*>(data);
        while (size > 0) {
            const ssize_t written = ::write(file.get(), from, size);
            if (written < 0 && errno == EINTR) continue;
            if (written <= 0) fail((directory / temporary).string(), std::strerror(errno));
            from += written;
            size -= static_cast<std::size_t>(written);
        }
    };
    writeAll(&header, sizeof header);
    writeAll(bytes.data(), bytes.size());
    if (::close(file.release()) != 0) fail((directory / temporary).string(), std::strerror(errno));
    if (::renameat(folder.get(), temporary.c_str(), folder.get(), name.c_str()) != 0)
        fail((directory / name).string(), std::strerror(errno));
    renamed = true;
}

} // namespace brisvale
