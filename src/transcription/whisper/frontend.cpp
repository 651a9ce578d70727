#include "transcription/whisper/frontend.h"

#include <cblas.h>

#include <algorithm>
#include <cmath>
#include <numbers>

namespace qm::whisper {

namespace {

constexpr std::int64_t kChunkFrames = 2000;

double hertzToMel(double hertz)
{
    // Linear below 1 kHz, logarithmic above: the Slaney scale.
    constexpr double linearStep = 200.0 / 3.0;
    constexpr double breakMel = 1000.0 / linearStep;
    const double logStep = std::log(6.4) / 27.0;
    return hertz < 1000.0 ? hertz / linearStep : breakMel + std::log(hertz / 1000.0) / logStep;
}

double melToHertz(double mel)
{
    constexpr double linearStep = 200.0 / 3.0;
    constexpr double breakMel = 1000.0 / linearStep;
    const double logStep = std::log(6.4) / 27.0;
    return mel < breakMel ? mel * linearStep : 1000.0 * std::exp(logStep * (mel - breakMel));
}

// Windowed cosine and sine of each spectrum bin, 400 × 402 (cos k | sin k interleaved per bin pair), so one
// matrix product turns a block of frames into their spectra.
std::vector<float> fourierBasis()
{
    std::vector<float> basis(std::size_t(kFftSize) * 2 * kSpectrumBins);
    for (int n = 0; n < kFftSize; ++n) {
        const double window = 0.5 - 0.5 * std::cos(2.0 * std::numbers::pi * n / kFftSize);
        for (int k = 0; k < kSpectrumBins; ++k) {
            // Reduce the phase exactly in integers so large n·k keeps full precision.
            const double phase = 2.0 * std::numbers::pi * double((std::int64_t(n) * k) % kFftSize) / kFftSize;
            basis[std::size_t(n) * 2 * kSpectrumBins + 2 * k] = float(window * std::cos(phase));
            basis[std::size_t(n) * 2 * kSpectrumBins + 2 * k + 1] = float(window * std::sin(phase));
        }
    }
    return basis;
}

} // namespace

std::vector<float> slaneyMelFilters(int bins)
{
    std::vector<float> filters(std::size_t(bins) * kSpectrumBins, 0.0f);
    const double top = hertzToMel(kSampleRate / 2.0);
    std::vector<double> edges(std::size_t(bins) + 2);
    for (std::size_t i = 0; i < edges.size(); ++i)
        edges[i] = melToHertz(top * double(i) / double(bins + 1));
    for (int m = 0; m < bins; ++m) {
        const double low = edges[std::size_t(m)], centre = edges[std::size_t(m) + 1], high = edges[std::size_t(m) + 2];
        const double area = 2.0 / (high - low);
        for (int k = 0; k < kSpectrumBins; ++k) {
            const double hertz = double(k) * kSampleRate / kFftSize;
            const double rising = (hertz - low) / (centre - low);
            const double falling = (high - hertz) / (high - centre);
            filters[std::size_t(m) * kSpectrumBins + std::size_t(k)] =
                float(std::max(0.0, std::min(rising, falling)) * area);
        }
    }
    return filters;
}

LogMel logMelSpectrogram(std::span<const float> samples, std::span<const float> filters, int bins)
{
    // The recording is followed by one window of silence, as the network saw in training, and the whole is
    // reflect-padded by half an analysis window at each end; the final frame is dropped.
    const std::int64_t count = std::int64_t(samples.size()) + std::int64_t(kWindowFrames) * kHop;
    const std::int64_t half = kFftSize / 2;
    const auto sampleAt = [&](std::int64_t i) -> float {
        if (i < 0)
            i = -i;
        else if (i >= count)
            i = 2 * (count - 1) - i;
        return i < std::int64_t(samples.size()) ? samples[std::size_t(i)] : 0.0f;
    };

    LogMel mel;
    mel.bins = bins;
    mel.frames = std::int64_t(samples.size()) / kHop;
    const std::int64_t total = count / kHop;
    mel.values.resize(std::size_t(total) * std::size_t(bins));
    mel.peaks.assign(std::size_t(mel.frames), 0.0f);
    for (std::size_t i = 0; i < std::size_t(mel.frames) * kHop; ++i)
        mel.peaks[i / kHop] = std::max(mel.peaks[i / kHop], std::fabs(samples[i]));

    const std::vector<float> basis = fourierBasis();
    std::vector<float> frames(std::size_t(kChunkFrames) * kFftSize);
    std::vector<float> spectra(std::size_t(kChunkFrames) * 2 * kSpectrumBins);
    std::vector<float> power(std::size_t(kChunkFrames) * kSpectrumBins);
    for (std::int64_t first = 0; first < total; first += kChunkFrames) {
        const std::int64_t n = std::min(kChunkFrames, total - first);
        for (std::int64_t t = 0; t < n; ++t) {
            const std::int64_t start = (first + t) * kHop - half;
            float *row = frames.data() + t * kFftSize;
            if (start >= 0 && start + kFftSize <= std::int64_t(samples.size())) {
                std::copy_n(samples.data() + start, kFftSize, row);
            } else {
                for (int j = 0; j < kFftSize; ++j)
                    row[j] = sampleAt(start + j);
            }
        }
        cblas_sgemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, int(n), 2 * kSpectrumBins, kFftSize, 1.0f, frames.data(),
                    kFftSize, basis.data(), 2 * kSpectrumBins, 0.0f, spectra.data(), 2 * kSpectrumBins);
        for (std::int64_t i = 0; i < n * kSpectrumBins; ++i)
            power[std::size_t(i)] = spectra[std::size_t(2 * i)] * spectra[std::size_t(2 * i)] +
                                    spectra[std::size_t(2 * i + 1)] * spectra[std::size_t(2 * i + 1)];
        cblas_sgemm(CblasRowMajor, CblasNoTrans, CblasTrans, int(n), bins, kSpectrumBins, 1.0f, power.data(),
                    kSpectrumBins, filters.data(), kSpectrumBins, 0.0f, mel.values.data() + first * bins, bins);
    }

    float largest = -std::numeric_limits<float>::infinity();
    for (float &v : mel.values) {
        v = std::log10(std::max(v, 1e-10f));
        largest = std::max(largest, v);
    }
    for (float &v : mel.values)
        v = (std::max(v, largest - 8.0f) + 4.0f) / 4.0f;
    return mel;
}

} // namespace qm::whisper
