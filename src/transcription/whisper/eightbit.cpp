#include "transcription/whisper/eightbit.h"

#include "transcription/whisper/kernels.h"
#include "transcription/whisper/vectorclones.h"

#include <dnnl.h>
#include <omp.h>

#include <algorithm>
#include <cmath>

namespace qm::whisper::eightbit {

namespace {

// Rows per library call: the 8-bit inputs and 32-bit sums of a block stay in the second-level cache.
constexpr std::size_t kBlockRows = 128;
constexpr std::size_t kLanes = 16;

// Each input row is mapped onto 0…255 from its own lowest to its highest value, not symmetrically around
// zero: after a GELU nearly all the range is positive, and a symmetric code would waste half its steps.
struct Range {
    float low = 0;
    float step = 1;
};

QM_VECTOR_CLONES Range rangeOf(const float *x, std::size_t count)
{
    float lows[kLanes], highs[kLanes];
    for (std::size_t j = 0; j < kLanes; ++j)
        lows[j] = highs[j] = count > 0 ? x[0] : 0.0f;
    std::size_t i = 0;
    for (; i + kLanes <= count; i += kLanes)
        for (std::size_t j = 0; j < kLanes; ++j) {
            lows[j] = lows[j] < x[i + j] ? lows[j] : x[i + j];
            highs[j] = highs[j] > x[i + j] ? highs[j] : x[i + j];
        }
    for (; i < count; ++i) {
        lows[0] = std::min(lows[0], x[i]);
        highs[0] = std::max(highs[0], x[i]);
    }
    const float low = *std::min_element(lows, lows + kLanes), high = *std::max_element(highs, highs + kLanes);
    return Range{low, high > low ? (high - low) / 255.0f : 1.0f};
}

// Rounds (x − offset) / step to the nearest code, in a form the compiler vectorises.
QM_VECTOR_CLONES void toCodes(const float *x, std::size_t count, float offset, float inverseStep, std::uint8_t *codes)
{
    for (std::size_t i = 0; i < count; ++i)
        codes[i] = std::uint8_t(int((x[i] - offset) * inverseStep + 0.5f));
}

// Σ wᵢxᵢ ≈ Σ wᵢ(low + step·codeᵢ) = step·Σ wᵢcodeᵢ + low·Σ wᵢ, with each weight row's own scale.
QM_VECTOR_CLONES void addScaled(const std::int32_t *sums, std::size_t count, Range range, const float *scales,
                                const std::int32_t *weightSums, float *y)
{
    for (std::size_t i = 0; i < count; ++i)
        y[i] += (float(sums[i]) * range.step + float(weightSums[i]) * range.low) * scales[i];
}

void productsOf(const std::uint8_t *codes, std::size_t rows, const kernels::QuantizedRows &weight, std::int32_t *sums)
{
    const std::int32_t noOffset = 0;
    const auto out = dnnl_dim_t(weight.rows), in = dnnl_dim_t(weight.columns);
    dnnl_gemm_u8s8s32('N', 'T', 'F', dnnl_dim_t(rows), out, in, 1.0f, codes, in, 0, weight.codes.data(), in, 0, 0.0f,
                      sums, out, &noOffset);
}

// Small products with known answers: a library that can't run here must not be trusted with a window. The
// second saturates 16-bit pair sums (255·127 twice), which 8-bit paths without VNNI use.
bool selfCheck()
{
    kernels::QuantizedRows m;
    m.codes = {5, -7, 127, 127};
    m.rows = m.columns = 2;
    const std::uint8_t codes[4] = {203, 2, 255, 255};
    std::int32_t sums[4] = {};
    productsOf(codes, 2, m, sums);
    return sums[0] == 203 * 5 + 2 * -7 && sums[1] == 203 * 127 + 2 * 127 && sums[2] == 255 * 5 + 255 * -7 &&
           sums[3] == 2 * 255 * 127;
}

} // namespace

bool available()
{
#if defined(__x86_64__)
    __builtin_cpu_init();
    static const bool has = (__builtin_cpu_supports("avx512vnni") || __builtin_cpu_supports("avxvnni")) && selfCheck();
    return has;
#else
    return false;
#endif
}

void accumulate(const float *x, std::size_t rows, const kernels::QuantizedRows &weight, float *y)
{
    // The library would otherwise start its own team of threads inside each of ours.
    thread_local const bool single = (omp_set_num_threads(1), true);
    (void)single;

    const std::size_t in = weight.columns, out = weight.rows;
    thread_local std::vector<std::uint8_t> codes;
    thread_local std::vector<Range> ranges;
    thread_local std::vector<std::int32_t> sums;
    codes.resize(kBlockRows * in);
    ranges.resize(kBlockRows);
    sums.resize(kBlockRows * out);

    for (std::size_t first = 0; first < rows; first += kBlockRows) {
        const std::size_t count = std::min(kBlockRows, rows - first);
        for (std::size_t r = 0; r < count; ++r) {
            const float *row = x + (first + r) * in;
            ranges[r] = rangeOf(row, in);
            toCodes(row, in, ranges[r].low, 1.0f / ranges[r].step, codes.data() + r * in);
        }
        productsOf(codes.data(), count, weight, sums.data());
        for (std::size_t r = 0; r < count; ++r)
            addScaled(sums.data() + r * out, out, ranges[r], weight.scales.data(), weight.sums.data(),
                      y + (first + r) * out);
    }
}

} // namespace qm::whisper::eightbit
