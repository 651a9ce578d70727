#pragma once

#include "library/result.h"

#include <QString>

#include <vector>

namespace qm::whisper {

// Any audio file FFmpeg reads (the speech export is AAC in MPEG-4), decoded, mixed down to mono and resampled
// to 16 kHz, as floats in −1…1. Blocks; call it off the main thread. The error is FFmpeg's reason.
expected<std::vector<float>, QString> readSpeechAudio(const QString &path);

} // namespace qm::whisper
