#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

// Element-wise arithmetic of the network that the BLAS library doesn't cover. Each function is built for several
// instruction sets and picks the best one the processor has when the program starts. Pointers may not alias
// unless a function says so; every count is in floats.
namespace qm::whisper::kernels {

// Half precision (IEEE 754 binary16, as stored in model files) to single precision.
float halfToFloat(std::uint16_t half);
void halfToFloat(const std::uint16_t *half, float *out, std::size_t count);

// Single to half precision, rounding to nearest even; out-of-range values become ±∞.
std::uint16_t floatToHalf(float value);
std::vector<std::uint16_t> toHalf(const std::vector<float> &values);
void toHalf(const float *values, std::uint16_t *out, std::size_t count);

// y ← W·x for W of `rows` × `columns` half-precision values, row-major; with `accumulate`, y ← y + W·x.
// What one decoding step spends its time on: the weights stream from memory once, at half the bytes.
void gemvHalf(const std::uint16_t *weights, const float *x, float *y, std::size_t rows, std::size_t columns,
              bool accumulate);

// A matrix's rows in 8 bits, each scaled to ±127 on its own: row r ≈ scales[r] · codes[r]. The same rows
// serve products with one input here and with many (eightbit::accumulate).
struct QuantizedRows {
    std::vector<std::int8_t> codes;
    std::vector<float> scales;
    std::vector<float> absoluteSums; // Σ|w| of each original row, for error bounds
    std::vector<std::int32_t> sums;  // Σ codes of each row
    std::size_t rows = 0;
    std::size_t columns = 0;

    bool empty() const { return rows == 0; }
};
QuantizedRows quantizeRows(const std::uint16_t *halfRows, std::size_t rows, std::size_t columns);
QuantizedRows quantizeRows(const float *rows, std::size_t rowCount, std::size_t columns);

// estimate[r] ≈ row r · x, and error[r] bounds |estimate[r] − row r · x| for the original (half) rows, for the
// rows in [first, last).
void gemvQuantized(const QuantizedRows &rows, const float *x, float *estimate, float *error, std::size_t first = 0,
                   std::size_t last = std::size_t(-1));
// y[r] ← y[r] + row r · x, to within the same error, for rows in [first, last): the decoder's weights in 8 bits,
// half the bytes of half precision for a product that waits on memory.
void gemvEightBit(const QuantizedRows &rows, const float *x, float *y, std::size_t first = 0,
                  std::size_t last = std::size_t(-1));

// In place: x ← exp(x − max(x)) / Σ, over one row. Entries of −∞ end up exactly 0.
void softmax(float *row, std::size_t count);
// In place, for each of `rows` rows of `count` floats spaced `stride` apart: softmax(scale · x) where only
// the first `limit(r)` = count − (rows − 1 − r) entries take part (the rest become 0): a causal mask for the
// last `rows` positions of a sequence of `count`. With `causal` false every entry takes part.
void scaledSoftmaxRows(float *rows, std::size_t rowCount, std::size_t count, std::size_t stride, float scale,
                       bool causal);

// In place: x ← x · 0.5 · (1 + erf(x / √2)).
void gelu(float *x, std::size_t count);
// out ← (x − mean) / sqrt(var + 1e-5) · gain + bias, for one row of `count`. `out` may be `x`.
void layerNorm(const float *x, float *out, std::size_t count, const float *gain, const float *bias);
// max |x|, 0 for no values.
float absoluteMax(const float *x, std::size_t count);
// Codes x as x ≈ scale · code with codes in −127…127, rounding to nearest; answers the scale.
float roundToCodes(const float *x, std::size_t count, std::int8_t *codes);
// x ← x + y.
void add(float *x, const float *y, std::size_t count);
// Copies `bias` into each of `rows` rows of `out`, so a following product can accumulate onto it.
void broadcastRows(float *out, const float *bias, std::size_t rows, std::size_t count);

// Index of the largest value; the first one on ties.
std::size_t argmax(const float *x, std::size_t count);
// log Σ exp(x).
float logSumExp(const float *x, std::size_t count);

} // namespace qm::whisper::kernels
