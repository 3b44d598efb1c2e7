// Renderer construction on lavapipe: each failure's message, and which one wins when several
// things are wrong at once.

#include "RenderTestSupport.h"

#include "render/RendererTesting.h"

namespace brisvale::testing {
namespace {

class RendererConstruction : public GpuTest {
protected:
    void SetUp() override {
        GpuTest::SetUp();
        surface_ = std::make_unique<gpu::OffscreenSurface>(*device_, 16, 16);
    }
    std::string constructionError(const ShowFiles& files) {
        return errorOf([&] { makeRenderer(*surface_, files); });
    }
    std::unique_ptr<gpu::OffscreenSurface> surface_;
};

std::string withoutFunction(const std::string& name) {
    std::string source = kMarkerShader;
    for (std::size_t at = source.find(name); at != std::string::npos; at = source.find(name, at + 1)) {
        source.replace(at, name.size(), name + "_renamed");
        at += name.size();
    }
    return source;
}

TEST_F(RendererConstruction, AWellFormedShowBuildsEveryObject) {
    auto renderer = makeRenderer(*surface_);
    Renderer::Impl& impl = RendererTesting::impl(*renderer);
    EXPECT_NE(impl.scenePipelineState, nullptr);
    EXPECT_NE(impl.compositePipelineState, nullptr);
    EXPECT_NE(impl.computePipelineState, nullptr);
    EXPECT_EQ(impl.threadExecutionWidth, 64u);  // the marker shader's local_size_x
    EXPECT_EQ(impl.vertexCapacity.load(), 4096u);
    EXPECT_EQ(impl.generatedVertexBuffer->size(), 4096u * 28u);
    for (const auto& buffer : impl.geometryRequestBuffers) {
        ASSERT_NE(buffer, nullptr);
        EXPECT_NE(buffer->data(), nullptr);  // processor-visible
    }
    EXPECT_EQ(impl.depthTexture, nullptr);  // made by the first frame
}

TEST_F(RendererConstruction, MissingPlatformObjectsAreReportedBeforeTheArchive) {
    auto archive = makeArchive(dir_, {});
    EXPECT_EQ(errorOf([&] { Renderer(nullptr, nullptr, nullptr, markerManifest(), queue_.poster()); }),
              "Metal device is not available");
    EXPECT_EQ(errorOf([&] { Renderer(nullptr, surface_.get(), archive, markerManifest(), queue_.poster()); }),
              "Metal device is not available");
    EXPECT_EQ(errorOf([&] { Renderer(device_.get(), nullptr, nullptr, markerManifest(), queue_.poster()); }),
              "Metal layer is not available");
    EXPECT_EQ(errorOf([&] { Renderer(device_.get(), surface_.get(), nullptr, markerManifest(), queue_.poster()); }),
              "Demo archive is not available");
}

TEST_F(RendererConstruction, ShaderSourceErrorsPassThroughAndComeBeforeImages) {
    ShowFiles files;
    files.withShader = false;
    files.assets = "";  // no images either: the shader is looked at first
    EXPECT_EQ(constructionError(files), "Missing file in demo archive: scene.glsl");
}

// The compiler's messages pass through with the show's own file and line, also inside an
// included file (ShaderCompilerTest has the messages themselves).
TEST_F(RendererConstruction, CompileFailuresNameTheShowsFileAndLine) {
    ShowFiles files;
    files.shader = "#include \"lib/noise.glsl\"\n" + std::string(kMarkerShader);
    files.more = {{"lib/noise.glsl", toBytes("float ok;\nfloat bad = x;\n")}};
    EXPECT_EQ(constructionError(files),
              "Failed to compile Metal shader source: vertex stage: lib/noise.glsl:2: 'x' : undeclared identifier");
}

TEST_F(RendererConstruction, AnAssetManifestWithoutImagesFails) {
    ShowFiles files;
    files.assets = "# nothing listed\nsomething.else = 1\n";
    EXPECT_EQ(constructionError(files), "Asset manifest does not define any image paths");
}

TEST_F(RendererConstruction, AMissingAssetManifestGivesTheArchiveMessage) {
    ShowFiles files;
    files.withAssets = false;
    EXPECT_EQ(constructionError(files), "Missing file in demo archive: assets.txt");
}

TEST_F(RendererConstruction, ImagesFailInListOrderWithTheirPaths) {
    ShowFiles files;
    files.images = {solidPng(2, 2, 1, 2, 3, 255), toBytes("just some text, not an image")};
    EXPECT_EQ(constructionError(files), "Failed to load image: images/1.png");

    // A text file ends the loop: the missing file listed after it is never opened.
    files.assets = "image.0.path = images/0.png\nimage.1.path = images/1.png\nimage.2.path = images/missing.png\n";
    EXPECT_EQ(constructionError(files), "Failed to load image: images/1.png");

    files.images = {solidPng(2, 2, 1, 2, 3, 255), solidPng(2, 2, 1, 2, 3, 255)};
    EXPECT_EQ(constructionError(files), "Missing file in demo archive: images/missing.png");
}

TEST_F(RendererConstruction, ShaderErrorsWinOverImageErrors) {
    ShowFiles files;
    files.images = {toBytes("not an image")};
    for (const char* function : {"scene_vertex", "scene_fragment", "scene_compute"}) {
        files.shader = withoutFunction(function);
        EXPECT_EQ(constructionError(files), "Missing " + std::string(function) + " shader");
    }
}

TEST_F(RendererConstruction, TheRendererKeepsItsOwnArchiveOwner) {
    auto archive = makeArchive(dir_, {});
    std::weak_ptr<const DemoArchive> watch = archive;
    auto renderer = std::make_unique<Renderer>(device_.get(), surface_.get(), archive, markerManifest(), queue_.poster());
    archive.reset();
    EXPECT_FALSE(watch.expired());
    renderer.reset();
    EXPECT_TRUE(watch.expired());
}

} // namespace
} // namespace brisvale::testing
