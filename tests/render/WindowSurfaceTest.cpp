// The window surface on a private Xvfb display with lavapipe: a FIFO swapchain on an SDL2
// window, frames drawn at the drawable size and stretched over the window, recreated when the
// window's size changes, images of failed frames given back, with the validation layer watching.

#include "RenderTestSupport.h"

#include "render/RendererTesting.h"
#include "render/gpu/CompletionThread.h"
#include "render/gpu/WindowSurface.h"

#include <SDL2/SDL.h>
#include <SDL2/SDL_vulkan.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <chrono>
#include <cstdio>
#include <thread>

extern char** environ;

namespace brisvale::testing {
namespace {

// Xvfb on a display of its own for the life of the test.
class PrivateDisplay {
public:
    PrivateDisplay() {
        for (int display = 90 + getpid() % 50; display < 200 && pid_ < 0; ++display) {
            const std::string socket = "/tmp/.X11-unix/X" + std::to_string(display);
            if (std::filesystem::exists(socket)) continue;
            const std::string name = ":" + std::to_string(display);
            const char* argv[] = {"Xvfb", name.c_str(), "-screen", "0", "640x480x24", "-nolisten", "tcp", nullptr};
            pid_t pid = -1;
            if (posix_spawnp(&pid, "Xvfb", nullptr, nullptr, const_cast<char**>(argv), environ) != 0) return;
            for (int i = 0; i < 100 && !std::filesystem::exists(socket); ++i) {
                std::this_thread::sleep_for(std::chrono::milliseconds(50));
            }
            if (!std::filesystem::exists(socket)) {
                kill(pid, SIGTERM);
                waitpid(pid, nullptr, 0);
                continue;
            }
            pid_ = pid;
            name_ = name;
        }
    }
    ~PrivateDisplay() {
        if (pid_ > 0) {
            kill(pid_, SIGTERM);
            waitpid(pid_, nullptr, 0);
        }
    }
    PrivateDisplay(const PrivateDisplay&) = delete;
    PrivateDisplay& operator=(const PrivateDisplay&) = delete;
    bool running() const { return pid_ > 0; }
    const std::string& name() const { return name_; }

private:
    pid_t pid_ = -1;
    std::string name_;
};

// One RGB pixel of the display's root window, through ImageMagick's import.
Pixel screenPixel(const std::string& display, int x, int y) {
    const std::string command = "DISPLAY=" + display + " import -window root -crop 1x1+" + std::to_string(x) + "+" +
                                std::to_string(y) + " -depth 8 rgb:- 2>/dev/null";
    FILE* pipe = popen(command.c_str(), "r");
    unsigned char rgb[3] = {0, 0, 0};
    const std::size_t n = pipe ? std::fread(rgb, 1, 3, pipe) : 0;
    if (pipe) pclose(pipe);
    if (n != 3) return Pixel{-1, -1, -1, -1};
    return Pixel{rgb[0], rgb[1], rgb[2], 255};
}

class WindowSurfaceTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(display_.running()) << "Xvfb did not start";
        ::setenv("DISPLAY", display_.name().c_str(), 1);
        ::setenv("SDL_VIDEODRIVER", "x11", 1);
        ASSERT_EQ(SDL_Init(SDL_INIT_VIDEO), 0) << SDL_GetError();
        window_ = SDL_CreateWindow("surface test", 0, 0, 320, 240, SDL_WINDOW_VULKAN | SDL_WINDOW_SHOWN);
        ASSERT_NE(window_, nullptr) << SDL_GetError();
        unsigned count = 0;
        ASSERT_TRUE(SDL_Vulkan_GetInstanceExtensions(window_, &count, nullptr));
        std::vector<const char*> names(count);
        ASSERT_TRUE(SDL_Vulkan_GetInstanceExtensions(window_, &count, names.data()));
        gpu::DeviceOptions options;
        options.validation = true;
        options.instanceExtensions.assign(names.begin(), names.end());
        device_ = gpu::Device::create(options);
        ASSERT_NE(device_, nullptr);
        ASSERT_TRUE(device_->supportsSwapchain());
    }
    void TearDown() override {
        if (device_) {
            EXPECT_EQ(device_->validationMessageCount(), 0u);
        }
        device_.reset();
        if (window_) SDL_DestroyWindow(window_);
        SDL_Quit();
    }
    void pumpEvents() {
        SDL_Event event;
        while (SDL_PollEvent(&event)) {
        }
    }

    PrivateDisplay display_;
    SDL_Window* window_ = nullptr;
    TempDir dir_;
    MainQueue queue_;
    std::unique_ptr<gpu::Device> device_;
};

TEST_F(WindowSurfaceTest, DrawsEveryPhaseOntoTheWindowAndFollowsItsSize) {
    auto surface = gpu::createWindowSurface(*device_, window_);
    ASSERT_NE(surface, nullptr);
    EXPECT_TRUE(surface->colorFormat() == VK_FORMAT_B8G8R8A8_UNORM || surface->colorFormat() == VK_FORMAT_R8G8B8A8_UNORM);
    EXPECT_EQ(surface->drawableWidth(), 320u);
    EXPECT_EQ(surface->drawableHeight(), 240u);
    {
        Renderer renderer(device_.get(), surface.get(), makeArchive(dir_, {}), markerManifest(), queue_.poster());
        renderer.resize({320, 240});
        for (int i = 0; i < 30; ++i) {
            pumpEvents();
            renderer.draw(FrameInfo{static_cast<float>(i % 3 == 0 ? 1 : i % 3 == 1 ? 150 : 50), 0.016f, 0, 0});
        }
        // Drawn smaller than the window and stretched over it.
        surface->setDrawableSize(64, 48);
        for (int i = 0; i < 10; ++i) renderer.draw(FrameInfo{50.0f, 0.016f, 0, 0});
        device_->waitIdle();
        // The middle phase: the quad over the clear colour, below the quad's top band.
        EXPECT_TRUE(near(screenPixel(display_.name(), 160, 200), expected(0.01f, 0.01f, 0.5125f), 3));

        // A new window size: the swapchain is rebuilt and drawing goes on.
        SDL_SetWindowSize(window_, 200, 150);
        pumpEvents();
        for (int i = 0; i < 10; ++i) renderer.draw(FrameInfo{150.0f, 0.016f, 0, 0});
        device_->waitIdle();
        device_->completions().drain();
    }
}

// A frame that fails after taking a swapchain image, at its submission or by raising, gives the
// image back: the frames after it present, none waits in vain for an image, and meanwhile the
// window keeps the last picture, also one drawn below the window's size.
TEST_F(WindowSurfaceTest, FailedFramesGiveTheirImagesBack) {
    auto surface = gpu::createWindowSurface(*device_, window_);
    ASSERT_NE(surface, nullptr);
    Renderer renderer(device_.get(), surface.get(), makeArchive(dir_, {}), markerManifest(), queue_.poster());
    renderer.resize({320, 240});
    Renderer::Impl& impl = RendererTesting::impl(renderer);
    const int frames = 8;  // more than the swapchain has images
    // Every frame gets an image (a frame that waited in vain for one would leave the index).
    auto drawEachTakingAnImage = [&](float t) {
        for (int i = 0; i < frames; ++i) {
            const std::uint32_t index = impl.requestBufferIndex;
            renderer.draw(FrameInfo{t, 0.016f, 0, 0});
            ASSERT_EQ(impl.requestBufferIndex, (index + 1) % 3) << "frame " << i << " got no image";
        }
        device_->waitIdle();
    };
    const Pixel middle = expected(0.01f, 0.01f, 0.5125f);  // the quad over the clear colour
    const Pixel intro = expected(0.0f, 0.5f, 0.5f);        // the quad over rectangle B

    // Failed submissions before anything was presented: one line each, the show goes on.
    impl.injectedFailures = {frames, VK_ERROR_OUT_OF_DEVICE_MEMORY, false};
    ::testing::internal::CaptureStderr();
    for (int i = 0; i < frames; ++i) renderer.draw(FrameInfo{50.0f, 0.016f, 0, 0});
    std::string lines;
    for (int i = 0; i < frames; ++i) lines += "Metal command buffer failed: VK_ERROR_OUT_OF_DEVICE_MEMORY\n";
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), lines);
    EXPECT_EQ(impl.requestBufferIndex, 0u);
    EXPECT_EQ(impl.framesInFlight.load(), 0u);
    drawEachTakingAnImage(50.0f);
    EXPECT_TRUE(near(screenPixel(display_.name(), 200, 120), middle, 3));

    // Frames whose encoding raises, after a picture: the window keeps it.
    impl.injectedFailures = {frames, VK_SUCCESS, true};
    for (int i = 0; i < frames; ++i) EXPECT_THROW(renderer.draw(FrameInfo{1.0f, 0.016f, 0, 0}), std::runtime_error);
    device_->waitIdle();
    EXPECT_EQ(impl.framesInFlight.load(), 0u);
    EXPECT_TRUE(near(screenPixel(display_.name(), 200, 120), middle, 3));
    drawEachTakingAnImage(1.0f);
    EXPECT_TRUE(near(screenPixel(display_.name(), 200, 120), intro, 3));

    // Drawn at half the size and stretched straight onto the window's images: failed frames
    // show that picture again, not what the drawable itself last held.
    renderer.setRenderScale(0.5f);
    drawEachTakingAnImage(50.0f);
    EXPECT_TRUE(near(screenPixel(display_.name(), 200, 120), middle, 3));
    impl.injectedFailures = {frames, VK_SUCCESS, true};
    for (int i = 0; i < frames; ++i) EXPECT_THROW(renderer.draw(FrameInfo{1.0f, 0.016f, 0, 0}), std::runtime_error);
    device_->waitIdle();
    EXPECT_TRUE(near(screenPixel(display_.name(), 200, 120), middle, 3));
    device_->completions().drain();
}

// One line in the error, nothing printed: the launch reports it as its own one line.
TEST_F(WindowSurfaceTest, ADeviceWithoutSurfaceExtensionsCannotPresentToAWindow) {
    auto plain = gpu::Device::create({});
    ASSERT_NE(plain, nullptr);
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(errorOf([&] { gpu::createWindowSurface(*plain, window_); }),
              "Vulkan device was created without window support");
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(gpu::createWindowSurface(*device_, nullptr), nullptr);
}

} // namespace
} // namespace brisvale::testing
