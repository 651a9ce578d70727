#pragma once

#include "library/result.h"

#include <QString>

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace qm::whisper {

// The network's sizes, as both model formats state them.
struct Hyperparameters {
    int vocabularySize = 0; // 51865 multilingual, 51864 English-only
    int audioContext = 0;   // 1500 encoder positions
    int audioWidth = 0;     // d of the encoder
    int audioHeads = 0;
    int audioLayers = 0;
    int textContext = 0; // 448 decoder positions
    int textWidth = 0;
    int textHeads = 0;
    int textLayers = 0;
    int melBins = 0; // 80

    bool multilingual() const { return vocabularySize >= 51865; }
};

// A cross-attention head of the decoder whose weights follow the speech: what word times are read from.
struct AlignmentHead {
    int layer = 0;
    int head = 0;

    bool operator==(const AlignmentHead &) const = default;
};

// A weight in single precision, whatever precision the file stored it in.
// `shape` is outermost-first (row-major): a linear layer's weight is {out, in}, conv1 is {d, melBins, 3}.
struct Tensor {
    std::vector<std::int64_t> shape;
    std::vector<float> values;

    std::int64_t elementCount() const;
};

// A loaded model, independent of the file format it came from.
//
// Tensors are keyed by the reference implementation's parameter names, for example
// "encoder.conv1.weight", "encoder.blocks.0.attn.query.weight", "encoder.blocks.0.attn.key.weight" (no bias),
// "encoder.blocks.0.mlp.0.weight", "encoder.ln_post.bias", "decoder.token_embedding.weight",
// "decoder.positional_embedding", "decoder.blocks.3.cross_attn.value.bias", "decoder.ln.weight".
// Loaders that read fused projections split them into these names.
struct Model {
    Hyperparameters hparams;
    std::vector<float> melFilters;       // melBins × 201, row-major; empty when the file carries none
    std::vector<std::string> vocabulary; // token id → the raw bytes it stands for; may stop before the specials
    std::unordered_map<std::string, Tensor> tensors;
    std::vector<AlignmentHead> alignmentHeads; // as the model's own settings name them; empty when they don't

    // Nothing when the model lacks `name`.
    const Tensor *tensor(std::string_view name) const;
};

// Why a model could not be read. `reason` is one short sentence for the user.
struct ModelError {
    QString reason;
};

// A ggml ".bin" file, or a CTranslate2 model directory (model.bin, vocabulary.json, config.json).
// Blocks the calling thread; call it off the main thread for anything larger than a test model.
expected<Model, ModelError> loadModel(const QString &path);

// The two format readers behind loadModel().
expected<Model, ModelError> loadGgmlModel(const QString &filePath);
expected<Model, ModelError> loadCTranslate2Model(const QString &directoryPath);

} // namespace qm::whisper
