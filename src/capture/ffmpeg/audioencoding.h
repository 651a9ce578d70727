#pragma once

#include "capture/audiosettings.h"
#include "capture/ffmpeg/ffmpegptr.h"
#include "library/result.h"

namespace qm::ff {

// An opened AAC or ALAC encoder for `settings`, ready for a muxer of `format`. `live` trades a little AAC
// efficiency for half the CPU, for tracks encoded while a meeting is being recorded.
expected<CodecPtr, QString> openAudioEncoder(const AudioSettings &settings, const AVOutputFormat *format,
                                             bool live = false);

// Makes `frame` hold `count` frames of interleaved float audio in the encoder's own sample layout (planar
// float for AAC; planar 32-bit integers, clipped, for ALAC). Empty text on success, else FFmpeg's reason.
QString fillAudioFrame(AVFrame *frame, const AVCodecContext *encoder, const float *interleaved, int count);

} // namespace qm::ff
