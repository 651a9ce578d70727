#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace qm::whisper {

constexpr int kSampleRate = 16000;  // the network hears 16 kHz mono
constexpr int kHop = 160;           // samples between frames: 100 frames a second
constexpr int kFftSize = 400;       // 25 ms analysis window
constexpr int kSpectrumBins = 201;  // kFftSize / 2 + 1
constexpr int kWindowFrames = 3000; // one 30-second window of the encoder

// A whole recording's log-mel spectrogram, normalised as the network was trained: log10 of the mel power
// floored at 1e-10, raised to (largest − 8) over the whole recording, then (x + 4) / 4.
//
// Frames are stored time-major (`bins` values per frame). `frames` counts the recording's own frames
// (samples / 160); one window of trailing silence follows them, so any window starting before `frames` can
// be read whole.
struct LogMel {
    int bins = 0;
    std::int64_t frames = 0;
    std::vector<float> values; // (frames + kWindowFrames) × bins
    std::vector<float> peaks;  // `frames` values: the loudest |sample| among each frame's 160 new samples

    const float *frame(std::int64_t index) const { return values.data() + index * bins; }
};

// Slaney-style mel filters (area-normalised triangles on the Slaney mel scale, 0–8 kHz) as `bins` × 201
// weights over the power spectrum's bins; what models that don't carry their own filters were trained with.
std::vector<float> slaneyMelFilters(int bins);

// `samples` are 16 kHz mono in −1…1. `filters` are `bins` × 201. Blocks; uses the BLAS threads.
LogMel logMelSpectrogram(std::span<const float> samples, std::span<const float> filters, int bins);

} // namespace qm::whisper
