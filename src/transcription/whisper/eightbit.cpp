#include "transcription/whisper/eightbit.h"

#include "transcription/whisper/kernels.h"

#include <dnnl.h>
#include <omp.h>

#include <algorithm>
#include <cmath>

// The per-row scaling loops are built for several instruction sets, like the network's element-wise kernels.
#if defined(__x86_64__) && !defined(__clang__) && !defined(__SANITIZE_ADDRESS__)
#define QM_VECTOR_CLONES __attribute__((target_clones("avx512f", "avx2", "default")))
#else
#define QM_VECTOR_CLONES
#endif

namespace qm::whisper::eightbit {

namespace {

// Rows per library call: the 8-bit inputs and 32-bit sums of a block stay in the second-level cache.
constexpr std::size_t kBlockRows = 128;
constexpr int kZero = 128; // inputs are stored as unsigned bytes around this

float rowScale(const float *row, std::size_t count)
{
    const float largest = kernels::absoluteMax(row, count);
    return largest > 0 ? largest / 127.0f : 1.0f;
}

// Rounds half away from zero and adds `zero`, in a form the compiler vectorises; the bytes are the two's
// complement codes when `zero` is 0.
QM_VECTOR_CLONES void toCodes(const float *row, std::size_t count, float inverse, int zero, std::uint8_t *codes)
{
    for (std::size_t i = 0; i < count; ++i) {
        const float v = row[i] * inverse;
        codes[i] = std::uint8_t(int(v + (v >= 0 ? 0.5f : -0.5f)) + zero);
    }
}

QM_VECTOR_CLONES void addScaled(const std::int32_t *sums, std::size_t count, float scale, const float *scales, float *y)
{
    for (std::size_t i = 0; i < count; ++i)
        y[i] += float(sums[i]) * scale * scales[i];
}

// One tiny product with a known answer: a library that can't run here (or reads its offsets the other way)
// must not be trusted with a window.
bool selfCheck()
{
    const std::uint8_t a[2] = {kZero + 3, kZero - 2};
    const std::int8_t b[4] = {5, -7, 1, 2};
    std::int32_t c[2] = {};
    const std::int32_t noOffset = 0;
    const dnnl_status_t status =
        dnnl_gemm_u8s8s32('N', 'T', 'F', 1, 2, 2, 1.0f, a, 2, kZero, b, 2, 0, 0.0f, c, 2, &noOffset);
    return status == dnnl_success && c[0] == 3 * 5 + -2 * -7 && c[1] == 3 * 1 + -2 * 2;
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

Matrix quantize(const std::vector<float> &weight, int out, int in)
{
    Matrix m;
    m.out = out;
    m.in = in;
    const std::size_t columns = std::size_t(in);
    m.codes.resize(std::size_t(out) * columns);
    m.scales.resize(std::size_t(out));
    for (std::size_t r = 0; r < std::size_t(out); ++r) {
        const float *row = weight.data() + r * columns;
        m.scales[r] = rowScale(row, columns);
        toCodes(row, columns, 1.0f / m.scales[r], 0, reinterpret_cast<std::uint8_t *>(m.codes.data() + r * columns));
    }
    return m;
}

void accumulate(const float *x, std::size_t rows, const Matrix &weight, float *y)
{
    // The library would otherwise start its own team of threads inside each of ours.
    thread_local const bool single = (omp_set_num_threads(1), true);
    (void)single;

    const std::size_t in = std::size_t(weight.in), out = std::size_t(weight.out);
    thread_local std::vector<std::uint8_t> codes;
    thread_local std::vector<float> scales;
    thread_local std::vector<std::int32_t> sums;
    codes.resize(kBlockRows * in);
    scales.resize(kBlockRows);
    sums.resize(kBlockRows * out);
    const std::int32_t noOffset = 0;

    for (std::size_t first = 0; first < rows; first += kBlockRows) {
        const std::size_t count = std::min(kBlockRows, rows - first);
        for (std::size_t r = 0; r < count; ++r) {
            const float *row = x + (first + r) * in;
            scales[r] = rowScale(row, in);
            toCodes(row, in, 1.0f / scales[r], kZero, codes.data() + r * in);
        }
        dnnl_gemm_u8s8s32('N', 'T', 'F', dnnl_dim_t(count), dnnl_dim_t(out), dnnl_dim_t(in), 1.0f, codes.data(),
                          dnnl_dim_t(in), std::uint8_t(kZero), weight.codes.data(), dnnl_dim_t(in), 0, 0.0f,
                          sums.data(), dnnl_dim_t(out), &noOffset);
        for (std::size_t r = 0; r < count; ++r)
            addScaled(sums.data() + r * out, out, scales[r], weight.scales.data(), y + (first + r) * out);
    }
}

} // namespace qm::whisper::eightbit
