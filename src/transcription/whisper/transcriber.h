#pragma once

#include "transcription/whisper/decoding.h"
#include "transcription/whisper/frontend.h"
#include "transcription/whisper/network.h"
#include "transcription/whisper/wordtiming.h"

#include <QString>

#include <atomic>
#include <functional>
#include <optional>
#include <span>
#include <vector>

namespace qm::whisper {

struct TranscribeOptions {
    std::optional<QString> language; // a code from languageCodes(); none: detected from the first speech window
    const std::atomic<bool> *cancel = nullptr; // checked between windows and every few tokens
    std::function<void(double)> progress;      // fraction of the audio done, after each window; any thread
    unsigned seed = 0;                         // for the sampling temperatures
    // Off: windows and segments follow the timestamps alone, without words (to measure what word timing costs).
    bool wordTimes = true;
};

struct TimedText {
    double start = 0;              // seconds; the first word's start when there are words
    double end = 0;                // the last word's end when there are words
    QString text;                  // trimmed, never empty
    std::vector<WordTiming> words; // empty when the model has no alignment heads
};

struct Transcription {
    std::vector<TimedText> segments;
    QString language; // the code used; empty for an English-only model
    bool cancelled = false;
};

// Whisper's long-form transcription of 16 kHz mono audio: 30-second windows, each decoded greedily and again
// at higher temperatures when the result is repetitive or improbable, conditioned on the text so far, moved on
// by the last complete timestamp. Windows without sound and
// windows the model judges silent give nothing. A window that would start with more than a second unheard starts
// just before the sound instead. Each segment gets word times from the model's alignment heads, fitted to the
// sound, and is trimmed to its words.
// Blocks the calling thread; the network uses as many threads as the processor has cores.
Transcription transcribe(Session &session, std::span<const float> samples, const TranscribeOptions &options);
// The same from the recording's spectrogram (logMelSpectrogram with the network's filters), for callers that free
// the samples first: an hour of them is about 230 MB, the spectrogram half that.
Transcription transcribe(Session &session, const LogMel &mel, const TranscribeOptions &options);

// Decodes the window already encoded in `session` at `temperature`, after `prompt` (earlier tokens, of which
// the last 223 are used). The start sequence is [start of transcript, language, transcribe], or
// [start of transcript] for an English-only model; `language` is ignored then.
WindowResult decodeWindow(Session &session, std::span<const int> prompt, int language, double temperature,
                          std::span<const int> suppressed, unsigned seed, const std::atomic<bool> *cancel = nullptr);

// The language token the model finds likeliest for the window encoded in `session`.
int detectLanguage(Session &session);

} // namespace qm::whisper
