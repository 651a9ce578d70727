#pragma once

#include <QString>

#include <memory>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/audio_fifo.h>
#include <libswresample/swresample.h>
}

namespace qm::ff {

// Owners for FFmpeg's handles, so every exit path releases them.
struct InputCloser {
    void operator()(AVFormatContext *context) const { avformat_close_input(&context); }
};
struct OutputCloser {
    void operator()(AVFormatContext *context) const
    {
        if (context && context->pb && !(context->oformat->flags & AVFMT_NOFILE))
            avio_closep(&context->pb);
        avformat_free_context(context);
    }
};
struct CodecFree {
    void operator()(AVCodecContext *context) const { avcodec_free_context(&context); }
};
struct FrameFree {
    void operator()(AVFrame *frame) const { av_frame_free(&frame); }
};
struct PacketFree {
    void operator()(AVPacket *packet) const { av_packet_free(&packet); }
};
struct ResamplerFree {
    void operator()(SwrContext *context) const { swr_free(&context); }
};

using InputPtr = std::unique_ptr<AVFormatContext, InputCloser>;
using OutputPtr = std::unique_ptr<AVFormatContext, OutputCloser>;
using CodecPtr = std::unique_ptr<AVCodecContext, CodecFree>;
using FramePtr = std::unique_ptr<AVFrame, FrameFree>;
using PacketPtr = std::unique_ptr<AVPacket, PacketFree>;
using ResamplerPtr = std::unique_ptr<SwrContext, ResamplerFree>;

// FFmpeg's own words for an error code.
inline QString errorText(int code)
{
    char buffer[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(code, buffer, sizeof buffer);
    return QString::fromUtf8(buffer);
}

// Opens a media file and reads its stream information. Null on failure, with FFmpeg's reason in `error`.
inline InputPtr openInput(const QString &path, QString *error = nullptr)
{
    AVFormatContext *raw = nullptr;
    int result = avformat_open_input(&raw, path.toUtf8().constData(), nullptr, nullptr);
    InputPtr input(raw);
    if (result >= 0)
        result = avformat_find_stream_info(input.get(), nullptr);
    if (result < 0) {
        if (error)
            *error = errorText(result);
        return nullptr;
    }
    return input;
}

} // namespace qm::ff
