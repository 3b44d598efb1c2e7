// Writes real encoded test files through libavcodec and libavformat.

#include "support/TestMedia.h"

#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>

#include "audio/platform/FfmpegHandles.h"

extern "C" {
#include <libavutil/channel_layout.h>
}

namespace brisvale::test {
namespace {

void check(int rc, const char* what) {
    if (rc < 0) {
        char text[AV_ERROR_MAX_STRING_SIZE] = {};
        av_strerror(rc, text, sizeof text);
        throw std::runtime_error(std::string(what) + ": " + text);
    }
}

using pelora::gamedev::core::ffmpeg::CodecContext;
using pelora::gamedev::core::ffmpeg::Frame;
using pelora::gamedev::core::ffmpeg::OutputFormat;
using pelora::gamedev::core::ffmpeg::Packet;
using pelora::gamedev::core::ffmpeg::Resampler;

void drain(AVCodecContext* codec, AVFormatContext* out, AVStream* stream, AVPacket* packet) {
    for (;;) {
        const int rc = avcodec_receive_packet(codec, packet);
        if (rc == AVERROR(EAGAIN) || rc == AVERROR_EOF) {
            return;
        }
        check(rc, "avcodec_receive_packet");
        av_packet_rescale_ts(packet, codec->time_base, stream->time_base);
        packet->stream_index = stream->index;
        check(av_interleaved_write_frame(out, packet), "av_interleaved_write_frame");
    }
}

} // namespace

TempDir::TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "brisvale-audio-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("mkdtemp failed");
    }
    path_ = pattern;
}

TempDir::~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
}

std::vector<int16_t> makeSignal(int64_t frames, int channels, int sampleRate, float amplitude) {
    std::vector<int16_t> s(static_cast<size_t>(frames * channels));
    for (int64_t k = 0; k < frames; ++k) {
        const double t = static_cast<double>(k) / sampleRate;
        for (int c = 0; c < channels; ++c) {
            // A slow upward sweep per channel, each starting at its own frequency and phase.
            const double f0 = 330.0 + 110.0 * c;
            const double phase = 2.0 * M_PI * (f0 * t + 150.0 * t * t) + 0.7 + c;
            s[static_cast<size_t>(k * channels + c)] = static_cast<int16_t>(std::lround(amplitude * 32767.0 * std::sin(phase)));
        }
    }
    return s;
}

bool encoderAvailable(const std::string& name) { return avcodec_find_encoder_by_name(name.c_str()) != nullptr; }

std::vector<uint8_t> makePng(int width, int height) {
    const AVCodec* png = avcodec_find_encoder(AV_CODEC_ID_PNG);
    if (png == nullptr) {
        throw std::runtime_error("no PNG encoder");
    }
    CodecContext c(avcodec_alloc_context3(png));
    c->width = width;
    c->height = height;
    c->pix_fmt = AV_PIX_FMT_RGB24;
    c->time_base = AVRational{1, 25};
    check(avcodec_open2(c.get(), png, nullptr), "open PNG encoder");
    Frame frame(av_frame_alloc());
    frame->width = width;
    frame->height = height;
    frame->format = AV_PIX_FMT_RGB24;
    check(av_frame_get_buffer(frame.get(), 0), "frame buffer");
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width * 3; ++x) {
            frame->data[0][y * frame->linesize[0] + x] = static_cast<uint8_t>(x * 7 + y * 13);
        }
    }
    check(avcodec_send_frame(c.get(), frame.get()), "send PNG frame");
    check(avcodec_send_frame(c.get(), nullptr), "flush PNG");
    Packet packet(av_packet_alloc());
    check(avcodec_receive_packet(c.get(), packet.get()), "receive PNG");
    return std::vector<uint8_t>(packet->data, packet->data + packet->size);
}

void encodeFile(const std::string& path, const EncodeRequest& request, const std::vector<int16_t>& samples) {
    const AVCodec* encoder = avcodec_find_encoder_by_name(request.encoder.c_str());
    if (encoder == nullptr) {
        throw std::runtime_error("no encoder " + request.encoder);
    }
    AVFormatContext* raw = nullptr;
    check(avformat_alloc_output_context2(&raw, nullptr, request.muxer.c_str(), path.c_str()), "output context");
    OutputFormat out(raw);
    for (const auto& [key, value] : request.tags) {
        av_dict_set(&out->metadata, key.c_str(), value.c_str(), 0);
    }

    AVStream* stream = avformat_new_stream(out.get(), nullptr);
    CodecContext codec(avcodec_alloc_context3(encoder));
    av_channel_layout_default(&codec->ch_layout, request.channels);
    codec->sample_rate = request.sampleRate;
    codec->sample_fmt = encoder->sample_fmts ? encoder->sample_fmts[0] : AV_SAMPLE_FMT_S16;
    for (const AVSampleFormat* f = encoder->sample_fmts; f && *f != AV_SAMPLE_FMT_NONE; ++f) {
        if (*f == AV_SAMPLE_FMT_S16) {
            codec->sample_fmt = AV_SAMPLE_FMT_S16;  // lossless encoders keep the exact samples
        }
    }
    codec->bit_rate = 64000 * request.channels;
    codec->time_base = AVRational{1, request.sampleRate};
    if (out->oformat->flags & AVFMT_GLOBALHEADER) {
        codec->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    }
    check(avcodec_open2(codec.get(), encoder, nullptr), "open encoder");
    check(avcodec_parameters_from_context(stream->codecpar, codec.get()), "stream parameters");
    stream->time_base = codec->time_base;
    for (const auto& [key, value] : request.tags) {
        av_dict_set(&stream->metadata, key.c_str(), value.c_str(), 0);  // Ogg writes stream tags
    }

    AVStream* picture = nullptr;
    if (!request.cover.empty()) {
        picture = avformat_new_stream(out.get(), nullptr);
        picture->disposition = AV_DISPOSITION_ATTACHED_PIC;
        picture->codecpar->codec_type = AVMEDIA_TYPE_VIDEO;
        picture->codecpar->codec_id = AV_CODEC_ID_PNG;
        picture->codecpar->width = 16;
        picture->codecpar->height = 16;
        picture->time_base = AVRational{1, 90000};
        av_dict_set(&picture->metadata, "comment", "Cover (front)", 0);
    }

    if (!(out->oformat->flags & AVFMT_NOFILE)) {
        check(avio_open(&out->pb, path.c_str(), AVIO_FLAG_WRITE), "open output");
        if (request.streamed) {
            out->pb->seekable = 0;
        }
    }
    AVDictionary* options = nullptr;
    for (const auto& [key, value] : request.muxerOptions) {
        av_dict_set(&options, key.c_str(), value.c_str(), 0);
    }
    const int written = avformat_write_header(out.get(), &options);
    const bool unused = av_dict_count(options) > 0;
    av_dict_free(&options);
    check(written, "write header");
    if (unused) {
        throw std::runtime_error("the muxer does not know an option");
    }
    if (picture != nullptr) {
        Packet pic(av_packet_alloc());
        check(av_new_packet(pic.get(), static_cast<int>(request.cover.size())), "picture packet");
        std::memcpy(pic->data, request.cover.data(), request.cover.size());
        pic->stream_index = picture->index;
        pic->flags |= AV_PKT_FLAG_KEY;
        check(av_interleaved_write_frame(out.get(), pic.get()), "write picture");
    }

    SwrContext* swrRaw = nullptr;
    check(swr_alloc_set_opts2(&swrRaw, &codec->ch_layout, codec->sample_fmt, request.sampleRate, &codec->ch_layout,
                              AV_SAMPLE_FMT_S16, request.sampleRate, 0, nullptr),
          "converter");
    Resampler swr(swrRaw);
    check(swr_init(swr.get()), "converter init");

    const int64_t frames = static_cast<int64_t>(samples.size()) / request.channels;
    const bool variable = (encoder->capabilities & AV_CODEC_CAP_VARIABLE_FRAME_SIZE) != 0;
    const int chunk = codec->frame_size > 0 ? codec->frame_size : 1024;
    Frame frame(av_frame_alloc());
    Packet packet(av_packet_alloc());
    for (int64_t at = 0; at < frames; at += chunk) {
        const int n = static_cast<int>(std::min<int64_t>(chunk, frames - at));
        const bool smallLast = (encoder->capabilities & AV_CODEC_CAP_SMALL_LAST_FRAME) != 0;
        const int size = (n < chunk && !variable && !smallLast && codec->frame_size > 0) ? chunk : n;
        av_frame_unref(frame.get());
        frame->nb_samples = size;
        frame->format = codec->sample_fmt;
        frame->sample_rate = request.sampleRate;
        check(av_channel_layout_copy(&frame->ch_layout, &codec->ch_layout), "frame layout");
        check(av_frame_get_buffer(frame.get(), 0), "frame buffer");
        std::vector<int16_t> block(static_cast<size_t>(size) * request.channels, 0);
        std::memcpy(block.data(), samples.data() + at * request.channels, static_cast<size_t>(n) * request.channels * 2);
        const uint8_t* in = reinterpret_cast<const uint8_t*>(block.data());
        check(swr_convert(swr.get(), frame->data, size, &in, size), "convert");
        frame->pts = at;
        check(avcodec_send_frame(codec.get(), frame.get()), "send frame");
        drain(codec.get(), out.get(), stream, packet.get());
    }
    check(avcodec_send_frame(codec.get(), nullptr), "flush encoder");
    drain(codec.get(), out.get(), stream, packet.get());
    check(av_write_trailer(out.get()), "write trailer");
}

std::vector<uint8_t> readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        throw std::runtime_error("cannot read " + path);
    }
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
}

void* mallocCopy(const std::vector<uint8_t>& bytes) {
    void* block = std::malloc(bytes.size());
    if (block == nullptr) {
        throw std::runtime_error("malloc failed");
    }
    std::memcpy(block, bytes.data(), bytes.size());
    return block;
}

} // namespace brisvale::test
