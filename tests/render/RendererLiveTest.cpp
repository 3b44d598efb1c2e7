// What the author's tools use while a show plays, on lavapipe: shaders and images prepared on
// another thread and installed between frames, text over the picture, the GPU time of a frame,
// and the pipeline cache kept between runs.
//
// [SECTION] Shaders, images, text and GPU time while the show plays
// [SECTION] The pipeline cache

#include "RenderTestSupport.h"

#include "render/PipelineCacheFile.h"
#include "render/RendererTesting.h"

#include <sys/stat.h>

#include <cstdlib>
#include <fstream>
#include <thread>

namespace brisvale::testing {
namespace {

constexpr std::uint32_t kEdge = OffscreenRendererTest::kOffscreenEdge;
constexpr float kMiddle = 50.0f;  // the marker shader's quad alone
// The half-transparent blue quad over the clear colour, and the same quad made red.
const Pixel kBlueQuad = expected(0.01f, 0.01f, 0.5125f);
const Pixel kRedQuad = expected(0.51f, 0.01f, 0.0125f);

// ---------------------------------------------------------------------------------------------
// [SECTION] Shaders, images, text and GPU time while the show plays
// ---------------------------------------------------------------------------------------------

std::string redMarkerShader() {
    std::string source = kMarkerShader;
    const std::string blue = "outColor = vec4(0.0, 0.0, 1.0, 0.5);";
    source.replace(source.find(blue), blue.size(), "outColor = vec4(1.0, 0.0, 0.0, 0.5);");
    return source;
}

class RendererLive : public OffscreenRendererTest {
protected:
    void draw(float t = kMiddle) {
        FrameInfo frame;
        frame.timeSeconds = t;
        renderer_->draw(frame);
    }
    std::vector<std::uint8_t> picture(float t = kMiddle) {
        draw(t);
        finishFrames();
        return surface_->readbackRGBA();
    }
    // Runs `work` on a thread of its own while the main thread keeps drawing.
    template <class Work> auto whileDrawing(Work work) {
        decltype(work()) result{};
        std::exception_ptr failure;
        std::thread helper([&] {
            try {
                result = work();
            } catch (...) {
                failure = std::current_exception();
            }
        });
        for (int i = 0; i < 6; ++i) draw();
        helper.join();
        if (failure) std::rethrow_exception(failure);
        return result;
    }
    Renderer::Impl& impl() { return RendererTesting::impl(*renderer_); }

};

TEST_F(RendererLive, InstalledShadersDrawFromTheNextFrameWhileEarlierFramesFinishWithTheOldOnes) {
    EXPECT_TRUE(near(pixelAt(picture(), kEdge, 40, 40), kBlueQuad));
    ShowFiles files;
    files.shader = redMarkerShader();
    const auto archive = makeArchive(dir_, files);
    auto prepared = whileDrawing([&] { return renderer_->prepareShaders(*archive, "scene.glsl"); });
    for (float t : {1.0f, kMiddle, 150.0f}) draw(t);  // in flight when the old pipelines are let go
    renderer_->installShaders(prepared);
    prepared.reset();
    EXPECT_TRUE(near(pixelAt(picture(), kEdge, 40, 40), kRedQuad));
    for (float t : {1.0f, 150.0f}) picture(t);  // compute and composite with the new set too
}

TEST_F(RendererLive, AFailedPreparationLeavesTheOldShadersDrawing) {
    ShowFiles files;
    files.shader = std::string(kMarkerShader) + "\nthis is not GLSL;\n";
    const auto broken = makeArchive(dir_, files);
    const std::string message = errorOf([&] { whileDrawing([&] { return renderer_->prepareShaders(*broken, "scene.glsl"); }); });
    EXPECT_EQ(message.rfind("Failed to compile Metal shader source: ", 0), 0u) << message;
    EXPECT_EQ(errorOf([&] { renderer_->prepareShaders(*broken, "missing.glsl"); }),
              "Missing file in demo archive: missing.glsl");
    EXPECT_TRUE(near(pixelAt(picture(), kEdge, 40, 40), kBlueQuad));
}

TEST_F(RendererLive, InstalledImagesChangeTheCountAndTheLayers) {
    ShowFiles files;
    files.images = {solidPng(4, 4, 255, 0, 0, 255), solidPng(4, 4, 0, 255, 0, 255), solidPng(4, 4, 0, 0, 255, 255)};
    const auto archive = makeArchive(dir_, files);
    auto prepared = whileDrawing([&] { return renderer_->prepareImages(*archive, "assets.txt"); });
    EXPECT_EQ(impl().imageCount, 1u);
    renderer_->installImages(prepared);
    // The quad's top eighth shows imageCount / 8 in blue.
    EXPECT_TRUE(near(pixelAt(picture(), kEdge, 32, 2), expected(kEdge / 2048.0f, kEdge / 2048.0f, 3.0f / 8), 1));
    EXPECT_EQ(impl().imageCount, 3u);
    EXPECT_TRUE(near(pixelAt(RendererTesting::readImageLayer(*renderer_, 1), 1024, 512, 512), Pixel{0, 255, 0, 255}));

    // The construction's checks and messages, and nothing installed.
    files.images = {solidPng(2, 2, 1, 2, 3, 255), toBytes("just some text, not an image")};
    const auto bad = makeArchive(dir_, files);
    EXPECT_EQ(errorOf([&] { renderer_->prepareImages(*bad, "assets.txt"); }), "Failed to load image: images/1.png");
    EXPECT_EQ(errorOf([&] { renderer_->prepareImages(*bad, "none.txt"); }), "Missing file in demo archive: none.txt");
    EXPECT_EQ(impl().imageCount, 3u);
}

TEST_F(RendererLive, OverlayTextShowsOverThePictureAndGoesWhenCleared) {
    surface_->setDrawableSize(256, 64);
    const auto plain = picture();
    EXPECT_EQ(impl().overlay, nullptr);  // nothing made until there is text
    renderer_->setOverlayText("");
    EXPECT_EQ(impl().overlay, nullptr);

    const auto pixel = [](const std::vector<std::uint8_t>& rgba, std::uint32_t x, std::uint32_t y) {
        return pixelAt(rgba, 256, x, y);
    };
    const auto brightIn = [&](const std::vector<std::uint8_t>& rgba, std::uint32_t x0, std::uint32_t x1,
                              std::uint32_t y0, std::uint32_t y1) {
        int bright = 0;
        for (std::uint32_t y = y0; y < y1; ++y)
            for (std::uint32_t x = x0; x < x1; ++x) bright += pixel(rgba, x, y).r > 200 && pixel(rgba, x, y).b > 200;
        return bright;
    };
    renderer_->setOverlayText("Hi\nthere");
    for (int i = 0; i < 3; ++i) draw();  // every slot's buffer gets the text
    const auto withText = picture();
    // Light text on a dark box in the top left corner; the rest of the picture untouched.
    EXPECT_GT(brightIn(withText, 4, 40, 4, 32), 20);
    EXPECT_LT(pixel(withText, 5, 20).b, pixel(plain, 5, 20).b / 2);
    EXPECT_EQ(brightIn(withText, 0, 256, 40, 64), 0);
    EXPECT_TRUE(near(pixel(withText, 200, 50), pixel(plain, 200, 50), 0));

    // A longer line widens the box in every slot; untouched bytes elsewhere.
    renderer_->setOverlayText("A much longer line of text\nthere");
    for (int i = 0; i < 3; ++i) draw();
    const auto longer = picture();
    EXPECT_GT(brightIn(longer, 60, 140, 4, 20), 20);
    EXPECT_EQ(brightIn(withText, 60, 140, 4, 20), 0);

    renderer_->setOverlayText("");
    for (int i = 0; i < 3; ++i) draw();
    EXPECT_EQ(picture(), plain);
}

TEST_F(RendererLive, GpuTimeOfTheLastFrameIsPositiveAndPlausible) {
    EXPECT_EQ(renderer_->lastFrameGpuSeconds(), 0.0);
    for (float t : {1.0f, kMiddle, 150.0f}) picture(t);
    const double timed = renderer_->lastFrameGpuSeconds();
    EXPECT_GT(timed, 0.0);
    EXPECT_LT(timed, 5.0);
    ASSERT_NE(impl().timestamps, nullptr) << "lavapipe has timestamps";

    // Without timestamps: from submission to the fence.
    impl().timestamps.reset();
    impl().lastFrameGpuSeconds.store(0.0);
    picture(150.0f);
    EXPECT_GT(renderer_->lastFrameGpuSeconds(), 0.0);
    EXPECT_LT(renderer_->lastFrameGpuSeconds(), 5.0);
}

// ---------------------------------------------------------------------------------------------
// [SECTION] The pipeline cache
// ---------------------------------------------------------------------------------------------

class PipelineCache : public GpuTest {
protected:
    void SetUp() override {
        GpuTest::SetUp();
        surface_ = std::make_unique<gpu::OffscreenSurface>(*device_, 16, 16);
    }
    std::unique_ptr<Renderer> started(std::optional<std::filesystem::path> directory) {
        auto renderer = std::make_unique<Renderer>(device_.get(), surface_.get(), makeArchive(dir_, {}),
                                                   markerManifest(), queue_.poster(), std::move(directory));
        FrameInfo frame;
        frame.timeSeconds = 150.0f;
        renderer->draw(frame);
        finishFrames();
        return renderer;
    }
    bool startsFromSaved(const std::filesystem::path& directory) {
        auto renderer = started(directory);
        return RendererTesting::impl(*renderer).pipelineCache->startedFromSaved();
    }
    std::unique_ptr<gpu::OffscreenSurface> surface_;
};

// Sets an environment variable for the rest of the scope.
class ScopedEnvironment {
public:
    ScopedEnvironment(const char* name, const std::string& value) : name_(name) {
        if (const char* old = std::getenv(name)) old_ = old;
        setenv(name, value.c_str(), 1);
    }
    ~ScopedEnvironment() {
        if (old_) {
            setenv(name_, old_->c_str(), 1);
        } else {
            unsetenv(name_);
        }
    }

private:
    const char* name_;
    std::optional<std::string> old_;
};

TEST_F(PipelineCache, WithoutADirectoryNoneIsMade) {
    const std::filesystem::path home = dir_.file("home");
    const ScopedEnvironment homeVariable("HOME", home.string());
    {
        const ScopedEnvironment cacheVariable("XDG_CACHE_HOME", (home / "cache").string());
        EXPECT_EQ(userPipelineCacheDirectory(), home / "cache" / "brisvale");
        started(std::nullopt).reset();
    }
    EXPECT_EQ(userPipelineCacheDirectory(), home / ".cache" / "brisvale");
    started(std::nullopt).reset();
    EXPECT_FALSE(std::filesystem::exists(home / "cache" / "brisvale"));
    EXPECT_FALSE(std::filesystem::exists(home / ".cache" / "brisvale"));
}

TEST_F(PipelineCache, IsSavedWhenTheRendererGoesAndUsedAtTheNextStart) {
    const std::filesystem::path directory = std::filesystem::path(dir_.file("cache")) / "brisvale";
    EXPECT_FALSE(startsFromSaved(directory));
    const std::filesystem::path file = directory / pipelineCacheFileName(*device_);
    struct stat status {};
    ASSERT_EQ(::lstat(file.c_str(), &status), 0);
    EXPECT_TRUE(S_ISREG(status.st_mode));
    EXPECT_EQ(status.st_mode & 0777, 0600u);
    EXPECT_TRUE(startsFromSaved(directory));
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(directory), {}), 1);  // no temporary left
}

TEST_F(PipelineCache, DamagedTruncatedForeignOrLinkedFilesAreIgnoredAndReplaced) {
    const std::filesystem::path directory = dir_.file("cache");
    startsFromSaved(directory);
    const std::filesystem::path file = directory / pipelineCacheFileName(*device_);
    std::vector<char> good(std::filesystem::file_size(file));
    std::ifstream(file, std::ios::binary).read(good.data(), static_cast<std::streamsize>(good.size()));
    const std::string outside = dir_.file("outside");
    std::ofstream(outside) << "not to be touched";

    const auto damaged = [&](std::size_t at) {
        auto bytes = good;
        bytes.at(at) ^= 0x40;
        return bytes;
    };
    const std::vector<std::vector<char>> cases = {
        {'j', 'u', 'n', 'k'}, {good.begin(), good.begin() + static_cast<std::ptrdiff_t>(good.size() / 2)},
        damaged(8) /* vendor */, damaged(20) /* cache UUID */, damaged(good.size() - 1) /* the driver's bytes */};
    for (const auto& bytes : cases) {
        std::filesystem::remove(file);
        std::ofstream(file, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        EXPECT_FALSE(startsFromSaved(directory));
        EXPECT_TRUE(startsFromSaved(directory)) << "replaced by a good file";
    }
    std::filesystem::remove(file);
    std::filesystem::create_symlink(outside, file);
    EXPECT_FALSE(startsFromSaved(directory));
    EXPECT_FALSE(std::filesystem::is_symlink(file));
    std::string kept;
    std::getline(std::ifstream(outside), kept);
    EXPECT_EQ(kept, "not to be touched");
}

} // namespace
} // namespace brisvale::testing
