// The video file behind VideoFile.h: FFmpeg's encoders, converters and muxers on the temporary
// file of an AtomicFileWriter.
//
// [SECTION] FFmpeg helpers
// [SECTION] The temporary file through libavformat
// [SECTION] Choosing the encoders
// [SECTION] Opening
// [SECTION] Pictures
// [SECTION] Music
// [SECTION] Finishing

#include "tools/capture/VideoFile.h"

#include "audio/platform/FfmpegHandles.h"
#include "content/AtomicFile.h"

extern "C" {
#include <libavutil/audio_fifo.h>
#include <libavutil/channel_layout.h>
#include <libavutil/log.h>
#include <libavutil/opt.h>
#include <libavutil/pixdesc.h>
}

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace brisvale::capture {
namespace {

// ---------------------------------------------------------------------------------------------
// [SECTION] FFmpeg helpers
// ---------------------------------------------------------------------------------------------

std::string avError(int rc) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(rc, text, sizeof text);
    return text;
}

struct FifoFree {
    void operator()(AVAudioFifo* f) const { av_audio_fifo_free(f); }
};
struct SamplesFree {
    void operator()(std::uint8_t** data) const {
        av_freep(&data[0]);
        av_freep(&data);
    }
};

using pelora::gamedev::core::ffmpeg::CodecContext;
using pelora::gamedev::core::ffmpeg::CustomIo;
using pelora::gamedev::core::ffmpeg::Frame;
using pelora::gamedev::core::ffmpeg::OutputFormat;
using pelora::gamedev::core::ffmpeg::Packet;
using pelora::gamedev::core::ffmpeg::Resampler;
using pelora::gamedev::core::ffmpeg::Scaler;

constexpr int kIoBufferBytes = 1 << 16;

// ---------------------------------------------------------------------------------------------
// [SECTION] The temporary file through libavformat
// ---------------------------------------------------------------------------------------------

// A reading position of its own on the temporary file: the mp4 muxer reads what it wrote when
// it moves its index to the front.
struct ReadBack {
    int fd = -1;
    std::int64_t position = 0;
};

std::int64_t fileSize(int fd) {
    struct stat status {};
    return ::fstat(fd, &status) == 0 ? static_cast<std::int64_t>(status.st_size) : AVERROR(errno);
}

int writeBytes(void* opaque, std::uint8_t* bytes, int size) {
    const int fd = *static_cast<int*>(opaque);
    for (int done = 0; done < size;) {
        const ssize_t n = ::write(fd, bytes + done, static_cast<std::size_t>(size - done));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return AVERROR(n < 0 ? errno : EIO);
        done += static_cast<int>(n);
    }
    return size;
}

std::int64_t seekWrite(void* opaque, std::int64_t offset, int whence) {
    const int fd = *static_cast<int*>(opaque);
    if (whence & AVSEEK_SIZE) return fileSize(fd);
    const off_t at = ::lseek(fd, offset, whence & ~AVSEEK_FORCE);
    return at < 0 ? AVERROR(errno) : at;
}

int readBytes(void* opaque, std::uint8_t* bytes, int size) {
    auto& reader = *static_cast<ReadBack*>(opaque);
    ssize_t n = -1;
    do {
        n = ::pread(reader.fd, bytes, static_cast<std::size_t>(size), reader.position);
    } while (n < 0 && errno == EINTR);
    if (n < 0) return AVERROR(errno);
    if (n == 0) return AVERROR_EOF;
    reader.position += n;
    return static_cast<int>(n);
}

std::int64_t seekRead(void* opaque, std::int64_t offset, int whence) {
    auto& reader = *static_cast<ReadBack*>(opaque);
    const std::int64_t size = fileSize(reader.fd);
    switch (whence & ~AVSEEK_FORCE) {
    case AVSEEK_SIZE: return size;
    case SEEK_SET: reader.position = offset; break;
    case SEEK_CUR: reader.position += offset; break;
    case SEEK_END:
        if (size < 0) return size;
        reader.position = size + offset;
        break;
    default: return AVERROR(EINVAL);
    }
    return reader.position;
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Choosing the encoders
// ---------------------------------------------------------------------------------------------

struct ContainerChoice {
    const char* muxer;
    const char* video;
    const char* audio;
    int audioBitsPerChannel;  // per second
};

ContainerChoice choiceFor(VideoContainer container) {
    switch (container) {
    case VideoContainer::Mp4: return {"mp4", "libx264", "aac", 96000};
    case VideoContainer::WebM: return {"webm", "libvpx-vp9", "libopus", 64000};
    case VideoContainer::Matroska: return {"matroska", "libx264", "libopus", 64000};
    }
    return {"matroska", "libx264", "libopus", 64000};
}

// The constant-quality scale of the encoders known here, where their options do not state it,
// and the value each starts from: a file made to be shared.
struct KnownQuality {
    const char* encoder;
    int lowest;
    int highest;
    int value;
};
constexpr KnownQuality kKnownQualities[] = {
    {"libx264", 0, 51, 20},    {"libx264rgb", 0, 51, 20}, {"libx265", 0, 51, 24},   {"libvpx-vp9", 0, 63, 31},
    {"libvpx", 4, 63, 10},     {"libaom-av1", 0, 63, 30}, {"libsvtav1", 1, 63, 35}, {"h264_nvenc", 0, 51, 23},
    {"hevc_nvenc", 0, 51, 25}, {"av1_nvenc", 0, 51, 30},
};

// Sets the encoder's constant quality: its "crf", "cq" or "qp" option (the first it has), or the
// codec-wide quantiser scale for encoders without one.
void applyQuality(AVCodecContext& context, const AVCodec& codec, std::optional<int> requested) {
    const KnownQuality* known = nullptr;
    for (const KnownQuality& k : kKnownQualities) {
        if (std::strcmp(k.encoder, codec.name) == 0) known = &k;
    }
    const std::optional<int> value = requested ? requested : known ? std::optional<int>(known->value) : std::nullopt;
    if (!value) return;  // the encoder's own default
    for (const char* name : {"crf", "cq", "qp"}) {
        const AVOption* option = nullptr;
        if (context.priv_data != nullptr) option = av_opt_find(context.priv_data, name, nullptr, 0, 0);
        if (option == nullptr) continue;
        const double lowest = known ? std::max<double>(known->lowest, option->min) : option->min;
        const double highest = known ? std::min<double>(known->highest, option->max) : option->max;
        if (*value < lowest || *value > highest) {
            throw CaptureOptionError("Quality " + std::to_string(*value) + " is out of range for " + codec.name + " (" +
                                     std::to_string(static_cast<long long>(lowest)) + " to " +
                                     std::to_string(static_cast<long long>(highest)) + ")");
        }
        av_opt_set_int(context.priv_data, name, *value, 0);
        context.bit_rate = 0;  // no target rate beside the quality
        return;
    }
    context.flags |= AV_CODEC_FLAG_QSCALE;
    context.global_quality = FF_QP2LAMBDA * *value;
}

// yuv420p where the encoder takes it (every player plays it), else its first software format.
AVPixelFormat pixelFormatFor(const AVCodec& codec) {
    if (codec.pix_fmts == nullptr) return AV_PIX_FMT_YUV420P;
    AVPixelFormat first = AV_PIX_FMT_NONE;
    for (const AVPixelFormat* f = codec.pix_fmts; *f != AV_PIX_FMT_NONE; ++f) {
        if (*f == AV_PIX_FMT_YUV420P) return *f;
        const AVPixFmtDescriptor* d = av_pix_fmt_desc_get(*f);
        if (first == AV_PIX_FMT_NONE && d != nullptr && !(d->flags & AV_PIX_FMT_FLAG_HWACCEL)) first = *f;
    }
    return first == AV_PIX_FMT_NONE ? AV_PIX_FMT_YUV420P : first;
}

// The music's rate where the encoder takes it, else 48 kHz, else the encoder's first.
int sampleRateFor(const AVCodec& codec, int musicRate) {
    if (codec.supported_samplerates == nullptr) return musicRate;
    bool has48k = false;
    for (const int* r = codec.supported_samplerates; *r != 0; ++r) {
        if (*r == musicRate) return musicRate;
        has48k = has48k || *r == 48000;
    }
    return has48k ? 48000 : codec.supported_samplerates[0];
}

// The music's own channels where the encoder takes them, else stereo.
AVChannelLayout channelLayoutFor(const AVCodec& codec, int channels) {
    AVChannelLayout layout{};
    av_channel_layout_default(&layout, channels);
    if (codec.ch_layouts == nullptr) return layout;
    for (const AVChannelLayout* l = codec.ch_layouts; l->nb_channels != 0; ++l) {
        if (av_channel_layout_compare(l, &layout) == 0) return layout;
    }
    AVChannelLayout stereo = AV_CHANNEL_LAYOUT_STEREO;
    return stereo;
}

} // namespace

struct VideoFile::State {
    VideoSettings settings;
    std::unique_ptr<AtomicFileWriter> file;
    int fd = -1;
    ReadBack readBack;
    OutputFormat format;  // its I/O context is `io`, our own
    CustomIo io;
    Packet packet;
    bool headerWritten = false;
    bool finished = false;

    CodecContext video;
    AVStream* videoStream = nullptr;
    Scaler converter;
    Frame picture;
    std::int64_t pictures = 0;

    CodecContext audio;
    AVStream* audioStream = nullptr;
    Resampler resampler;
    std::unique_ptr<AVAudioFifo, FifoFree> fifo;
    std::unique_ptr<std::uint8_t*, SamplesFree> resampled;  // one plane per channel, or one
    int resampledCapacity = 0;
    Frame audioFrame;
    int audioFrameSize = 0;
    std::int64_t musicFrames = 0;  // written in, at the music's rate
    std::int64_t audioSent = 0;    // given to the encoder, at its rate

    [[noreturn]] void fail(const std::string& what, int rc) const {
        throw std::runtime_error(what + " " + settings.path + ": " + avError(rc));
    }
    void openVideo(const ContainerChoice& choice);
    void openAudio(const ContainerChoice& choice);
    void openOutput();
    void writePackets(AVCodecContext& codec, AVStream& stream);
    void sendAudio(int count);
};

// ---------------------------------------------------------------------------------------------
// [SECTION] Opening
// ---------------------------------------------------------------------------------------------

void VideoFile::State::openVideo(const ContainerChoice& choice) {
    const std::string name = settings.codec.empty() ? choice.video : settings.codec;
    const AVCodec* codec = avcodec_find_encoder_by_name(name.c_str());
    if (codec == nullptr || codec->type != AVMEDIA_TYPE_VIDEO) throw CaptureOptionError("Unknown video encoder: " + name);
    if (avformat_query_codec(format->oformat, codec->id, FF_COMPLIANCE_NORMAL) != 1) {
        throw CaptureOptionError(std::string("A ") + format->oformat->name + " file cannot hold " + name + " video");
    }
    const AVPixelFormat pixelFormat = pixelFormatFor(*codec);
    const AVPixFmtDescriptor* pixels = av_pix_fmt_desc_get(pixelFormat);
    const std::uint32_t stepX = 1u << pixels->log2_chroma_w;
    const std::uint32_t stepY = 1u << pixels->log2_chroma_h;
    if (settings.width % stepX != 0 || settings.height % stepY != 0) {
        throw CaptureOptionError(name + " in " + pixels->name + " takes sizes in steps of " + std::to_string(stepX) + "x" +
                                 std::to_string(stepY) + ", not " + std::to_string(settings.width) + "x" +
                                 std::to_string(settings.height));
    }

    video.reset(avcodec_alloc_context3(codec));
    if (!video) throw std::runtime_error("Out of memory for the video encoder");
    AVCodecContext& c = *video;
    c.width = static_cast<int>(settings.width);
    c.height = static_cast<int>(settings.height);
    c.pix_fmt = pixelFormat;
    c.time_base = AVRational{1, static_cast<int>(settings.fps)};
    c.framerate = AVRational{static_cast<int>(settings.fps), 1};
    c.sample_aspect_ratio = AVRational{1, 1};
    c.thread_count = 0;  // as many as the encoder finds useful
    const bool yuv = !(pixels->flags & AV_PIX_FMT_FLAG_RGB);
    if (yuv) {
        c.color_primaries = AVCOL_PRI_BT709;
        c.color_trc = AVCOL_TRC_BT709;
        c.colorspace = AVCOL_SPC_BT709;
        c.color_range = AVCOL_RANGE_MPEG;
    }
    if (format->oformat->flags & AVFMT_GLOBALHEADER) c.flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    applyQuality(c, *codec, settings.quality);
    AVDictionary* options = nullptr;
    if (std::strcmp(codec->name, "libvpx-vp9") == 0) {
        // Row threads and a speed at which a show's length encodes in minutes, not hours.
        av_dict_set(&options, "row-mt", "1", 0);
        av_dict_set(&options, "cpu-used", "4", 0);
    }
    const int rc = avcodec_open2(&c, codec, &options);
    av_dict_free(&options);
    if (rc < 0) {
        throw CaptureOptionError(name + " refuses " + std::to_string(settings.width) + "x" +
                                 std::to_string(settings.height) + " at " + std::to_string(settings.fps) +
                                 " fps: " + avError(rc));
    }

    videoStream = avformat_new_stream(format.get(), nullptr);
    if (videoStream == nullptr || avcodec_parameters_from_context(videoStream->codecpar, &c) < 0) {
        throw std::runtime_error("Out of memory for the video stream");
    }
    videoStream->time_base = c.time_base;
    videoStream->avg_frame_rate = c.framerate;

    converter.reset(sws_getContext(c.width, c.height, AV_PIX_FMT_BGRA, c.width, c.height, pixelFormat, SWS_BILINEAR,
                                   nullptr, nullptr, nullptr));
    if (!converter) throw std::runtime_error(std::string("No conversion from BGRA to ") + pixels->name);
    if (yuv) {
        // Full-range RGB in, BT.709 limited-range YUV out, as the stream is tagged.
        sws_setColorspaceDetails(converter.get(), sws_getCoefficients(SWS_CS_ITU709), 1,
                                 sws_getCoefficients(SWS_CS_ITU709), 0, 0, 1 << 16, 1 << 16);
    }
    picture.reset(av_frame_alloc());
    if (!picture) throw std::runtime_error("Out of memory for a picture");
    picture->format = pixelFormat;
    picture->width = c.width;
    picture->height = c.height;
    if (av_frame_get_buffer(picture.get(), 0) < 0) throw std::runtime_error("Out of memory for a picture");
}

void VideoFile::State::openAudio(const ContainerChoice& choice) {
    const AVCodec* codec = avcodec_find_encoder_by_name(choice.audio);
    if (codec == nullptr) {
        throw std::runtime_error(std::string("This FFmpeg has no ") + choice.audio + " encoder for the music");
    }
    audio.reset(avcodec_alloc_context3(codec));
    if (!audio) throw std::runtime_error("Out of memory for the audio encoder");
    AVCodecContext& c = *audio;
    c.sample_fmt = codec->sample_fmts != nullptr ? codec->sample_fmts[0] : AV_SAMPLE_FMT_FLTP;
    c.sample_rate = sampleRateFor(*codec, settings.musicRate);
    c.ch_layout = channelLayoutFor(*codec, settings.musicChannels);
    c.bit_rate = std::int64_t{choice.audioBitsPerChannel} * c.ch_layout.nb_channels;
    c.time_base = AVRational{1, c.sample_rate};
    if (format->oformat->flags & AVFMT_GLOBALHEADER) c.flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    if (const int rc = avcodec_open2(&c, codec, nullptr); rc < 0) {
        throw std::runtime_error(std::string(choice.audio) + " refuses the music (" + std::to_string(settings.musicRate) +
                                 " Hz, " + std::to_string(settings.musicChannels) + " channels): " + avError(rc));
    }
    audioFrameSize = c.frame_size > 0 ? c.frame_size : 1024;

    audioStream = avformat_new_stream(format.get(), nullptr);
    if (audioStream == nullptr || avcodec_parameters_from_context(audioStream->codecpar, &c) < 0) {
        throw std::runtime_error("Out of memory for the audio stream");
    }
    audioStream->time_base = c.time_base;

    AVChannelLayout in{};
    av_channel_layout_default(&in, settings.musicChannels);
    SwrContext* swr = nullptr;
    if (swr_alloc_set_opts2(&swr, &c.ch_layout, c.sample_fmt, c.sample_rate, &in, AV_SAMPLE_FMT_S16,
                            settings.musicRate, 0, nullptr) < 0 ||
        swr_init(swr) < 0) {
        swr_free(&swr);
        throw std::runtime_error("No conversion of the music to " + std::to_string(c.sample_rate) + " Hz");
    }
    resampler.reset(swr);

    // Room for the most that one write can yield, the resampler's filter run-up included.
    const std::int64_t most = av_rescale_rnd(kMaxMusicFrames, c.sample_rate, settings.musicRate, AV_ROUND_UP);
    resampledCapacity = static_cast<int>(most) + 4096;
    const int channels = c.ch_layout.nb_channels;
    std::uint8_t** planes = nullptr;
    if (av_samples_alloc_array_and_samples(&planes, nullptr, channels, resampledCapacity, c.sample_fmt, 0) < 0) {
        throw std::runtime_error("Out of memory for the music");
    }
    resampled.reset(planes);
    fifo.reset(av_audio_fifo_alloc(c.sample_fmt, c.ch_layout.nb_channels, resampledCapacity + audioFrameSize));
    audioFrame.reset(av_frame_alloc());
    if (!fifo || !audioFrame) throw std::runtime_error("Out of memory for the music");
    audioFrame->format = c.sample_fmt;
    audioFrame->sample_rate = c.sample_rate;
    audioFrame->nb_samples = audioFrameSize;
    if (av_channel_layout_copy(&audioFrame->ch_layout, &c.ch_layout) < 0 || av_frame_get_buffer(audioFrame.get(), 0) < 0) {
        throw std::runtime_error("Out of memory for the music");
    }
}

// The temporary file is made only once the encoders have taken the settings.
void VideoFile::State::openOutput() {
    try {
        file = std::make_unique<AtomicFileWriter>(settings.path);
    } catch (const std::runtime_error& error) {
        throw CaptureOptionError(error.what());
    }
    fd = file->descriptor();
    readBack.fd = fd;
    av_freep(&format->url);
    format->url = av_strdup(file->temporaryPath().c_str());
    if (format->url == nullptr) throw std::runtime_error("Out of memory for the output");
    auto* buffer = static_cast<std::uint8_t*>(av_malloc(kIoBufferBytes));
    if (buffer == nullptr) throw std::runtime_error("Out of memory for the output");
    io.reset(avio_alloc_context(buffer, kIoBufferBytes, 1, &fd, nullptr, writeBytes, seekWrite));
    if (!io) {
        av_free(buffer);
        throw std::runtime_error("Out of memory for the output");
    }
    format->pb = io.get();
    format->flags |= AVFMT_FLAG_CUSTOM_IO;
    // The mp4 muxer's second pass opens the file again by name, for reading.
    format->opaque = this;
    format->io_open = [](AVFormatContext* s, AVIOContext** pb, const char* url, int flags, AVDictionary**) -> int {
        auto& self = *static_cast<State*>(s->opaque);
        if (!(flags & AVIO_FLAG_READ) || (flags & AVIO_FLAG_WRITE) || url == nullptr ||
            self.file->temporaryPath() != url) {
            return AVERROR(EPERM);
        }
        auto* bytes = static_cast<std::uint8_t*>(av_malloc(kIoBufferBytes));
        if (bytes == nullptr) return AVERROR(ENOMEM);
        self.readBack.position = 0;
        *pb = avio_alloc_context(bytes, kIoBufferBytes, 0, &self.readBack, readBytes, nullptr, seekRead);
        if (*pb == nullptr) {
            av_free(bytes);
            return AVERROR(ENOMEM);
        }
        return 0;
    };
    format->io_close2 = [](AVFormatContext*, AVIOContext* pb) -> int {
        const CustomIo closed(pb);  // freed on return
        return 0;
    };
    AVDictionary* options = nullptr;
    if (std::strcmp(format->oformat->name, "mp4") == 0) av_dict_set(&options, "movflags", "+faststart", 0);
    const int rc = avformat_write_header(format.get(), &options);
    av_dict_free(&options);
    if (rc < 0) fail("Failed to write", rc);
    headerWritten = true;
}

VideoFile::VideoFile(const VideoSettings& settings) : state_(std::make_unique<State>()) {
    State& s = *state_;
    s.settings = settings;
    // FFmpeg's own lines (x264's settings, warnings) would bury the progress line and the one-line
    // errors; what fails is said by the messages here.
    av_log_set_level(AV_LOG_QUIET);
    const ContainerChoice choice = choiceFor(videoContainerFor(settings.path));
    AVFormatContext* format = nullptr;
    // Named after the temporary file only once that exists; the muxer needs no name before.
    if (avformat_alloc_output_context2(&format, nullptr, choice.muxer, nullptr) < 0 || format == nullptr) {
        throw std::runtime_error(std::string("This FFmpeg cannot write ") + choice.muxer + " files");
    }
    s.format.reset(format);
    s.packet.reset(av_packet_alloc());
    if (!s.packet) throw std::runtime_error("Out of memory for packets");
    s.openVideo(choice);
    if (settings.musicRate > 0 && settings.musicChannels > 0) s.openAudio(choice);
    s.openOutput();
}

VideoFile::~VideoFile() = default;

std::string VideoFile::encoderName() const { return state_->video->codec->name; }

// ---------------------------------------------------------------------------------------------
// [SECTION] Pictures
// ---------------------------------------------------------------------------------------------

void VideoFile::State::writePackets(AVCodecContext& codec, AVStream& stream) {
    for (;;) {
        const int rc = avcodec_receive_packet(&codec, packet.get());
        if (rc == AVERROR(EAGAIN) || rc == AVERROR_EOF) return;
        if (rc < 0) fail(std::string("Failed to encode (") + codec.codec->name + ")", rc);
        av_packet_rescale_ts(packet.get(), codec.time_base, stream.time_base);
        packet->stream_index = stream.index;
        if (const int written = av_interleaved_write_frame(format.get(), packet.get()); written < 0) {
            fail("Failed to write", written);
        }
    }
}

void VideoFile::setPicture(const std::uint8_t* bgra, std::uint32_t width, std::uint32_t height, std::size_t rowBytes) {
    State& s = *state_;
    if (width != s.settings.width || height != s.settings.height || rowBytes < std::size_t{width} * 4) {
        throw std::runtime_error("A frame of " + std::to_string(width) + "x" + std::to_string(height) + " for a video of " +
                                 std::to_string(s.settings.width) + "x" + std::to_string(s.settings.height));
    }
    // A no-op unless the encoder still holds the last picture.
    if (const int rc = av_frame_make_writable(s.picture.get()); rc < 0) s.fail("Failed to encode", rc);
    const std::uint8_t* planes[1] = {bgra};
    const int strides[1] = {static_cast<int>(rowBytes)};
    sws_scale(s.converter.get(), planes, strides, 0, static_cast<int>(s.settings.height), s.picture->data,
              s.picture->linesize);
}

void VideoFile::writePicture() {
    State& s = *state_;
    s.picture->pts = s.pictures++;
    if (const int rc = avcodec_send_frame(s.video.get(), s.picture.get()); rc < 0) s.fail("Failed to encode", rc);
    s.writePackets(*s.video, *s.videoStream);
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Music
// ---------------------------------------------------------------------------------------------

// Encodes `count` frames from the FIFO as one audio frame; what the FIFO lacks is silence.
void VideoFile::State::sendAudio(int count) {
    AVCodecContext& c = *audio;
    if (const int rc = av_frame_make_writable(audioFrame.get()); rc < 0) fail("Failed to encode", rc);
    const bool shortLast = (c.codec->capabilities & AV_CODEC_CAP_SMALL_LAST_FRAME) != 0;
    const int size = count < audioFrameSize && !shortLast ? audioFrameSize : count;
    auto** planes = reinterpret_cast<void**>(audioFrame->data);
    const int got = std::max(0, av_audio_fifo_read(fifo.get(), planes, std::min(count, av_audio_fifo_size(fifo.get()))));
    if (got < size) {
        av_samples_set_silence(audioFrame->data, got, size - got, c.ch_layout.nb_channels, c.sample_fmt);
    }
    audioFrame->nb_samples = size;
    audioFrame->pts = audioSent;
    audioSent += size;
    if (const int rc = avcodec_send_frame(&c, audioFrame.get()); rc < 0) fail("Failed to encode", rc);
    writePackets(c, *audioStream);
}

void VideoFile::writeMusic(const std::int16_t* samples, std::uint32_t frames) {
    State& s = *state_;
    if (!s.audio || frames == 0) return;
    frames = std::min(frames, kMaxMusicFrames);
    s.musicFrames += frames;
    const auto* in = reinterpret_cast<const std::uint8_t*>(samples);
    const int n = swr_convert(s.resampler.get(), s.resampled.get(), s.resampledCapacity, &in, static_cast<int>(frames));
    if (n < 0) s.fail("Failed to resample the music for", n);
    if (av_audio_fifo_write(s.fifo.get(), reinterpret_cast<void**>(s.resampled.get()), n) < n) {
        throw std::runtime_error("Out of memory for the music");
    }
    while (av_audio_fifo_size(s.fifo.get()) >= s.audioFrameSize) s.sendAudio(s.audioFrameSize);
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Finishing
// ---------------------------------------------------------------------------------------------

void VideoFile::finish() {
    State& s = *state_;
    if (s.finished) return;
    if (const int rc = avcodec_send_frame(s.video.get(), nullptr); rc < 0) s.fail("Failed to encode", rc);
    s.writePackets(*s.video, *s.videoStream);
    if (s.audio) {
        AVCodecContext& c = *s.audio;
        // Exactly the music written, at the encoder's rate: the resampler's tail, then silence
        // or a cut where its rounding left the count off by a little.
        const std::int64_t wanted = av_rescale_rnd(s.musicFrames, c.sample_rate, s.settings.musicRate, AV_ROUND_NEAR_INF);
        for (;;) {
            const int n = swr_convert(s.resampler.get(), s.resampled.get(), s.resampledCapacity, nullptr, 0);
            if (n < 0) s.fail("Failed to resample the music for", n);
            if (n == 0) break;
            const std::int64_t room = wanted - s.audioSent - av_audio_fifo_size(s.fifo.get());
            const int keep = static_cast<int>(std::clamp<std::int64_t>(room, 0, n));
            if (av_audio_fifo_write(s.fifo.get(), reinterpret_cast<void**>(s.resampled.get()), keep) < keep) {
                throw std::runtime_error("Out of memory for the music");
            }
            while (av_audio_fifo_size(s.fifo.get()) >= s.audioFrameSize) s.sendAudio(s.audioFrameSize);
        }
        while (s.audioSent < wanted) {
            s.sendAudio(static_cast<int>(std::min<std::int64_t>(s.audioFrameSize, wanted - s.audioSent)));
        }
        if (const int rc = avcodec_send_frame(&c, nullptr); rc < 0) s.fail("Failed to encode", rc);
        s.writePackets(c, *s.audioStream);
    }
    if (const int rc = av_write_trailer(s.format.get()); rc < 0) s.fail("Failed to write", rc);
    avio_flush(s.io.get());
    if (s.io->error < 0) s.fail("Failed to write", s.io->error);
    s.finished = true;
}

void VideoFile::commit() {
    finish();
    state_->file->commit();
}

} // namespace brisvale::capture
