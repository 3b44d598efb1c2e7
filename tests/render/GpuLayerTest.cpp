// The GPU layer on lavapipe: device creation and its validation messenger, buffers through
// staging copies and readbacks, the completion thread's order, the offscreen surface, and
// sizes beyond the device refused before the driver sees them.

#include "RenderTestSupport.h"

#include "render/gpu/Buffer.h"
#include "render/gpu/CommandBuffer.h"
#include "render/gpu/CompletionThread.h"
#include "render/gpu/Recording.h"
#include "render/gpu/Texture.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <numeric>

namespace brisvale::testing {
namespace {

using GpuLayer = GpuTest;

// A buffer of size 0 is invalid usage: the layer must see it. Returns what was printed.
std::string createAnInvalidBuffer(gpu::Device& device) {
    VkBufferCreateInfo info{};
    info.sType = VK_STRUCTURE_TYPE_BUFFER_CREATE_INFO;
    info.size = 0;
    info.usage = VK_BUFFER_USAGE_STORAGE_BUFFER_BIT;
    ::testing::internal::CaptureStderr();
    VkBuffer buffer = VK_NULL_HANDLE;
    if (vkCreateBuffer(device.handle(), &info, nullptr, &buffer) == VK_SUCCESS && buffer != VK_NULL_HANDLE) {
        vkDestroyBuffer(device.handle(), buffer, nullptr);
    }
    return ::testing::internal::GetCapturedStderr();
}

TEST(GpuDevice, ValidationMessagesAreCountedAndPrinted) {
    gpu::DeviceOptions options;
    options.validation = true;
    auto device = gpu::Device::create(options);
    ASSERT_NE(device, nullptr);
    ASSERT_TRUE(device->validationEnabled());
    EXPECT_EQ(device->validationMessageCount(), 0u);

    const std::string printed = createAnInvalidBuffer(*device);
    EXPECT_GE(device->validationMessageCount(), 1u);
    EXPECT_NE(printed.find("Vulkan validation: "), std::string::npos) << printed;
}

// A program with no validation switch of its own is checked by having the loader add the layer:
// its messages reach the same messenger. Without the layer there is no messenger.
TEST(GpuDevice, ALayerTheLoaderAddsReportsThroughTheMessenger) {
    ::setenv("VK_INSTANCE_LAYERS", "VK_LAYER_KHRONOS_validation", 1);
    auto withLayer = gpu::Device::create({});
    ::unsetenv("VK_INSTANCE_LAYERS");
    auto without = gpu::Device::create({});
    ASSERT_NE(withLayer, nullptr);
    ASSERT_NE(without, nullptr);
    ASSERT_TRUE(withLayer->validationEnabled());
    EXPECT_FALSE(without->validationEnabled());

    const std::string printed = createAnInvalidBuffer(*withLayer);
    EXPECT_GE(withLayer->validationMessageCount(), 1u);
    EXPECT_NE(printed.find("Vulkan validation: "), std::string::npos) << printed;
}

TEST_F(GpuLayer, TheDeviceIsVulkan13WithOneGraphicsAndComputeQueue) {
    EXPECT_GE(device_->properties().apiVersion, VK_API_VERSION_1_3);
    EXPECT_FALSE(device_->supportsSwapchain());  // no surface extensions were asked for
}

TEST_F(GpuLayer, PrivateBuffersAreFilledThroughStagingAndReadBack) {
    std::vector<std::uint32_t> words(1000);
    std::iota(words.begin(), words.end(), 7u);
    const VkDeviceSize bytes = words.size() * sizeof(std::uint32_t);
    auto gpuPrivate = gpu::Buffer::create(*device_, bytes, VK_BUFFER_USAGE_TRANSFER_SRC_BIT,
                                          gpu::BufferMemory::GpuPrivate);
    auto readback = gpu::Buffer::create(*device_, bytes, VK_BUFFER_USAGE_TRANSFER_DST_BIT,
                                        gpu::BufferMemory::HostReadback);
    ASSERT_NE(gpuPrivate, nullptr);
    ASSERT_NE(readback, nullptr);
    EXPECT_EQ(gpuPrivate->data(), nullptr);
    gpuPrivate->upload(words.data(), bytes);
    device_->runNow([&](VkCommandBuffer commands) {
        VkBufferCopy region{0, 0, bytes};
        vkCmdCopyBuffer(commands, gpuPrivate->handle(), readback->handle(), 1, &region);
        gpu::memoryBarrier(commands, VK_PIPELINE_STAGE_2_COPY_BIT, VK_ACCESS_2_TRANSFER_WRITE_BIT,
                           VK_PIPELINE_STAGE_2_HOST_BIT, VK_ACCESS_2_HOST_READ_BIT);
    });
    readback->invalidate();
    EXPECT_EQ(std::memcmp(readback->data(), words.data(), bytes), 0);
}

struct RecordingHandler final : gpu::CompletionHandler {
    std::vector<int>* order = nullptr;
    std::mutex* mutex = nullptr;
    int id = 0;
    bool failed = false;
    void frameCompleted(const gpu::CompletionStatus& status) override {
        std::lock_guard lock(*mutex);
        order->push_back(id);
        failed = status.failed;
    }
};

TEST_F(GpuLayer, CompletionHandlersRunInSubmissionOrderOnceTheirWorkIsDone) {
    auto queue = gpu::CommandQueue::create(*device_, 3);
    ASSERT_NE(queue, nullptr);
    std::vector<int> order;
    std::mutex mutex;  // guards order: written on the completion thread, read here after drain
    std::array<RecordingHandler, 3> handlers;
    for (int i = 0; i < 3; ++i) {
        handlers[i].order = &order;
        handlers[i].mutex = &mutex;
        handlers[i].id = i;
        gpu::CommandBuffer& commands = queue->buffer(static_cast<std::uint32_t>(i));
        commands.begin();
        commands.end();
        ASSERT_EQ(commands.submit({}), VK_SUCCESS);
        device_->completions().watch(commands.fence(), &handlers[i]);
    }
    device_->completions().drain();
    std::lock_guard lock(mutex);
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2}));
    for (const auto& handler : handlers) EXPECT_FALSE(handler.failed);
    for (std::uint32_t i = 0; i < 3; ++i) {
        EXPECT_EQ(vkGetFenceStatus(device_->handle(), queue->buffer(i).fence()), VK_SUCCESS);
    }
}

TEST_F(GpuLayer, AnOffscreenSurfaceHasNothingToReadBeforeItsFirstFrame) {
    gpu::OffscreenSurface surface(*device_, 8, 4);
    EXPECT_TRUE(surface.readbackRGBA().empty());
    EXPECT_EQ(surface.colorFormat(), VK_FORMAT_B8G8R8A8_UNORM);
    gpu::Drawable drawable;
    ASSERT_TRUE(surface.nextDrawable(drawable));
    EXPECT_EQ(drawable.texture->width(), 8u);
    EXPECT_EQ(drawable.texture->height(), 4u);
    surface.setDrawablesAvailable(false);
    EXPECT_FALSE(surface.nextDrawable(drawable));
}

TEST_F(GpuLayer, AnOffscreenSurfaceReadsBackRgbaTopRowFirst) {
    // Clear the top half red and the bottom half blue through the surface's own frame path.
    gpu::OffscreenSurface surface(*device_, 4, 4);
    auto queue = gpu::CommandQueue::create(*device_, 1);
    gpu::Drawable drawable;
    ASSERT_TRUE(surface.nextDrawable(drawable));
    gpu::CommandBuffer& commands = queue->buffer(0);
    commands.begin();
    surface.encodeBegin(commands, drawable);
    commands.beginRendering(gpu::ColorTarget::cleared(*drawable.texture, {0.0f, 0.0f, 1.0f, 1.0f}), {});
    VkClearAttachment red{};
    red.aspectMask = VK_IMAGE_ASPECT_COLOR_BIT;
    red.clearValue.color = {{1.0f, 0.0f, 0.0f, 1.0f}};
    VkClearRect top{{{0, 0}, {4, 2}}, 0, 1};
    vkCmdClearAttachments(commands.handle(), 1, &red, 1, &top);
    commands.endRendering();
    surface.encodePresent(commands, drawable);
    commands.end();
    ASSERT_EQ(commands.submit({}), VK_SUCCESS);
    surface.present(drawable);
    const auto rgba = surface.readbackRGBA();
    ASSERT_EQ(rgba.size(), 64u);
    EXPECT_TRUE(near(pixelAt(rgba, 4, 1, 0), Pixel{255, 0, 0, 255}, 0));
    EXPECT_TRUE(near(pixelAt(rgba, 4, 2, 3), Pixel{0, 0, 255, 255}, 0));
    EXPECT_EQ(surface.presentedCount(), 1u);
}

TEST_F(GpuLayer, SizesBeyondTheDeviceNeverReachTheDriver) {
    // lavapipe crashed inside vkCreateImage on a 65536 × 65536 target.
    const std::uint32_t side = device_->properties().limits.maxImageDimension2D;
    const std::string allowed = "the device allows at most " + std::to_string(side) + " x " + std::to_string(side);
    EXPECT_EQ(errorOf([&] { gpu::OffscreenSurface huge(*device_, 65536, 65536); }),
              "Drawable size 65536 x 65536 is too large: " + allowed);
    gpu::OffscreenSurface surface(*device_, 8, 4);
    EXPECT_EQ(errorOf([&] { surface.setDrawableSize(1, side + 1); }),
              "Drawable size 1 x " + std::to_string(side + 1) + " is too large: " + allowed);
    gpu::Drawable drawable;
    ASSERT_TRUE(surface.nextDrawable(drawable));  // the refused size left the old one in place
    EXPECT_EQ(drawable.texture->width(), 8u);

    // Refused by the texture itself, in its own words: no Vulkan call failed.
    const auto refused = [&](const gpu::TextureDescription& description, const std::string& size) {
        return errorOf([&] { gpu::Texture::create(*device_, description); })
            .starts_with("A texture of " + size + " is beyond the device (at most ");
    };
    gpu::TextureDescription wide;
    wide.width = side + 1;
    EXPECT_TRUE(refused(wide, std::to_string(side + 1) + " x 1 with 1 layers"));
    gpu::TextureDescription deep;
    deep.layers = device_->properties().limits.maxImageArrayLayers + 1;
    deep.array = true;
    EXPECT_TRUE(refused(deep, "1 x 1 with " + std::to_string(deep.layers) + " layers"));
    gpu::TextureDescription heavy;  // within every side and layer limit, beyond one allocation
    heavy.width = heavy.height = 8192;
    heavy.layers = static_cast<std::uint32_t>(device_->maxAllocationSize() / (8192ull * 8192 * 4)) + 1;
    heavy.array = true;
    EXPECT_TRUE(refused(heavy, "8192 x 8192 with " + std::to_string(heavy.layers) + " layers"));
}

} // namespace
} // namespace brisvale::testing
