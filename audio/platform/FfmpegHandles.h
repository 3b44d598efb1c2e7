#pragma once
// Owners of FFmpeg's objects: one unique_ptr type per kind of object, each freed the way FFmpeg
// asks. The audio library's decoder, its tests, the show's music generator and the capture
// tool's video encoder all hold FFmpeg's objects through these.

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libswresample/swresample.h>
#include <libswscale/swscale.h>
}

#include <memory>

namespace pelora::gamedev::core::ffmpeg {

// FFmpeg's free functions that take the owner's pointer and set it to null.
template <typename T, void (*Free)(T**)> struct FreeAndNull {
    void operator()(T* object) const { Free(&object); }
};

// A container being read (avformat_open_input); a reader's own I/O context is left to its owner.
using InputFormat = std::unique_ptr<AVFormatContext, FreeAndNull<AVFormatContext, avformat_close_input>>;

// A container being written (avformat_alloc_output_context2). The file its muxer opened with
// avio_open is closed with it; an I/O context of the writer's own (AVFMT_FLAG_CUSTOM_IO) is not.
struct OutputFormatFree {
    void operator()(AVFormatContext* format) const {
        if (format->pb != nullptr && (format->flags & AVFMT_FLAG_CUSTOM_IO) == 0) avio_closep(&format->pb);
        avformat_free_context(format);
    }
};
using OutputFormat = std::unique_ptr<AVFormatContext, OutputFormatFree>;

// An I/O context over callbacks of our own (avio_alloc_context), with the buffer it was given.
struct CustomIoFree {
    void operator()(AVIOContext* io) const {
        av_freep(&io->buffer);
        avio_context_free(&io);
    }
};
using CustomIo = std::unique_ptr<AVIOContext, CustomIoFree>;

using CodecContext = std::unique_ptr<AVCodecContext, FreeAndNull<AVCodecContext, avcodec_free_context>>;
using Frame = std::unique_ptr<AVFrame, FreeAndNull<AVFrame, av_frame_free>>;
using Packet = std::unique_ptr<AVPacket, FreeAndNull<AVPacket, av_packet_free>>;
using Resampler = std::unique_ptr<SwrContext, FreeAndNull<SwrContext, swr_free>>;

struct ScalerFree {
    void operator()(SwsContext* scaler) const { sws_freeContext(scaler); }
};
using Scaler = std::unique_ptr<SwsContext, ScalerFree>;

} // namespace pelora::gamedev::core::ffmpeg
