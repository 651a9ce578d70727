#include "capture/ffmpeg/audioencoding.h"

#include <algorithm>
#include <cmath>

namespace qm::ff {

expected<CodecPtr, QString> openAudioEncoder(const AudioSettings &settings, const AVOutputFormat *format, bool live)
{
    const bool alac = settings.codec == AudioSettings::Codec::alac;
    const AVCodec *codec = avcodec_find_encoder(alac ? AV_CODEC_ID_ALAC : AV_CODEC_ID_AAC);
    if (!codec)
        return unexpected(QStringLiteral("no audio encoder"));
    CodecPtr context(avcodec_alloc_context3(codec));
    AVCodecContext *c = context.get();
    c->sample_rate = settings.sampleRate;
    av_channel_layout_default(&c->ch_layout, settings.channels);
    c->sample_fmt = alac ? AV_SAMPLE_FMT_S32P : AV_SAMPLE_FMT_FLTP;
    if (alac)
        c->bits_per_raw_sample = settings.bitDepthHint.value_or(24);
    if (settings.bitRate)
        c->bit_rate = *settings.bitRate;
    c->time_base = AVRational{1, settings.sampleRate};
    if (format->flags & AVFMT_GLOBALHEADER)
        c->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    AVDictionary *options = nullptr;
    if (live && !alac)
        av_dict_set(&options, "aac_coder", "fast", 0);
    const int result = avcodec_open2(c, codec, &options);
    av_dict_free(&options);
    if (result < 0)
        return unexpected(errorText(result));
    return context;
}

QString fillAudioFrame(AVFrame *frame, const AVCodecContext *encoder, const float *interleaved, int count)
{
    av_frame_unref(frame);
    frame->nb_samples = count;
    frame->format = encoder->sample_fmt;
    frame->sample_rate = encoder->sample_rate;
    av_channel_layout_copy(&frame->ch_layout, &encoder->ch_layout);
    const int result = av_frame_get_buffer(frame, 0);
    if (result < 0)
        return errorText(result);
    const int channels = encoder->ch_layout.nb_channels;
    for (int ch = 0; ch < channels; ++ch) {
        if (encoder->sample_fmt == AV_SAMPLE_FMT_FLTP) {
            auto *plane = reinterpret_cast<float *>(frame->extended_data[ch]);
            for (int i = 0; i < count; ++i)
                plane[i] = interleaved[i * channels + ch];
        } else {
            // 24 significant bits in a 32-bit sample: the low byte stays clear.
            auto *plane = reinterpret_cast<std::int32_t *>(frame->extended_data[ch]);
            for (int i = 0; i < count; ++i) {
                const double sample = std::clamp(double(interleaved[i * channels + ch]), -1.0, 1.0);
                plane[i] = std::int32_t(std::lrint(sample * 2147483392.0)) & ~0xFF;
            }
        }
    }
    return {};
}

} // namespace qm::ff
