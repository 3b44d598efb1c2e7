#pragma once
// Helpers for the renderer's GPU tests: a lavapipe device with validation on, archives built with
// the content library's writer, encoded test images, a main-thread task queue, and a marker
// shader whose passes paint pixels that the tests read back.

#include "content/ArchiveWriter.h"
#include "content/DemoArchive.h"
#include "content/DemoManifest.h"
#include "render/Renderer.h"
#include "render/gpu/Device.h"
#include "render/gpu/OffscreenSurface.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "support/TestSupport.h"

namespace brisvale::testing {

// PNG bytes of a width × height RGBA8 image (straight alpha, top row first).
std::vector<std::uint8_t> encodePng(std::uint32_t width, std::uint32_t height, const std::vector<std::uint8_t>& rgba);
std::vector<std::uint8_t> solidPng(std::uint32_t width, std::uint32_t height, std::uint8_t r, std::uint8_t g,
                                   std::uint8_t b, std::uint8_t a);

// The marker shader: every pass paints what it saw (see RenderTestSupport.cpp for the layout).
// It includes the player's interface as every show does, from lib/frame.glsl.
extern const char* const kMarkerShader;
// The bytes of show/shaders/lib/frame.glsl, which every archive made here holds as lib/frame.glsl.
const std::vector<std::uint8_t>& frameInterface();

struct ShowFiles {
    std::string shader = kMarkerShader;
    std::vector<std::vector<std::uint8_t>> images;   // image.0.path ... in order
    bool withShader = true;
    std::optional<std::string> assets;                // assets.txt as given instead of the list
    bool withAssets = true;
    std::vector<ArchiveFile> more;                    // further files, as given
};

// Writes demo.dat (scene.glsl, lib/frame.glsl, assets.txt, images) and loads it.
std::shared_ptr<const DemoArchive> makeArchive(const TempDir& dir, const ShowFiles& files);
DemoManifest markerManifest();

// Posted main-thread tasks, run by the test when it chooses.
class MainQueue {
public:
    MainThreadPoster poster() {
        return [this](std::function<void()> task) {
            std::lock_guard lock(mutex_);
            tasks_.push_back(std::move(task));
        };
    }
    std::size_t pending() {
        std::lock_guard lock(mutex_);
        return tasks_.size();
    }
    void drain() {
        std::vector<std::function<void()>> tasks;
        {
            std::lock_guard lock(mutex_);
            tasks.swap(tasks_);
        }
        for (auto& task : tasks) task();
    }

private:
    std::mutex mutex_;  // guards tasks_: completion thread posts, the test drains
    std::vector<std::function<void()>> tasks_;
};

// A lavapipe device with validation; every test checks that it saw no validation message.
class GpuTest : public ::testing::Test {
protected:
    void SetUp() override {
        gpu::DeviceOptions options;
        options.validation = true;
        device_ = gpu::Device::create(options);
        ASSERT_NE(device_, nullptr) << "no Vulkan device";
        ASSERT_TRUE(device_->validationEnabled()) << "the validation layer is required";
    }
    void TearDown() override {
        if (device_) {
            EXPECT_EQ(device_->validationMessageCount(), 0u) << "validation messages were printed above";
        }
    }
    std::unique_ptr<Renderer> makeRenderer(gpu::Surface& surface, const ShowFiles& files = {}) {
        return std::make_unique<Renderer>(device_.get(), &surface, makeArchive(dir_, files), markerManifest(),
                                          queue_.poster());
    }
    // Waits for every frame submitted so far, with its completion handler.
    void finishFrames();

    TempDir dir_;
    MainQueue queue_;
    std::unique_ptr<gpu::Device> device_;
};

// A renderer of the marker show on a square offscreen surface of `kOffscreenEdge` pixels.
class OffscreenRendererTest : public GpuTest {
public:
    static constexpr std::uint32_t kOffscreenEdge = 64;

protected:
    void SetUp() override {
        GpuTest::SetUp();
        surface_ = std::make_unique<gpu::OffscreenSurface>(*device_, kOffscreenEdge, kOffscreenEdge);
        renderer_ = makeRenderer(*surface_);
        renderer_->resize({kOffscreenEdge, kOffscreenEdge});
    }
    void TearDown() override {
        renderer_.reset();
        surface_.reset();
        GpuTest::TearDown();
    }

    std::unique_ptr<gpu::OffscreenSurface> surface_;
    std::unique_ptr<Renderer> renderer_;
};

struct Pixel {
    int r, g, b, a;
};
Pixel pixelAt(const std::vector<std::uint8_t>& rgba, std::uint32_t width, std::uint32_t x, std::uint32_t y);
// Bytes of a colour given as floats, as the UNORM target stores them.
Pixel expected(float r, float g, float b, float a = 1.0f);
::testing::AssertionResult near(Pixel actual, Pixel wanted, int tolerance = 2);

} // namespace brisvale::testing
