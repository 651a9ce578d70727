#pragma once

#include "library/result.h"
#include "transcription/whisper/kernels.h"
#include "transcription/whisper/whispermodel.h"

#include <memory>
#include <span>
#include <vector>

namespace qm::whisper {

// A linear layer as y = W·x + b, W stored {out, in} row-major: the layout a matrix–vector product reads
// front to back, and one a matrix product takes transposed without copying.
struct Linear {
    std::vector<float> weight;
    std::vector<float> bias; // `out` values; zeros where the model has no bias
    int out = 0;
    int in = 0;
    std::vector<std::uint16_t> half; // the weight in half precision, for one input at a time; may be empty
    kernels::QuantizedRows rows;     // the weight in 8 bits; `weight` and `half` are then empty
};

struct Norm {
    std::vector<float> gain;
    std::vector<float> bias;
};

struct EncoderLayer {
    Norm attentionNorm;
    Linear qkv; // query, key and value fused: {3d, d}
    Linear attentionOut;
    Norm mlpNorm;
    Linear mlpIn;
    Linear mlpOut;
};

struct DecoderLayer {
    Norm selfNorm;
    Linear qkv;
    Linear selfOut;
    Norm crossNorm;
    Linear crossQuery;
    Linear crossKeyValue; // applied once per window to the encoder's output: {2d, d}
    Linear crossOut;
    Norm mlpNorm;
    Linear mlpIn;
    Linear mlpOut;
};

// The weights of one model rearranged for inference: projections fused, convolution kernels reordered so
// each tap reads whole frames, positions ready to add. Immutable once made; shared by sessions.
class Network {
public:
    // Consumes `model`. A missing weight or one of the wrong shape is an error naming it. With `eightBit`, on a
    // processor that has the instructions (eightbit::available()), the encoder's projections, the cross-attention
    // keys and values and the decoder's per-token products use 8-bit weights.
    static expected<std::shared_ptr<const Network>, ModelError> create(Model model, bool eightBit = true);

    const Hyperparameters &hparams() const { return m_hparams; }
    const std::vector<std::string> &vocabulary() const { return m_vocabulary; }
    const std::vector<float> &melFilters() const { return m_melFilters; }
    // The decoder's heads whose cross-attention follows the speech: the model's own list, else the published one
    // for its shape.
    const std::vector<AlignmentHead> &alignmentHeads() const { return m_alignmentHeads; }

private:
    friend class Session;
    Network() = default;

    Hyperparameters m_hparams;
    std::vector<AlignmentHead> m_alignmentHeads;
    std::vector<std::string> m_vocabulary;
    std::vector<float> m_melFilters;

    Linear m_conv1;                      // {d, 3 · mels}: tap-major, so tap k of frame t reads frame t + k − 1 whole
    Linear m_conv2;                      // {d, 3 · d}
    std::vector<float> m_audioPositions; // {audioContext, d}
    std::vector<EncoderLayer> m_encoder;
    Norm m_encoderNorm;

    std::vector<std::uint16_t> m_tokenEmbedding; // {vocabulary, d} in half precision, also the output projection
    kernels::QuantizedRows m_textRows;           // the text tokens' rows in 8 bits, to screen them quickly
    std::vector<float> m_textPositions;          // {textContext, d}
    std::vector<DecoderLayer> m_decoder;
    Norm m_decoderNorm;
};

// One running inference: the encoder's output for the current window and the decoder's key/value caches.
// Buffers are sized once, so decoding a token allocates nothing. Used from one thread at a time.
class Session {
public:
    // `threads` 0 means one per core. Sets the BLAS library to one thread, process-wide: work is split above it.
    explicit Session(std::shared_ptr<const Network> network, int threads = 0);

    const Network &network() const { return *m_network; }

    // Encodes one window of kWindowFrames × melBins log-mel values (time-major) and prepares the
    // cross-attention keys and values for every decoder layer. Forgets any decoded tokens.
    void encode(const float *window);

    // Tokens decoded so far in this window.
    int length() const { return m_length; }
    // Forgets the tokens after the first `length`, so a retry can reuse a shared beginning.
    void truncate(int length);

    // Feeds `tokens` after those decoded so far and writes the logits (vocabularySize each) that follow each
    // position listed in `rows` (indices into `tokens`) to `logits`, in order. Only tokens from `firstToken` on
    // are scored; the logits below it are −∞ (for steps where the rules allow nothing lower anyway). Answers
    // false when the tokens would exceed the text context.
    bool decode(std::span<const int> tokens, std::span<const int> rows, float *logits, int firstToken = 0);

    // From now on, single-token steps score the text tokens in two passes: a quick 8-bit estimate of all, then
    // exact logits for every token that, within the estimate's error bound, could be the best one `allowed`
    // marks (a flag per text token). The best allowed text token and every special token are then exact; the
    // rest are estimates good to about 1e-2, used only in the probability sums. Empty: exact throughout.
    void screenText(std::vector<char> allowed);

    // Feeds `tokens` from the start of the window, as decode() would, but only through the last layer that has an
    // alignment head and without logits, keeping those heads' cross-attention for alignmentWeights(). Forgets the
    // tokens decoded before. Answers false when the tokens exceed the text context or there are no such heads.
    bool attend(std::span<const int> tokens);
    // After attend(): {alignment heads, tokens, audioContext}, heads in alignmentHeads() order, each row the
    // softmax over every audio position.
    std::span<const float> alignmentWeights() const { return m_alignment; }

private:
    void encoderLayer(const EncoderLayer &layer);
    void crossAttentionOne(std::size_t layer, const float *query, float *out);
    // `capture`, when given, names for each head its place among the alignment heads (−1 for none): those heads'
    // weights are copied to m_alignment.
    void attention(const float *queries, int queryStride, const float *keys, const float *values, int keyStride,
                   int rows, int keyCount, int heads, int width, bool causal, float *out, const int *capture = nullptr);

    std::shared_ptr<const Network> m_network;
    int m_threads = 1;
    int m_length = 0;

    // Encoder scratch, {positions, …}.
    std::vector<float> m_columns;
    std::vector<float> m_convOut;
    std::vector<float> m_x;
    std::vector<float> m_normed;
    std::vector<float> m_qkv;
    std::vector<float> m_attended;
    std::vector<float> m_hidden;
    std::vector<float> m_scores;

    // Per decoder layer: {audioContext, 2d} cross keys|values and {textContext, d} self keys and values.
    std::vector<std::vector<float>> m_crossKeyValues;
    // The same keys per head {heads, audioContext, d / heads} and values per head transposed
    // {heads, d / heads, audioContext}, in half precision: what each decoding step reads.
    std::vector<std::vector<std::uint16_t>> m_crossKeysHalf;
    std::vector<std::vector<std::uint16_t>> m_crossValuesHalf;
    std::vector<float> m_crossRow;
    std::vector<char> m_textAllowed;
    std::vector<float> m_textError;
    std::vector<std::vector<float>> m_selfKeys;
    std::vector<std::vector<float>> m_selfValues;

    // Decoder scratch, {textContext, …}.
    std::vector<float> m_dx;
    std::vector<float> m_dnormed;
    std::vector<float> m_dqkv;
    std::vector<float> m_dquery;
    std::vector<float> m_dattended;
    std::vector<float> m_dhidden;
    std::vector<float> m_dscores;

    // Per decoder layer, each head's place among the alignment heads or −1; filled while attend() runs.
    std::vector<std::vector<int>> m_alignmentSlots;
    int m_captureLayers = 0; // layers attend() runs through; 0 outside it
    std::size_t m_alignmentRows = 0;
    std::vector<float> m_alignment;
};

// Sinusoidal positions: for each position, `width / 2` sines then as many cosines, with time scales
// growing geometrically from 1 to 10000.
std::vector<float> sinusoids(int positions, int width);

} // namespace qm::whisper
