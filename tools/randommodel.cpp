#include "randommodel.h"

#include <algorithm>
#include <iterator>
#include <random>

namespace qm::whisper {

expected<Model, ModelError> randomModel(const QString &size)
{
    struct Size {
        const char *name;
        int width, heads, layers;
    };
    static constexpr Size sizes[] = {
        {"tiny", 384, 6, 4}, {"base", 512, 8, 6}, {"small", 768, 12, 12}, {"medium", 1024, 16, 24}};
    const auto found =
        std::find_if(std::begin(sizes), std::end(sizes), [&](const Size &s) { return size == QLatin1String(s.name); });
    if (found == std::end(sizes))
        return unexpected(ModelError{QStringLiteral("No such model size: %1.").arg(size)});
    const std::int64_t d = found->width;
    Model m;
    m.hparams = {51864, 1500,         found->width, found->heads,  found->layers,
                 448,   found->width, found->heads, found->layers, 80};
    for (int t = 0; t < m.hparams.vocabularySize; ++t)
        m.vocabulary.push_back(std::to_string(t));
    std::mt19937 random(1);
    std::normal_distribution<float> noise(0.0f, 0.02f);
    const auto add = [&](const std::string &name, std::vector<std::int64_t> shape, float fill = -1.0f) {
        Tensor t{shape, {}};
        t.values.resize(std::size_t(t.elementCount()));
        for (float &v : t.values)
            v = fill >= 0 ? fill : noise(random);
        m.tensors[name] = std::move(t);
    };
    const auto block = [&](const std::string &p, bool cross) {
        for (const char *name : {"attn", "cross_attn"}) {
            const std::string attention = name;
            if (attention == "cross_attn" && !cross)
                continue;
            add(p + attention + "_ln.weight", {d}, 1.0f);
            add(p + attention + "_ln.bias", {d}, 0.0f);
            for (const char *part : {"query", "key", "value", "out"}) {
                add(p + attention + "." + part + ".weight", {d, d});
                if (std::string(part) != "key")
                    add(p + attention + "." + part + ".bias", {d});
            }
        }
        add(p + "mlp_ln.weight", {d}, 1.0f);
        add(p + "mlp_ln.bias", {d}, 0.0f);
        add(p + "mlp.0.weight", {4 * d, d});
        add(p + "mlp.0.bias", {4 * d});
        add(p + "mlp.2.weight", {d, 4 * d});
        add(p + "mlp.2.bias", {d});
    };
    add("encoder.conv1.weight", {d, 80, 3});
    add("encoder.conv1.bias", {d});
    add("encoder.conv2.weight", {d, d, 3});
    add("encoder.conv2.bias", {d});
    for (int i = 0; i < found->layers; ++i)
        block("encoder.blocks." + std::to_string(i) + ".", false);
    add("encoder.ln_post.weight", {d}, 1.0f);
    add("encoder.ln_post.bias", {d}, 0.0f);
    add("decoder.token_embedding.weight", {m.hparams.vocabularySize, d});
    add("decoder.positional_embedding", {448, d});
    for (int i = 0; i < found->layers; ++i)
        block("decoder.blocks." + std::to_string(i) + ".", true);
    add("decoder.ln.weight", {d}, 1.0f);
    add("decoder.ln.bias", {d}, 0.0f);
    return m;
}

} // namespace qm::whisper
