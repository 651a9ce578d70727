#pragma once

#include "transcription/whisper/kernels.h"

#include <cstddef>

// Products of many inputs at once with a weight held in 8 bits. On processors with 8-bit dot-product
// instructions (VNNI) they run about three times as fast as in single precision, and transcripts come out as
// accurate (word error rates within a few words in 600 of single precision on real models).
namespace qm::whisper::eightbit {

// Whether this processor has the instructions. Without them the library's 8-bit path can saturate, so callers
// keep single precision there.
bool available();

// y[r] ← y[r] + W·x[r] for each of `rows` inputs of `weight.columns` floats, W {out, in} row-major in `weight`; each
// input mapped to 8 bits over its own range. Runs on the calling thread only; callers split rows across threads.
void accumulate(const float *x, std::size_t rows, const kernels::QuantizedRows &weight, float *y);

} // namespace qm::whisper::eightbit
