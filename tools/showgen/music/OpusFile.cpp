// FFmpeg encoding of the piece: libopus into an Ogg file, bit-exact.
#include "music/OpusFile.h"

#include "audio/platform/FfmpegHandles.h"

#include <algorithm>
#include <stdexcept>

extern "C" {
#include <libavutil/base64.h>
#include <libavutil/channel_layout.h>
#include <libavutil/error.h>
}

namespace brisvale::showgen {
namespace {

namespace ffmpeg = pelora::gamedev::core::ffmpeg;

std::string averr(int code) {
    char buf[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(code, buf, sizeof buf);
    return buf;
}

void check(int code, const char* what) {
    if (code < 0) throw std::runtime_error(std::string(what) + ": " + averr(code));
}

void putBe32(std::vector<std::uint8_t>& out, std::uint32_t v) {
    for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<std::uint8_t>(v >> shift));
}

void drain(AVCodecContext* codec, AVFormatContext* format, AVStream* stream, AVPacket* packet) {
    for (;;) {
        const int rc = avcodec_receive_packet(codec, packet);
        if (rc == AVERROR(EAGAIN) || rc == AVERROR_EOF) return;
        check(rc, "avcodec_receive_packet failed");
        av_packet_rescale_ts(packet, codec->time_base, stream->time_base);
        packet->stream_index = stream->index;
        check(av_interleaved_write_frame(format, packet), "av_interleaved_write_frame failed");
    }
}

}  // namespace

std::vector<std::uint8_t> flacPictureBlock(const SongTags& tags) {
    const std::string mime = "image/png";
    const std::string description = "Cover";
    std::vector<std::uint8_t> block;
    putBe32(block, 3);  // front cover
    putBe32(block, static_cast<std::uint32_t>(mime.size()));
    block.insert(block.end(), mime.begin(), mime.end());
    putBe32(block, static_cast<std::uint32_t>(description.size()));
    block.insert(block.end(), description.begin(), description.end());
    putBe32(block, tags.coverWidth);
    putBe32(block, tags.coverHeight);
    putBe32(block, 32);  // bits per pixel
    putBe32(block, 0);   // not indexed
    putBe32(block, static_cast<std::uint32_t>(tags.coverPng.size()));
    block.insert(block.end(), tags.coverPng.begin(), tags.coverPng.end());
    return block;
}

void writeOggOpus(const std::string& path, const StereoPcm& pcm, const SongTags& tags, int bitRate) {
    const AVCodec* encoder = avcodec_find_encoder_by_name("libopus");
    if (!encoder) throw std::runtime_error("FFmpeg has no libopus encoder");

    AVFormatContext* rawFormat = nullptr;
    check(avformat_alloc_output_context2(&rawFormat, nullptr, "ogg", path.c_str()), "avformat_alloc_output_context2 failed");
    ffmpeg::OutputFormat format(rawFormat);
    format->flags |= AVFMT_FLAG_BITEXACT;

    ffmpeg::CodecContext codec(avcodec_alloc_context3(encoder));
    if (!codec) throw std::runtime_error("avcodec_alloc_context3 failed");
    codec->sample_rate = kSongRate;
    codec->sample_fmt = AV_SAMPLE_FMT_FLT;
    av_channel_layout_default(&codec->ch_layout, 2);
    codec->bit_rate = bitRate;
    codec->time_base = AVRational{1, kSongRate};
    codec->thread_count = 1;
    codec->flags |= AV_CODEC_FLAG_BITEXACT;
    if (format->oformat->flags & AVFMT_GLOBALHEADER) codec->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    check(avcodec_open2(codec.get(), encoder, nullptr), "avcodec_open2 failed");

    AVStream* stream = avformat_new_stream(format.get(), nullptr);
    if (!stream) throw std::runtime_error("avformat_new_stream failed");
    stream->time_base = codec->time_base;
    check(avcodec_parameters_from_context(stream->codecpar, codec.get()), "avcodec_parameters_from_context failed");

    // Ogg carries tags as the stream's Vorbis comments.
    av_dict_set(&stream->metadata, "title", tags.title.c_str(), 0);
    av_dict_set(&stream->metadata, "artist", tags.artist.c_str(), 0);
    av_dict_set(&stream->metadata, "album", tags.album.c_str(), 0);
    av_dict_set(&stream->metadata, "date", tags.date.c_str(), 0);
    av_dict_set(&stream->metadata, "genre", tags.genre.c_str(), 0);
    if (!tags.coverPng.empty()) {
        const std::vector<std::uint8_t> block = flacPictureBlock(tags);
        std::string encoded(AV_BASE64_SIZE(block.size()), '\0');
        if (!av_base64_encode(encoded.data(), static_cast<int>(encoded.size()), block.data(), static_cast<int>(block.size())))
            throw std::runtime_error("av_base64_encode failed");
        encoded.resize(std::char_traits<char>::length(encoded.c_str()));
        av_dict_set(&stream->metadata, "METADATA_BLOCK_PICTURE", encoded.c_str(), 0);
    }

    check(avio_open(&format->pb, path.c_str(), AVIO_FLAG_WRITE), "avio_open failed");
    check(avformat_write_header(format.get(), nullptr), "avformat_write_header failed");

    ffmpeg::Frame frame(av_frame_alloc());
    ffmpeg::Packet packet(av_packet_alloc());
    if (!frame || !packet) throw std::runtime_error("av_frame_alloc failed");
    const std::size_t frameSize = static_cast<std::size_t>(codec->frame_size > 0 ? codec->frame_size : 960);
    const std::size_t total = pcm.left.size();
    for (std::size_t pos = 0; pos < total; pos += frameSize) {
        const std::size_t n = std::min(frameSize, total - pos);
        av_frame_unref(frame.get());
        frame->nb_samples = static_cast<int>(frameSize);  // the last frame is zero-padded
        frame->format = AV_SAMPLE_FMT_FLT;
        frame->sample_rate = kSongRate;
        check(av_channel_layout_copy(&frame->ch_layout, &codec->ch_layout), "av_channel_layout_copy failed");
        check(av_frame_get_buffer(frame.get(), 0), "av_frame_get_buffer failed");
        auto* out = reinterpret_cast<float*>(frame->data[0]);
        for (std::size_t i = 0; i < frameSize; ++i) {
            out[2 * i] = i < n ? pcm.left[pos + i] : 0.0f;
            out[2 * i + 1] = i < n ? pcm.right[pos + i] : 0.0f;
        }
        frame->pts = static_cast<std::int64_t>(pos);
        check(avcodec_send_frame(codec.get(), frame.get()), "avcodec_send_frame failed");
        drain(codec.get(), format.get(), stream, packet.get());
    }
    check(avcodec_send_frame(codec.get(), nullptr), "avcodec_send_frame failed");
    drain(codec.get(), format.get(), stream, packet.get());
    check(av_write_trailer(format.get()), "av_write_trailer failed");
}

}  // namespace brisvale::showgen
