// The image texture array: one 1024 × 1024 RGBA8 layer per image of the asset manifest, decoded,
// squeezed to the square, premultiplied, and uploaded through a staging buffer, several layers
// at once. Prepared at start-up, or on any thread while the show plays, and installed between
// two frames.
//
// A show's images come from strangers: the layer count is checked against the device, and the
// images' headers against the decode budget, before the array is made or any pixel decoded.

#include "render/RendererImpl.h"

#include "content/AssetManifest.h"
#include "render/ImageDecode.h"
#include "render/gpu/Recording.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <future>
#include <string>
#include <thread>

namespace brisvale {
namespace {

constexpr const char* kNoImagePaths = "Asset manifest does not define any image paths";
constexpr const char* kNoImageArray = "Failed to create image texture array";
constexpr const char* kNoUploadBuffer = "Failed to create bitmap context for texture upload";
constexpr const char* kForeignImages = "Not images prepared by this renderer";
// Layers decoded at once: each holds a decoded image and a 4 MiB staging layer meanwhile.
constexpr std::uint32_t kMaxDecodeWorkers = 4;
const std::string kOverDecodeBudget =
    "Images together are larger than " + std::to_string(renderer_limits::kImageDecodeBudgetPixels) + " pixels";

} // namespace

Renderer::Impl::ImageSources Renderer::Impl::readImages(const DemoArchive& source,
                                                        std::string_view assetManifestPath) const {
    ImageSources sources;
    sources.paths = loadImagePaths(source, std::string(assetManifestPath));
    if (sources.paths.empty()) throw std::runtime_error(kNoImagePaths);

    gpu::TextureDescription description;
    description.format = VK_FORMAT_R8G8B8A8_UNORM;
    description.width = renderer_limits::kImageEdge;
    description.height = renderer_limits::kImageEdge;
    description.array = true;
    description.usage = VK_IMAGE_USAGE_SAMPLED_BIT | VK_IMAGE_USAGE_TRANSFER_DST_BIT | VK_IMAGE_USAGE_TRANSFER_SRC_BIT;
    const std::uint32_t allowed = gpu::textureLimits(*device, description).maxLayers;
    if (sources.paths.size() > allowed)
        throw std::runtime_error(std::string(kNoImageArray) + ": " + std::to_string(sources.paths.size()) +
                                 " images, the device allows at most " + std::to_string(allowed));
    description.layers = static_cast<std::uint32_t>(sources.paths.size());

    // What decoding would cost is known from the headers before anything is spent on it. A file
    // that cannot be opened, or whose header cannot be read, is left to the decoding, which
    // reports it in list order.
    sources.bytes.resize(sources.paths.size());
    sources.openFailures.resize(sources.paths.size());
    std::uint64_t declaredPixels = 0;
    for (std::size_t i = 0; i < sources.paths.size(); ++i) {
        const std::string& path = sources.paths[i];
        try {
            sources.bytes[i] = source.open(path);
        } catch (const std::runtime_error&) {
            sources.openFailures[i] = std::current_exception();
            continue;
        }
        try {
            const ImageSize size = readImageSize(sources.bytes[i].data(), sources.bytes[i].size(), path);
            declaredPixels += std::uint64_t(size.width) * size.height;
        } catch (const std::runtime_error&) {
            continue;
        }
        if (declaredPixels > renderer_limits::kImageDecodeBudgetPixels)
            throw std::runtime_error(kOverDecodeBudget + ": " + path);
    }

    sources.array = requireCreated(kNoImageArray, [&] { return gpu::Texture::create(*device, description); });
    return sources;
}

std::shared_ptr<Renderer::PreparedImages> Renderer::Impl::uploadImages(const ImageSources& sources,
                                                                       const std::atomic<bool>* cancelled) const {
    // Several layers decode at once, each taken in list order by the next free worker. After a
    // failure no later layer is started, and the first failure in list order is the one reported
    // (decoding checks each header's limits again).
    const auto count = static_cast<std::uint32_t>(sources.paths.size());
    std::atomic<std::uint32_t> next{0};
    std::atomic<std::uint32_t> firstFailed{count};
    std::vector<std::exception_ptr> failures(count);
    const auto work = [&] {
        for (std::uint32_t slice = next++; slice < count; slice = next++) {
            if (slice > firstFailed.load() || (cancelled && cancelled->load())) return;
            try {
                if (sources.openFailures[slice]) std::rethrow_exception(sources.openFailures[slice]);
                loadTextureSlice(sources.bytes[slice], sources.paths[slice], *sources.array, slice,
                                 renderer_limits::kImageEdge);
            } catch (...) {
                failures[slice] = std::current_exception();
                std::uint32_t seen = firstFailed.load();
                while (slice < seen && !firstFailed.compare_exchange_weak(seen, slice)) {
                }
            }
        }
    };
    const std::uint32_t workers = std::min({std::max(std::thread::hardware_concurrency(), 1u), kMaxDecodeWorkers, count});
    std::vector<std::future<void>> helpers;
    for (std::uint32_t i = 1; i < workers; ++i) helpers.push_back(startAside(work));
    work();
    for (auto& helper : helpers) helper.get();
    for (const std::exception_ptr& failure : failures)
        if (failure) std::rethrow_exception(failure);
    if (cancelled && cancelled->load()) return nullptr;

    auto prepared = std::make_shared<Renderer::PreparedImages>();
    prepared->owner = this;
    prepared->array = sources.array;
    prepared->count = count;
    return prepared;
}

std::shared_ptr<Renderer::PreparedImages> Renderer::Impl::prepareImages(const DemoArchive& source,
                                                                        std::string_view assetManifestPath) const {
    return uploadImages(readImages(source, assetManifestPath), nullptr);
}

void Renderer::Impl::installImages(std::shared_ptr<Renderer::PreparedImages> images) {
    if (!images || images->owner != this) throw std::invalid_argument(kForeignImages);
    imageTextureArray = images->array;  // frames in flight hold the array they sample
    imageCount = images->count;
}

void Renderer::Impl::loadTextureArray() {
    installImages(prepareImages(*archive, manifest.assetManifestPath));
}

void Renderer::Impl::loadTextureSlice(ArchiveBytes bytes, const std::string& path, const gpu::Texture& array,
                                      std::uint32_t slice, std::uint64_t size) const {
    const std::uint32_t edge = static_cast<std::uint32_t>(size);
    const std::vector<std::uint8_t> pixels = decodeImageToSquare(bytes.data(), bytes.size(), edge, path);

    const VkDeviceSize layerBytes = VkDeviceSize(edge) * edge * 4;
    auto staging = requireCreated(kNoUploadBuffer, [&] {
        return gpu::Buffer::create(*device, layerBytes, VK_BUFFER_USAGE_TRANSFER_SRC_BIT,
                                   gpu::BufferMemory::HostVisible);
    });
    std::memcpy(staging->data(), pixels.data(), layerBytes);
    staging->flush();

    device->runNow([&](VkCommandBuffer commands) {
        const gpu::Layers layer{slice, 1};
        gpu::imageBarrier(commands, array, VK_IMAGE_LAYOUT_UNDEFINED, VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL,
                          VK_PIPELINE_STAGE_2_NONE, VK_ACCESS_2_NONE, VK_PIPELINE_STAGE_2_COPY_BIT,
                          VK_ACCESS_2_TRANSFER_WRITE_BIT, layer);
        gpu::copyBufferToLayer(commands, *staging, array, slice);
        gpu::imageBarrier(commands, array, VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL,
                          VK_IMAGE_LAYOUT_SHADER_READ_ONLY_OPTIMAL, VK_PIPELINE_STAGE_2_COPY_BIT,
                          VK_ACCESS_2_TRANSFER_WRITE_BIT, VK_PIPELINE_STAGE_2_FRAGMENT_SHADER_BIT,
                          VK_ACCESS_2_SHADER_SAMPLED_READ_BIT, layer);
    });
}

} // namespace brisvale
