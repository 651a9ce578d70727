#include "transcription/whisper/kernels.h"

#include "transcription/whisper/vectorclones.h"

#include <immintrin.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>
#include <numeric>
#include <vector>

namespace qm::whisper::kernels {

namespace {

constexpr float kLog2e = 1.44269504088896341f;
constexpr float kLn2High = 0.693359375f;
constexpr float kLn2Low = -2.12194440e-4f;
constexpr float kRoundMagic = 12582912.0f; // 1.5 · 2^23: adding and subtracting it rounds to an integer

// e^x to about 2e-7 relative error; 0 below −87 (so −∞ gives exactly 0). Branch-free so loops vectorise.
#define QM_INLINE inline __attribute__((always_inline))

QM_INLINE float fastExp(float x)
{
    const bool tiny = x < -87.0f;
    x = x < -87.0f ? -87.0f : (x > 88.0f ? 88.0f : x);
    const float n = (x * kLog2e + kRoundMagic) - kRoundMagic;
    const float r = x - n * kLn2High - n * kLn2Low;
    float p = 1.0f / 720.0f;
    p = p * r + 1.0f / 120.0f;
    p = p * r + 1.0f / 24.0f;
    p = p * r + 1.0f / 6.0f;
    p = p * r + 0.5f;
    p = p * r + 1.0f;
    p = p * r + 1.0f;
    const float scale = __builtin_bit_cast(float, (static_cast<std::int32_t>(n) + 127) << 23);
    return tiny ? 0.0f : p * scale;
}

// erf through Abramowitz and Stegun 7.1.26 (absolute error below 1.5e-7).
QM_INLINE float fastErf(float x)
{
    const float a = __builtin_fabsf(x);
    const float t = 1.0f / (1.0f + 0.3275911f * a);
    float p = 1.061405429f;
    p = p * t - 1.453152027f;
    p = p * t + 1.421413741f;
    p = p * t - 0.284496736f;
    p = p * t + 0.254829592f;
    const float y = 1.0f - p * t * fastExp(-a * a);
    return __builtin_copysignf(y, x);
}

// Reductions keep 16 running lanes so they vectorise without reordering permission from the compiler.
constexpr std::size_t kLanes = 16;

QM_VECTOR_CLONES float rowMax(const float *x, std::size_t count)
{
    float lanes[kLanes];
    for (float &lane : lanes)
        lane = -std::numeric_limits<float>::infinity();
    std::size_t i = 0;
    for (; i + kLanes <= count; i += kLanes)
        for (std::size_t j = 0; j < kLanes; ++j)
            lanes[j] = lanes[j] > x[i + j] ? lanes[j] : x[i + j];
    for (; i < count; ++i)
        lanes[0] = lanes[0] > x[i] ? lanes[0] : x[i];
    float best = lanes[0];
    for (float lane : lanes)
        best = best > lane ? best : lane;
    return best;
}

QM_VECTOR_CLONES float rowSum(const float *x, std::size_t count)
{
    float lanes[kLanes] = {};
    std::size_t i = 0;
    for (; i + kLanes <= count; i += kLanes)
        for (std::size_t j = 0; j < kLanes; ++j)
            lanes[j] += x[i + j];
    for (; i < count; ++i)
        lanes[0] += x[i];
    float sum = 0;
    for (float lane : lanes)
        sum += lane;
    return sum;
}

QM_VECTOR_CLONES void expShift(float *x, std::size_t count, float scale, float shift)
{
    for (std::size_t i = 0; i < count; ++i)
        x[i] = fastExp(x[i] * scale - shift);
}

float expShiftSum(float *x, std::size_t count, float scale, float shift)
{
    expShift(x, count, scale, shift);
    return rowSum(x, count);
}

QM_VECTOR_CLONES void multiply(float *x, std::size_t count, float factor)
{
    for (std::size_t i = 0; i < count; ++i)
        x[i] *= factor;
}

void scaledSoftmax(float *row, std::size_t count, float scale)
{
    const float top = rowMax(row, count) * scale;
    if (!std::isfinite(top)) {
        std::fill(row, row + count, 0.0f);
        return;
    }
    const float sum = expShiftSum(row, count, scale, top);
    multiply(row, count, 1.0f / sum);
}

// Round half away from zero, in a form the compiler vectorises.
QM_VECTOR_CLONES void roundToBytes(const float *x, std::size_t count, float inverse, std::int8_t *codes)
{
    for (std::size_t i = 0; i < count; ++i) {
        const float v = x[i] * inverse;
        codes[i] = std::int8_t(v + (v >= 0 ? 0.5f : -0.5f));
    }
}

QM_VECTOR_CLONES void roundToShorts(const float *x, std::size_t count, float inverse, std::int16_t *codes)
{
    for (std::size_t i = 0; i < count; ++i) {
        const float v = x[i] * inverse;
        codes[i] = std::int16_t(v + (v >= 0 ? 0.5f : -0.5f));
    }
}

} // namespace

float halfToFloat(std::uint16_t half)
{
    const std::uint32_t sign = std::uint32_t(half & 0x8000u) << 16;
    const std::uint32_t exponent = (half >> 10) & 0x1fu;
    const std::uint32_t mantissa = half & 0x3ffu;
    if (exponent == 0) {
        // Zero or subnormal: mantissa · 2^-24.
        const float magnitude = float(mantissa) * 5.9604644775390625e-8f;
        return sign ? -magnitude : magnitude;
    }
    if (exponent == 31)
        return std::bit_cast<float>(sign | 0x7f800000u | (mantissa << 13));
    return std::bit_cast<float>(sign | ((exponent + 112u) << 23) | (mantissa << 13));
}

std::uint16_t floatToHalf(float value)
{
    const std::uint32_t bits = std::bit_cast<std::uint32_t>(value);
    const std::uint32_t sign = (bits >> 16) & 0x8000u;
    const std::uint32_t magnitude = bits & 0x7fffffffu;
    if (magnitude >= 0x7f800000u) // infinity or NaN
        return std::uint16_t(sign | 0x7c00u | (magnitude > 0x7f800000u ? 0x200u : 0u));
    if (magnitude >= 0x477ff000u) // rounds past the largest half
        return std::uint16_t(sign | 0x7c00u);
    if (magnitude < 0x38800000u) {                                          // subnormal or zero in half precision
        const float scaled = std::bit_cast<float>(magnitude) * 16777216.0f; // in units of 2^-24
        return std::uint16_t(sign | std::uint32_t(std::nearbyint(scaled)));
    }
    const std::uint32_t rounded = magnitude + 0xfffu + ((magnitude >> 13) & 1u);
    return std::uint16_t(sign | ((rounded - 0x38000000u) >> 13));
}

std::vector<std::uint16_t> toHalf(const std::vector<float> &values)
{
    std::vector<std::uint16_t> out(values.size());
    toHalf(values.data(), out.data(), values.size());
    return out;
}

// GCC 12 warns about its own AVX-512 conversion and reduction intrinsics (a known false positive).
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#pragma GCC diagnostic ignored "-Wuninitialized"

namespace {

#if defined(__x86_64__)
__attribute__((target("avx512f"))) void toHalfWide(const float *values, std::uint16_t *out, std::size_t count)
{
    std::size_t i = 0;
    for (; i + 16 <= count; i += 16)
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(out + i),
                            _mm512_cvtps_ph(_mm512_loadu_ps(values + i), _MM_FROUND_TO_NEAREST_INT));
    for (; i < count; ++i)
        out[i] = floatToHalf(values[i]);
}
#endif

} // namespace

void toHalf(const float *values, std::uint16_t *out, std::size_t count)
{
#if defined(__x86_64__)
    static const bool wide = (__builtin_cpu_init(), __builtin_cpu_supports("avx512f"));
    if (wide) {
        toHalfWide(values, out, count);
        return;
    }
#endif
    for (std::size_t i = 0; i < count; ++i)
        out[i] = floatToHalf(values[i]);
}

namespace {

#if defined(__x86_64__)
__attribute__((target("avx512f"))) void gemvHalfWide(const std::uint16_t *w, const float *x, float *y, std::size_t rows,
                                                     std::size_t columns, bool accumulate)
{
    const std::size_t body = columns / 32 * 32;
    for (std::size_t r = 0; r < rows; ++r) {
        const std::uint16_t *row = w + r * columns;
        __m512 a = _mm512_setzero_ps(), b = _mm512_setzero_ps();
        for (std::size_t i = 0; i < body; i += 32) {
            const __m256i low = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(row + i));
            const __m256i high = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(row + i + 16));
            a = _mm512_fmadd_ps(_mm512_cvtph_ps(low), _mm512_loadu_ps(x + i), a);
            b = _mm512_fmadd_ps(_mm512_cvtph_ps(high), _mm512_loadu_ps(x + i + 16), b);
        }
        float sum = _mm512_reduce_add_ps(_mm512_add_ps(a, b));
        for (std::size_t i = body; i < columns; ++i)
            sum += halfToFloat(row[i]) * x[i];
        y[r] = accumulate ? y[r] + sum : sum;
    }
}

__attribute__((target("avx2,fma,f16c"))) void gemvHalfNarrow(const std::uint16_t *w, const float *x, float *y,
                                                             std::size_t rows, std::size_t columns, bool accumulate)
{
    const std::size_t body = columns / 16 * 16;
    for (std::size_t r = 0; r < rows; ++r) {
        const std::uint16_t *row = w + r * columns;
        __m256 a = _mm256_setzero_ps(), b = _mm256_setzero_ps();
        for (std::size_t i = 0; i < body; i += 16) {
            const __m128i low = _mm_loadu_si128(reinterpret_cast<const __m128i *>(row + i));
            const __m128i high = _mm_loadu_si128(reinterpret_cast<const __m128i *>(row + i + 8));
            a = _mm256_fmadd_ps(_mm256_cvtph_ps(low), _mm256_loadu_ps(x + i), a);
            b = _mm256_fmadd_ps(_mm256_cvtph_ps(high), _mm256_loadu_ps(x + i + 8), b);
        }
        const __m256 both = _mm256_add_ps(a, b);
        __m128 folded = _mm_add_ps(_mm256_castps256_ps128(both), _mm256_extractf128_ps(both, 1));
        folded = _mm_add_ps(folded, _mm_movehl_ps(folded, folded));
        folded = _mm_add_ss(folded, _mm_movehdup_ps(folded));
        float sum = _mm_cvtss_f32(folded);
        for (std::size_t i = body; i < columns; ++i)
            sum += halfToFloat(row[i]) * x[i];
        y[r] = accumulate ? y[r] + sum : sum;
    }
}
#endif

#pragma GCC diagnostic pop

void gemvHalfPlain(const std::uint16_t *w, const float *x, float *y, std::size_t rows, std::size_t columns,
                   bool accumulate)
{
    for (std::size_t r = 0; r < rows; ++r) {
        float sum = 0;
        for (std::size_t i = 0; i < columns; ++i)
            sum += halfToFloat(w[r * columns + i]) * x[i];
        y[r] = accumulate ? y[r] + sum : sum;
    }
}

using GemvHalf = void (*)(const std::uint16_t *, const float *, float *, std::size_t, std::size_t, bool);

GemvHalf chooseGemvHalf()
{
#if defined(__x86_64__)
    __builtin_cpu_init();
    if (__builtin_cpu_supports("avx512f"))
        return gemvHalfWide;
    if (__builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma") && __builtin_cpu_supports("f16c"))
        return gemvHalfNarrow;
#endif
    return gemvHalfPlain;
}

} // namespace

void gemvHalf(const std::uint16_t *weights, const float *x, float *y, std::size_t rows, std::size_t columns,
              bool accumulate)
{
    static const GemvHalf chosen = chooseGemvHalf();
    chosen(weights, x, y, rows, columns, accumulate);
}

namespace {

// Reads row r into `row` (single precision) on request, so either source shares the coding below.
template <typename ReadRow> QuantizedRows quantizeRowsFrom(std::size_t rows, std::size_t columns, ReadRow readRow)
{
    QuantizedRows q;
    q.rows = rows;
    q.columns = columns;
    q.codes.resize(rows * columns);
    q.scales.resize(rows);
    q.absoluteSums.resize(rows);
    q.sums.resize(rows);
    std::vector<float> buffer(columns);
    for (std::size_t r = 0; r < rows; ++r) {
        const float *row = readRow(r, buffer.data());
        float sum = 0;
        for (std::size_t i = 0; i < columns; ++i)
            sum += std::fabs(row[i]);
        std::int8_t *codes = q.codes.data() + r * columns;
        q.scales[r] = roundToCodes(row, columns, codes);
        q.absoluteSums[r] = sum;
        q.sums[r] = std::accumulate(codes, codes + columns, std::int32_t(0));
    }
    return q;
}

} // namespace

QuantizedRows quantizeRows(const std::uint16_t *halfRows, std::size_t rows, std::size_t columns)
{
    return quantizeRowsFrom(rows, columns, [&](std::size_t r, float *buffer) {
        halfToFloat(halfRows + r * columns, buffer, columns);
        return static_cast<const float *>(buffer);
    });
}

QuantizedRows quantizeRows(const float *rows, std::size_t rowCount, std::size_t columns)
{
    return quantizeRowsFrom(rowCount, columns, [&](std::size_t r, float *) { return rows + r * columns; });
}

namespace {

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#pragma GCC diagnostic ignored "-Wuninitialized"

#if defined(__x86_64__)
// Products of 8-bit rows with a 16-bit vector, exact in 32-bit integers.
__attribute__((target("avx512f,avx512bw"))) void dotQuantizedWide(const std::int8_t *codes, const std::int16_t *x,
                                                                  std::int32_t *out, std::size_t rows,
                                                                  std::size_t columns)
{
    const std::size_t body = columns / 32 * 32;
    for (std::size_t r = 0; r < rows; ++r) {
        const std::int8_t *row = codes + r * columns;
        __m512i sum = _mm512_setzero_si512();
        for (std::size_t i = 0; i < body; i += 32) {
            const __m512i w = _mm512_cvtepi8_epi16(_mm256_loadu_si256(reinterpret_cast<const __m256i *>(row + i)));
            sum = _mm512_add_epi32(sum, _mm512_madd_epi16(w, _mm512_loadu_si512(x + i)));
        }
        std::int32_t total = _mm512_reduce_add_epi32(sum);
        for (std::size_t i = body; i < columns; ++i)
            total += std::int32_t(row[i]) * x[i];
        out[r] = total;
    }
}

__attribute__((target("avx2"))) void dotQuantizedNarrow(const std::int8_t *codes, const std::int16_t *x,
                                                        std::int32_t *out, std::size_t rows, std::size_t columns)
{
    const std::size_t body = columns / 16 * 16;
    for (std::size_t r = 0; r < rows; ++r) {
        const std::int8_t *row = codes + r * columns;
        __m256i sum = _mm256_setzero_si256();
        for (std::size_t i = 0; i < body; i += 16) {
            const __m256i w = _mm256_cvtepi8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i *>(row + i)));
            sum = _mm256_add_epi32(sum,
                                   _mm256_madd_epi16(w, _mm256_loadu_si256(reinterpret_cast<const __m256i *>(x + i))));
        }
        __m128i folded = _mm_add_epi32(_mm256_castsi256_si128(sum), _mm256_extracti128_si256(sum, 1));
        folded = _mm_hadd_epi32(folded, folded);
        folded = _mm_hadd_epi32(folded, folded);
        std::int32_t total = _mm_cvtsi128_si32(folded);
        for (std::size_t i = body; i < columns; ++i)
            total += std::int32_t(row[i]) * x[i];
        out[r] = total;
    }
}
#endif

#pragma GCC diagnostic pop

void dotQuantizedPlain(const std::int8_t *codes, const std::int16_t *x, std::int32_t *out, std::size_t rows,
                       std::size_t columns)
{
    for (std::size_t r = 0; r < rows; ++r) {
        std::int32_t total = 0;
        for (std::size_t i = 0; i < columns; ++i)
            total += std::int32_t(codes[r * columns + i]) * x[i];
        out[r] = total;
    }
}

// Quantizes x and writes its products with rows [first, last) to `dots`; answers x's step.
float quantizedDots(const QuantizedRows &rows, const float *x, std::size_t first, std::size_t last,
                    std::vector<std::int32_t> &dots)
{
    const std::size_t columns = rows.columns;
    // The input keeps 14 bits: layer-normalised states have a few very large components, and 8 bits would
    // blur the rest. 2048 pairs of 8-bit × 14-bit products still fit a 32-bit sum.
    const float largest = absoluteMax(x, columns);
    const float scale = largest > 0 ? largest / 8191.0f : 1.0f;
    thread_local std::vector<std::int16_t> codes;
    codes.resize(columns);
    dots.resize(last - first);
    roundToShorts(x, columns, 1.0f / scale, codes.data());

    using Dots = void (*)(const std::int8_t *, const std::int16_t *, std::int32_t *, std::size_t, std::size_t);
    static const Dots chosen = []() -> Dots {
#if defined(__x86_64__)
        __builtin_cpu_init();
        if (__builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw"))
            return dotQuantizedWide;
        if (__builtin_cpu_supports("avx2"))
            return dotQuantizedNarrow;
#endif
        return dotQuantizedPlain;
    }();
    chosen(rows.codes.data() + first * columns, codes.data(), dots.data(), last - first, columns);
    return scale;
}

} // namespace

void gemvQuantized(const QuantizedRows &rows, const float *x, float *estimate, float *error, std::size_t first,
                   std::size_t last)
{
    last = std::min(last, rows.rows);
    if (first >= last)
        return;
    thread_local std::vector<std::int32_t> dots;
    const float scale = quantizedDots(rows, x, first, last, dots);
    float absoluteSum = 0;
    for (std::size_t i = 0; i < rows.columns; ++i)
        absoluteSum += std::fabs(x[i]);

    // Each weight is off by at most half its row's step and each input by half of x's step; a little slack
    // covers the rounding of the float arithmetic here and in the exact product.
    for (std::size_t r = first; r < last; ++r) {
        const float rowScale = rows.scales[r];
        estimate[r] = float(dots[r - first]) * rowScale * scale;
        error[r] = (0.5f * rowScale * absoluteSum +
                    0.5f * scale * (rows.absoluteSums[r] + 0.5f * rowScale * float(rows.columns))) *
                       1.01f +
                   1e-4f;
    }
}

void gemvEightBit(const QuantizedRows &rows, const float *x, float *y, std::size_t first, std::size_t last)
{
    last = std::min(last, rows.rows);
    if (first >= last)
        return;
    thread_local std::vector<std::int32_t> dots;
    const float scale = quantizedDots(rows, x, first, last, dots);
    for (std::size_t r = first; r < last; ++r)
        y[r] += float(dots[r - first]) * rows.scales[r] * scale;
}

void halfToFloat(const std::uint16_t *half, float *out, std::size_t count)
{
    for (std::size_t i = 0; i < count; ++i)
        out[i] = halfToFloat(half[i]);
}

void softmax(float *row, std::size_t count)
{
    scaledSoftmax(row, count, 1.0f);
}

void scaledSoftmaxRows(float *rows, std::size_t rowCount, std::size_t count, std::size_t stride, float scale,
                       bool causal)
{
    for (std::size_t r = 0; r < rowCount; ++r) {
        float *row = rows + r * stride;
        const std::size_t used = causal ? count - (rowCount - 1 - r) : count;
        scaledSoftmax(row, used, scale);
        std::fill(row + used, row + count, 0.0f);
    }
}

QM_VECTOR_CLONES void gelu(float *x, std::size_t count)
{
    for (std::size_t i = 0; i < count; ++i)
        x[i] = 0.5f * x[i] * (1.0f + fastErf(x[i] * 0.70710678118654752f));
}

namespace {

QM_VECTOR_CLONES float squaredDeviation(const float *x, std::size_t count, float mean)
{
    float lanes[kLanes] = {};
    std::size_t i = 0;
    for (; i + kLanes <= count; i += kLanes)
        for (std::size_t j = 0; j < kLanes; ++j)
            lanes[j] += (x[i + j] - mean) * (x[i + j] - mean);
    for (; i < count; ++i)
        lanes[0] += (x[i] - mean) * (x[i] - mean);
    float sum = 0;
    for (float lane : lanes)
        sum += lane;
    return sum;
}

QM_VECTOR_CLONES void normalise(const float *x, float *out, std::size_t count, float mean, float inverse,
                                const float *gain, const float *bias)
{
    for (std::size_t i = 0; i < count; ++i)
        out[i] = (x[i] - mean) * inverse * gain[i] + bias[i];
}

QM_VECTOR_CLONES float shiftedExpSum(const float *x, std::size_t count, float shift)
{
    float lanes[kLanes] = {};
    std::size_t i = 0;
    for (; i + kLanes <= count; i += kLanes)
        for (std::size_t j = 0; j < kLanes; ++j)
            lanes[j] += fastExp(x[i + j] - shift);
    for (; i < count; ++i)
        lanes[0] += fastExp(x[i] - shift);
    float sum = 0;
    for (float lane : lanes)
        sum += lane;
    return sum;
}

} // namespace

float roundToCodes(const float *x, std::size_t count, std::int8_t *codes)
{
    const float largest = absoluteMax(x, count);
    const float scale = largest > 0 ? largest / 127.0f : 1.0f;
    roundToBytes(x, count, 1.0f / scale, codes);
    return scale;
}

QM_VECTOR_CLONES float absoluteMax(const float *x, std::size_t count)
{
    float lanes[kLanes] = {};
    std::size_t i = 0;
    for (; i + kLanes <= count; i += kLanes)
        for (std::size_t j = 0; j < kLanes; ++j)
            lanes[j] = lanes[j] > std::fabs(x[i + j]) ? lanes[j] : std::fabs(x[i + j]);
    for (; i < count; ++i)
        lanes[0] = lanes[0] > std::fabs(x[i]) ? lanes[0] : std::fabs(x[i]);
    float best = 0;
    for (float lane : lanes)
        best = best > lane ? best : lane;
    return best;
}

void layerNorm(const float *x, float *out, std::size_t count, const float *gain, const float *bias)
{
    const float mean = rowSum(x, count) / float(count);
    const float inverse = 1.0f / std::sqrt(squaredDeviation(x, count, mean) / float(count) + 1e-5f);
    normalise(x, out, count, mean, inverse, gain, bias);
}

QM_VECTOR_CLONES void add(float *x, const float *y, std::size_t count)
{
    for (std::size_t i = 0; i < count; ++i)
        x[i] += y[i];
}

void broadcastRows(float *out, const float *bias, std::size_t rows, std::size_t count)
{
    for (std::size_t r = 0; r < rows; ++r)
        std::copy(bias, bias + count, out + r * count);
}

std::size_t argmax(const float *x, std::size_t count)
{
    std::size_t best = 0;
    for (std::size_t i = 1; i < count; ++i)
        if (x[i] > x[best])
            best = i;
    return best;
}

float logSumExp(const float *x, std::size_t count)
{
    const float top = rowMax(x, count);
    if (!std::isfinite(top))
        return top;
    return top + std::log(shiftedExpSum(x, count, top));
}

} // namespace qm::whisper::kernels
