// brisvale-capture run as a program on lavapipe: PNG files of the right size and content, video
// files read back with libavformat (frames against the PNG capture, music against the song),
// Ctrl+C, and one clear line with a non-zero exit on errors.
//
// [SECTION] Running the tool
// [SECTION] A video file read back with libavformat
// [SECTION] Shows to capture
// [SECTION] PNG captures
// [SECTION] Refusals
// [SECTION] Videos

#include "RenderTestSupport.h"
#include "content/AtomicFile.h"
#include "support/TestMedia.h"

#define STB_IMAGE_IMPLEMENTATION
#include <stb/stb_image.h>

#include "audio/platform/FfmpegHandles.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <tuple>
#include <sys/stat.h>
#include <sys/wait.h>

namespace brisvale::testing {
namespace {

namespace ffmpeg = pelora::gamedev::core::ffmpeg;

// ---------------------------------------------------------------------------------------------
// [SECTION] Running the tool
// ---------------------------------------------------------------------------------------------

struct RunResult {
    int status = -1;
    std::string output;
};

RunResult runCapture(const std::string& arguments) {
    const std::string command = std::string(BRISVALE_CAPTURE_TOOL) + " " + arguments + " 2>&1";
    RunResult result;
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return result;
    std::array<char, 4096> buffer{};
    while (std::size_t n = std::fread(buffer.data(), 1, buffer.size(), pipe)) result.output.append(buffer.data(), n);
    const int status = pclose(pipe);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

// The tool started in the background with its stderr on a pipe, for Ctrl+C.
struct RunningCapture {
    pid_t pid = -1;
    FILE* output = nullptr;  // its stdout and stderr
};

RunningCapture startCapture(const std::string& arguments) {
    int pipeEnds[2];
    if (pipe(pipeEnds) != 0) return {};
    const std::string command = "exec " + std::string(BRISVALE_CAPTURE_TOOL) + " " + arguments + " 2>&1";
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(pipeEnds[1], STDOUT_FILENO);
        close(pipeEnds[0]);
        close(pipeEnds[1]);
        execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    close(pipeEnds[1]);
    return {pid, fdopen(pipeEnds[0], "r")};
}

// ---------------------------------------------------------------------------------------------
// [SECTION] A video file read back with libavformat
// ---------------------------------------------------------------------------------------------

struct DecodedVideo {
    std::string videoCodec, audioCodec;
    AVColorPrimaries primaries = AVCOL_PRI_UNSPECIFIED;
    AVColorSpace matrix = AVCOL_SPC_UNSPECIFIED;
    AVColorRange range = AVCOL_RANGE_UNSPECIFIED;
    int frames = 0;
    std::vector<std::uint8_t> rgb;  // the frame asked for, BT.709 limited range made full RGB
    std::vector<float> music;       // interleaved stereo at the rate asked for
};

// Every frame and sample of `path`, the picture of frame `keep`, the music resampled to `rate`.
DecodedVideo decodeVideo(const std::string& path, int keep, int rate) {
    DecodedVideo out;
    AVFormatContext* opened = nullptr;
    if (avformat_open_input(&opened, path.c_str(), nullptr, nullptr) < 0) return out;
    const ffmpeg::InputFormat format(opened);
    avformat_find_stream_info(format.get(), nullptr);
    struct Stream {
        ffmpeg::CodecContext codec;
        int index = -1;
    } video, audio;
    for (unsigned i = 0; i < format->nb_streams; ++i) {
        const AVCodecParameters* p = format->streams[i]->codecpar;
        Stream& s = p->codec_type == AVMEDIA_TYPE_VIDEO ? video : audio;
        s.index = static_cast<int>(i);
        s.codec.reset(avcodec_alloc_context3(avcodec_find_decoder(p->codec_id)));
        avcodec_parameters_to_context(s.codec.get(), p);
        s.codec->pkt_timebase = format->streams[i]->time_base;
        avcodec_open2(s.codec.get(), s.codec->codec, nullptr);
        (p->codec_type == AVMEDIA_TYPE_VIDEO ? out.videoCodec : out.audioCodec) = avcodec_get_name(p->codec_id);
        if (p->codec_type == AVMEDIA_TYPE_VIDEO) {
            out.primaries = p->color_primaries;
            out.matrix = p->color_space;
            out.range = p->color_range;
        }
    }
    ffmpeg::Resampler swr;
    if (audio.codec != nullptr) {
        AVChannelLayout stereo = AV_CHANNEL_LAYOUT_STEREO;
        SwrContext* made = nullptr;
        swr_alloc_set_opts2(&made, &stereo, AV_SAMPLE_FMT_FLT, rate, &audio.codec->ch_layout, audio.codec->sample_fmt,
                            audio.codec->sample_rate, 0, nullptr);
        swr.reset(made);
        swr_init(swr.get());
    }
    const ffmpeg::Packet packet(av_packet_alloc());
    const ffmpeg::Frame frame(av_frame_alloc());
    auto collect = [&](Stream& s) {
        while (avcodec_receive_frame(s.codec.get(), frame.get()) == 0) {
            if (&s == &video && out.frames++ == keep) {
                for (int y = 0; y < frame->height; ++y) {
                    for (int x = 0; x < frame->width; ++x) {
                        const double l = (frame->data[0][y * frame->linesize[0] + x] - 16) / 219.0;
                        const double cb = (frame->data[1][y / 2 * frame->linesize[1] + x / 2] - 128) / 224.0;
                        const double cr = (frame->data[2][y / 2 * frame->linesize[2] + x / 2] - 128) / 224.0;
                        const double r = l + 1.5748 * cr, b = l + 1.8556 * cb, g = (l - 0.2126 * r - 0.0722 * b) / 0.7152;
                        for (const double c : {r, g, b}) {
                            out.rgb.push_back(static_cast<std::uint8_t>(std::clamp(c * 255.0 + 0.5, 0.0, 255.0)));
                        }
                    }
                }
            } else if (&s == &audio) {
                const int room = swr_get_out_samples(swr.get(), frame->nb_samples);
                std::vector<float> chunk(static_cast<std::size_t>(room) * 2);
                auto* data = reinterpret_cast<std::uint8_t*>(chunk.data());
                const int n = swr_convert(swr.get(), &data, static_cast<int>(chunk.size() / 2),
                                          const_cast<const std::uint8_t**>(frame->extended_data), frame->nb_samples);
                out.music.insert(out.music.end(), chunk.begin(), chunk.begin() + 2 * std::max(n, 0));
            }
        }
    };
    while (av_read_frame(format.get(), packet.get()) >= 0) {
        Stream& s = packet->stream_index == video.index ? video : audio;
        if (s.codec != nullptr && avcodec_send_packet(s.codec.get(), packet.get()) >= 0) collect(s);
        av_packet_unref(packet.get());
    }
    for (Stream* s : {&video, &audio}) {
        if (s->codec == nullptr) continue;
        avcodec_send_packet(s->codec.get(), nullptr);
        collect(*s);
    }
    return out;
}

double psnr(const std::vector<std::uint8_t>& a, const std::vector<std::uint8_t>& b) {
    double squares = 0;
    for (std::size_t i = 0; i < a.size(); ++i) squares += (a[i] - b[i]) * (a[i] - b[i]);
    return 10.0 * std::log10(255.0 * 255.0 * static_cast<double>(a.size()) / std::max(squares, 1e-9));
}

// Signal-to-noise ratio of `got` against the first `frames` stereo frames of `wanted`, with `got`
// shifted by `lag` frames.
double snr(const std::vector<float>& got, const std::vector<float>& wanted, int lag, std::size_t frames) {
    double signal = 0, noise = 0;
    for (std::size_t i = 0; i < std::min(2 * frames, wanted.size()); ++i) {
        const auto at = static_cast<std::ptrdiff_t>(i) + 2 * lag;
        const double g = at >= 0 && static_cast<std::size_t>(at) < got.size() ? got[static_cast<std::size_t>(at)] : 0.0;
        signal += static_cast<double>(wanted[i]) * wanted[i];
        noise += (g - wanted[i]) * (g - wanted[i]);
    }
    return 10.0 * std::log10(signal / std::max(noise, 1e-12));
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Shows to capture
// ---------------------------------------------------------------------------------------------

// A picture that moves: a frame off in time differs by far more than the encoder's loss. It
// asks for a vertex pool that grows with time and turns grey while the pool is too small, so a
// frame not drawn again after the pool grew shows too.
constexpr const char* kMovingShader = R"GLSL(
layout(push_constant, std430) uniform Frame {
    vec2 resolution; float timeSeconds; float deltaSeconds;
    float showDurationSeconds; float renderEndSeconds; uint vertexCapacity; uint imageCount;
    uint passIndex; uint passReserved0; uint passReserved1; uint passReserved2;
} frame;
layout(std430, set = 0, binding = 1) buffer DrawArguments { uint args[4]; } drawArguments;
layout(std430, set = 0, binding = 2) buffer GeometryRequest { uint words[4]; } request;
uint wanted() { return 3000u + uint(frame.timeSeconds * 3000.0); }
#ifdef BRISVALE_COMPUTE
layout(local_size_x = 64) in;
void scene_compute() {
    if (gl_GlobalInvocationID.x != 0u) return;
    drawArguments.args = uint[4](0u, 1u, 0u, 0u);
    request.words[1] = wanted();
    request.words[2] = wanted() > frame.vertexCapacity ? 1u : 0u;
}
#endif
#ifdef BRISVALE_VERTEX
layout(location = 0) out vec2 uv;
void scene_vertex() {
    uv = vec2(float(gl_VertexIndex & 1), float(gl_VertexIndex >> 1));
    gl_Position = vec4(uv * 2.0 - 1.0, 0.0, 1.0);
}
#endif
#ifdef BRISVALE_FRAGMENT
layout(location = 0) in vec2 uv;
layout(location = 0) out vec4 colour;
void scene_fragment() {
    vec3 phase = vec3(0.0, 0.33, 0.67) + uv.x * 0.35 + uv.y * 0.25 - frame.timeSeconds * 0.4;
    colour = vec4(0.5 + (wanted() > frame.vertexCapacity ? 0.0 : 0.45) * cos(6.2831853 * phase), 1.0);
}
#endif
)GLSL";

constexpr int kMusicRate = 44100;

class CaptureTool : public ::testing::Test {
protected:
    // `moreIni` is appended to the show manifest (later keys win); `damageImage` breaks the
    // image's gzip stream.
    std::string writeShow(const ShowFiles& files, const std::string& moreIni = "", bool damageImage = false) {
        std::vector<ArchiveFile> entries;
        if (files.withShader) entries.push_back({"scene.glsl", toBytes(files.shader)});
        entries.push_back({"assets.txt", toBytes("image.0.path = a.png\n")});
        entries.push_back({"demo.ini", toBytes("demo.name = T\ndemo.timeline.shader = scene.glsl\n"
                                               "demo.timeline.assets = assets.txt\ndemo.timeline.audio = none.wav\n"
                                               "demo.output.width = 40\ndemo.output.height = 30\n"
                                               "demo.output.fps = 10\n" + moreIni)});
        entries.push_back({"a.png", solidPng(2, 2, 255, 255, 255, 255)});
        std::vector<std::uint8_t> bytes = writeArchive(entries, {2, damageImage ? ArchiveCompression::All
                                                                              : ArchiveCompression::Auto});
        if (damageImage) bytes[bytes.size() - 3] ^= 0x55;  // the size in the last gzip trailer
        const std::string path = dir_.file("show.dat");
        replaceFileAtomically(path, bytes);
        return path;
    }
    // The moving picture over one second of music (a sweep per channel, FLAC, 44.1 kHz stereo).
    std::string writeMovingShow() {
        const std::string song = dir_.file("song.flac");
        brisvale::test::encodeFile(song, {"flac", "flac", kMusicRate, 2, {}, {}}, music_);
        const std::string path = dir_.file("show.dat");
        std::vector<ArchiveFile> entries{{"scene.glsl", toBytes(kMovingShader)},
                                         {"assets.txt", toBytes("image.0.path = a.png\n")},
                                         {"a.png", solidPng(2, 2, 255, 255, 255, 255)},
                                         {"song.flac", brisvale::test::readFile(song)},
                                         {"demo.ini", toBytes("demo.timeline.shader = scene.glsl\n"
                                                              "demo.timeline.assets = assets.txt\n"
                                                              "demo.timeline.audio = song.flac\n"
                                                              "demo.output.width = 64\ndemo.output.height = 48\n"
                                                              "demo.output.fps = 10\n")}};
        writeArchiveFile(path, entries);
        return path;
    }
    // What is in the test's directory besides the show (no temporary files may stay behind).
    std::vector<std::string> leftOver() const {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(dir_.path())) {
            const std::string name = entry.path().filename().string();
            if (name != "show.dat" && name != "song.flac") names.push_back(name);
        }
        std::sort(names.begin(), names.end());
        return names;
    }
    TempDir dir_;
    const std::vector<std::int16_t> music_ = brisvale::test::makeSignal(kMusicRate, 2, kMusicRate);
};

// ---------------------------------------------------------------------------------------------
// [SECTION] PNG captures
// ---------------------------------------------------------------------------------------------

TEST_F(CaptureTool, WritesOnePngPerTimeAtTheRequestedSize) {
    const std::string archive = writeShow({});
    const std::string out = dir_.file("out");
    const RunResult run = runCapture(archive + " --size 64x64 --at 1,50,150 -o " + out);
    ASSERT_EQ(run.status, 0) << run.output;
    // Rectangle B's sample point: green under the quad in the intro, the quad alone in the
    // middle, green with depth 0.75 composited in the finale.
    const std::vector<std::pair<std::string, Pixel>> wanted{{"t1.000.png", expected(0.0f, 0.5f, 0.5f)},
                                                            {"t50.000.png", expected(0.01f, 0.01f, 0.5125f)},
                                                            {"t150.000.png", expected(0.375f, 0.5f, 0.0f)}};
    for (const auto& [name, colour] : wanted) {
        int width = 0, height = 0, channels = 0;
        unsigned char* pixels = stbi_load((out + "/" + name).c_str(), &width, &height, &channels, 4);
        ASSERT_NE(pixels, nullptr) << name;
        EXPECT_EQ(width, 64);
        EXPECT_EQ(height, 64);
        const std::vector<std::uint8_t> rgba(pixels, pixels + 64 * 64 * 4);
        stbi_image_free(pixels);
        EXPECT_TRUE(near(pixelAt(rgba, 64, 40, 30), colour)) << name;
    }
}

TEST_F(CaptureTool, ARangeWritesANumberedSequenceAtTheShowsDefaultSize) {
    const std::string archive = writeShow({});
    const std::string out = dir_.file("seq");
    const RunResult run = runCapture(archive + " --from 9 --to 9.5 --fps 4 -o " + out);
    ASSERT_EQ(run.status, 0) << run.output;
    for (int i = 0; i < 3; ++i) {
        char name[32];
        std::snprintf(name, sizeof(name), "/frame-%05d.png", i);
        int width = 0, height = 0, channels = 0;
        ASSERT_TRUE(stbi_info((out + name).c_str(), &width, &height, &channels)) << name;
        EXPECT_EQ(width, 40);
        EXPECT_EQ(height, 30);
    }
    EXPECT_FALSE(std::filesystem::exists(out + "/frame-00003.png"));
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Refusals
// ---------------------------------------------------------------------------------------------

TEST_F(CaptureTool, ContentErrorsNameTheShowAndTheFile) {
    ShowFiles files;
    files.withShader = false;
    std::string archive = writeShow(files);
    RunResult run = runCapture(archive + " --at 1 -o " + dir_.file("never"));
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.output, "brisvale-capture: " + archive + ": Missing file in demo archive: scene.glsl\n");
    EXPECT_FALSE(std::filesystem::exists(dir_.file("never")));

    files.withShader = true;
    files.shader = "#include \"./scene.glsl\"\n";
    archive = writeShow(files);
    run = runCapture(archive + " --at 1 -o " + dir_.file("never"));
    EXPECT_EQ(run.output, "brisvale-capture: " + archive + ": scene.glsl -> scene.glsl: Recursive Metal include detected\n");

    archive = writeShow({}, "demo.output.fps = 1x\n");
    run = runCapture(archive + " --at 1 -o " + dir_.file("never"));
    EXPECT_EQ(run.output, "brisvale-capture: " + archive + ": demo.ini: Invalid numeric demo manifest value: demo.output.fps\n");

    archive = writeShow({}, "", true);
    run = runCapture(archive + " --at 1 -o " + dir_.file("never"));
    EXPECT_EQ(run.output, "brisvale-capture: " + archive + ": a.png: Failed to decompress demo archive entry\n");
}

TEST_F(CaptureTool, WhatCannotBeCapturedIsAUsageErrorAndOutputsMustBeRegularFiles) {
    // Taken as it stood, this default size brought the driver down.
    const std::string archive = writeShow({}, "demo.output.width = 65536\ndemo.output.height = 65536\n");
    RunResult run = runCapture(archive + " --at 1 -o " + dir_.file("never"));
    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.output, "brisvale-capture: The show's default size 65536x65536 is out of range (1 to 16384 per side); give --size\n");
    run = runCapture(archive + " --size 8x8 --from 0 --to 3e38 --fps 1 -o " + dir_.file("never"));
    EXPECT_EQ(run.status, 2);
    EXPECT_FALSE(std::filesystem::exists(dir_.file("never")));

    const std::string out = dir_.file("out");
    std::filesystem::create_directories(out);
    ASSERT_EQ(mkfifo((out + "/t1.000.png").c_str(), 0600), 0);
    const FifoPeer peer(out + "/t1.000.png");  // a writer that waits for a reader gets one, and fails
    run = runCapture(archive + " --size 8x8 --at 1 -o " + out);
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.output.find("\nbrisvale-capture: Failed to write " + out + "/t1.000.png: not a regular file\n"),
              std::string::npos) << run.output;
}

TEST_F(CaptureTool, BadArgumentsAndMissingArchivesFail) {
    RunResult run = runCapture("--at 1 -o " + dir_.file("x"));
    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.output, "brisvale-capture: No demo archive given\n");
    run = runCapture(dir_.file("absent.dat") + " --at 1 -o " + dir_.file("x"));
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.output, "brisvale-capture: Failed to open demo archive: " + dir_.file("absent.dat") + "\n");
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Videos
// ---------------------------------------------------------------------------------------------

// From 0.5 s to 2.5 s at 10 fps: 20 frames, half a second of music, then the silent tail.
TEST_F(CaptureTool, AVideoHoldsTheSpansFramesAndMusicInStep) {
    const std::string archive = writeMovingShow();
    constexpr int kFrame = 13;  // at 1.8 s, the first frame to need a pool of more than 8192
    const std::string png = dir_.file("png");
    ASSERT_EQ(runCapture(archive + " --fps 10 --at 1.8 -o " + png).status, 0);
    int width = 0, height = 0, channels = 0;
    unsigned char* pixels = stbi_load((png + "/t1.800.png").c_str(), &width, &height, &channels, 3);
    ASSERT_NE(pixels, nullptr);
    const std::vector<std::uint8_t> expectedPicture(pixels, pixels + 64 * 48 * 3);
    stbi_image_free(pixels);
    std::filesystem::remove_all(png);
    // The music of the span: from 0.5 s into the song, silence after its end at 1 s.
    std::vector<float> expectedMusic(static_cast<std::size_t>(2 * kMusicRate) * 2, 0.0f);
    for (std::size_t i = 0; i < static_cast<std::size_t>(kMusicRate); ++i) expectedMusic[i] = music_[kMusicRate + i] / 32768.0f;

    const struct {
        const char* file;
        const char* video;
        const char* audio;
    } cases[] = {{"v.mp4", "h264", "aac"}, {"v.webm", "vp9", "opus"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.file);
        const RunResult run = runCapture(archive + " --video " + dir_.file(c.file) + " --from 0.5 --to 2.5");
        ASSERT_EQ(run.status, 0) << run.output;
        EXPECT_NE(run.output.find("Wrote 20 frames (2.000 s"), std::string::npos) << run.output;
        const DecodedVideo video = decodeVideo(dir_.file(c.file), kFrame, kMusicRate);
        EXPECT_EQ(video.videoCodec, c.video);
        EXPECT_EQ(video.audioCodec, c.audio);
        EXPECT_EQ(video.primaries, AVCOL_PRI_BT709);
        EXPECT_EQ(video.matrix, AVCOL_SPC_BT709);
        EXPECT_EQ(video.range, AVCOL_RANGE_MPEG);
        EXPECT_EQ(video.frames, 20);
        EXPECT_NEAR(static_cast<double>(video.music.size() / 2) / kMusicRate, 2.0, 0.1) << "within a frame of the picture";
        ASSERT_EQ(video.rgb.size(), expectedPicture.size());
        EXPECT_GE(psnr(video.rgb, expectedPicture), 35.0);
        // In step: no shift within more than an audio encoder's frame matches the song better.
        int bestLag = 0;
        double best = -1e9;
        for (int lag = -1100; lag <= 1100; ++lag) {
            const double here = snr(video.music, expectedMusic, lag, kMusicRate / 2);
            if (here > best) std::tie(best, bestLag) = std::pair(here, lag);
        }
        EXPECT_EQ(bestLag, 0);
        EXPECT_GE(snr(video.music, expectedMusic, 0, expectedMusic.size()), 25.0) << "the tail silent too";
    }
    EXPECT_EQ(leftOver(), (std::vector<std::string>{"v.mp4", "v.webm"}));

    // Without music: no audio stream, and an end that must be given.
    const std::string silent = writeShow({});
    RunResult run = runCapture(silent + " --video " + dir_.file("s.mkv"));
    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.output, "brisvale-capture: The show has no music and so no end; give --to\n");
    ASSERT_EQ(runCapture(silent + " --video " + dir_.file("s.mkv") + " --to 1").status, 0);
    const DecodedVideo video = decodeVideo(dir_.file("s.mkv"), 0, kMusicRate);
    EXPECT_EQ(video.videoCodec, "h264");
    EXPECT_EQ(video.audioCodec, "");
    EXPECT_EQ(video.frames, 10);
}

TEST_F(CaptureTool, CtrlCFinishesTheVideoWithTheFramesMadeSoFar) {
    const std::string archive = writeMovingShow();
    const std::string out = dir_.file("long.mp4");
    const RunningCapture run = startCapture(archive + " --video " + out + " --to 100000");
    ASSERT_NE(run.output, nullptr);
    std::string output;
    auto afterFrame = [&] { return output.size() >= 6 && output.compare(output.size() - 6, 6, "Frame ") == 0; };
    for (int c; (c = std::fgetc(run.output)) != EOF;) {
        if (afterFrame() && c >= '1' && c <= '9') break;  // the progress line counts a frame
        output += static_cast<char>(c);
    }
    kill(run.pid, SIGINT);
    for (int c; (c = std::fgetc(run.output)) != EOF;) output += static_cast<char>(c);
    std::fclose(run.output);
    int status = 0;
    ASSERT_EQ(waitpid(run.pid, &status, 0), run.pid);
    ASSERT_TRUE(WIFEXITED(status)) << output;
    EXPECT_EQ(WEXITSTATUS(status), 130);
    unsigned long long made = 0;
    const auto at = output.find("Interrupted: wrote ");
    ASSERT_NE(at, std::string::npos) << output;
    ASSERT_EQ(std::sscanf(output.c_str() + at, "Interrupted: wrote %llu of 1000000 frames", &made), 1) << output;
    EXPECT_GT(made, 0u);
    const DecodedVideo video = decodeVideo(out, 0, kMusicRate);
    EXPECT_EQ(video.frames, static_cast<int>(made));
    EXPECT_NEAR(static_cast<double>(video.music.size() / 2) / kMusicRate, made / 10.0, 0.1);
    EXPECT_EQ(leftOver(), std::vector<std::string>{"long.mp4"});
}

TEST_F(CaptureTool, VideoOptionsThatCannotBeMetLeaveNoFile) {
    const std::string archive = writeMovingShow();
    ASSERT_EQ(mkfifo(dir_.file("fifo.mp4").c_str(), 0600), 0);
    const std::pair<std::string, std::string> cases[] = {
        {"--video " + dir_.file("v.mp4") + " --codec nonesuch", "Unknown video encoder: nonesuch"},
        {"--video " + dir_.file("v.avi"), "Unknown video file type: " + dir_.file("v.avi") + " (use .mp4, .webm or .mkv)"},
        {"--video " + dir_.file("v.mp4") + " --from 3 --to 1", "--from is not before --to"},
        {"--video " + dir_.file("v.mp4") + " --size 64x47", "libx264 in yuv420p takes sizes in steps of 2x2, not 64x47"},
        {"--video " + dir_.file("v.mp4") + " --quality 52", "Quality 52 is out of range for libx264 (0 to 51)"},
        {"--video " + dir_.file("v.webm") + " --codec libx264", "A webm file cannot hold libx264 video"},
        {"--video " + dir_.file("fifo.mp4"), "Failed to write " + dir_.file("fifo.mp4") + ": not a regular file"},
        {"--video " + dir_.file("absent/v.mp4"), "Failed to create " + dir_.file("absent/v.mp4") + ".tmp-"},
    };
    for (const auto& [arguments, message] : cases) {
        const RunResult run = runCapture(archive + " " + arguments);
        EXPECT_EQ(run.status, 2) << arguments;
        EXPECT_EQ(run.output.rfind("brisvale-capture: " + message, 0), 0u) << run.output;
        EXPECT_EQ(std::count(run.output.begin(), run.output.end(), '\n'), 1) << run.output;
    }
    EXPECT_EQ(leftOver(), std::vector<std::string>{"fifo.mp4"});
}

} // namespace
} // namespace brisvale::testing
