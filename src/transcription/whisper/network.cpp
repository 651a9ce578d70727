#include "transcription/whisper/network.h"

#include "transcription/whisper/eightbit.h"
#include "transcription/whisper/frontend.h"
#include "transcription/whisper/kernels.h"
#include "transcription/whisper/tokens.h"
#include "transcription/whisper/wordtiming.h"
#include "transcription/whisper/workers.h"

#include <cblas.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <thread>

namespace qm::whisper {

namespace {

// Moves weights out of the model by name, checking their shapes; the first problem is kept as the error.
class Builder {
public:
    explicit Builder(Model &model) : m_model(model) {}

    const QString &error() const { return m_error; }

    std::vector<float> take(const std::string &name, std::vector<std::int64_t> shape, bool optional = false)
    {
        const auto found = m_model.tensors.find(name);
        if (found == m_model.tensors.end()) {
            if (!optional && m_error.isEmpty())
                m_error = QStringLiteral("the weight %1 is missing.").arg(QString::fromStdString(name));
            return {};
        }
        if (found->second.shape != shape) {
            if (m_error.isEmpty())
                m_error = QStringLiteral("the weight %1 has the wrong shape.").arg(QString::fromStdString(name));
            return {};
        }
        std::vector<float> values = std::move(found->second.values);
        m_model.tensors.erase(found);
        return values;
    }

    Norm norm(const std::string &prefix, int width)
    {
        return Norm{take(prefix + ".weight", {width}), take(prefix + ".bias", {width})};
    }

    Linear linear(const std::string &prefix, int out, int in, bool biased = true)
    {
        Linear l{take(prefix + ".weight", {out, in}), take(prefix + ".bias", {out}, !biased), out, in, {}, {}};
        if (l.bias.empty())
            l.bias.assign(std::size_t(out), 0.0f);
        return l;
    }

    // Stacks projections that read the same input into one, so a single product computes them all.
    static Linear stack(std::initializer_list<Linear *> parts)
    {
        Linear fused;
        for (Linear *part : parts) {
            fused.in = part->in;
            fused.out += part->out;
            fused.weight.insert(fused.weight.end(), part->weight.begin(), part->weight.end());
            fused.bias.insert(fused.bias.end(), part->bias.begin(), part->bias.end());
            *part = Linear{};
        }
        return fused;
    }

    // Query, key and value of a self-attention fused into one {3 · width, width} projection; keys have no bias.
    Linear selfAttention(const std::string &prefix, int width)
    {
        Linear q = linear(prefix + ".query", width, width);
        Linear k = linear(prefix + ".key", width, width, false);
        Linear v = linear(prefix + ".value", width, width);
        return stack({&q, &k, &v});
    }

    // {out, in, 3} → {out, 3 · in} with the tap outermost.
    Linear convolution(const std::string &prefix, int out, int in)
    {
        const std::vector<float> kernel = take(prefix + ".weight", {out, in, 3});
        Linear l{std::vector<float>(std::size_t(out) * 3 * std::size_t(in)),
                 take(prefix + ".bias", {out}),
                 out,
                 3 * in,
                 {},
                 {}};
        if (kernel.empty() || l.bias.empty())
            return l;
        for (std::size_t o = 0; o < std::size_t(out); ++o)
            for (std::size_t i = 0; i < std::size_t(in); ++i)
                for (std::size_t k = 0; k < 3; ++k)
                    l.weight[(o * 3 + k) * std::size_t(in) + i] = kernel[(o * std::size_t(in) + i) * 3 + k];
        return l;
    }

private:
    Model &m_model;
    QString m_error;
};

// Rows of a matrix–vector product per part: whole cache lines of output, and enough work to be worth a helper.
constexpr std::size_t kRowGrain = 16;
// Query rows per attention tile. Each tile repacks the keys, so small tiles cost more than they save; 384 rows
// of scores against a whole window's keys (2.3 MB) still stay in the shared cache between the two products.
constexpr std::size_t kAttentionTile = 384;

// y ← W·x + b for `rows` inputs of `in` floats each. A single input splits W's rows across the cores.
void linear(const float *x, int rows, const Linear &l, float *y, int threads)
{
    kernels::broadcastRows(y, l.bias.data(), std::size_t(rows), std::size_t(l.out));
    const std::size_t in = std::size_t(l.in), out = std::size_t(l.out);
    if (rows > 1 && !l.rows.empty())
        workers::parallelFor(
            std::size_t(rows), threads,
            [&](std::size_t begin, std::size_t end) {
                eightbit::accumulate(x + begin * in, end - begin, l.rows, y + begin * out);
            },
            kRowGrain);
    else if (!l.rows.empty())
        workers::parallelFor(
            std::size_t(l.out), threads,
            [&](std::size_t begin, std::size_t end) { kernels::gemvEightBit(l.rows, x, y, begin, end); }, kRowGrain);
    else if (rows == 1 && !l.half.empty())
        workers::parallelFor(
            std::size_t(l.out), threads,
            [&](std::size_t begin, std::size_t end) {
                kernels::gemvHalf(l.half.data() + begin * in, x, y + begin, end - begin, in, true);
            },
            kRowGrain);
    else if (rows == 1)
        cblas_sgemv(CblasRowMajor, CblasNoTrans, l.out, l.in, 1.0f, l.weight.data(), l.in, x, 1, 1.0f, y, 1);
    else
        workers::parallelFor(
            std::size_t(rows), threads,
            [&](std::size_t begin, std::size_t end) {
                cblas_sgemm(CblasRowMajor, CblasNoTrans, CblasTrans, int(end - begin), l.out, l.in, 1.0f,
                            x + begin * in, l.in, l.weight.data(), l.in, 1.0f, y + begin * out, l.out);
            },
            kRowGrain);
}

// GELU over a whole activation, split across the cores the products use.
void geluAll(float *x, std::size_t count, int threads)
{
    workers::parallelFor(count / 4096 + 1, threads, [&](std::size_t begin, std::size_t end) {
        const std::size_t first = begin * 4096, last = std::min(count, end * 4096);
        if (first < last)
            kernels::gelu(x + first, last - first);
    });
}

void normRows(const float *x, float *out, int rows, int width, const Norm &norm)
{
    for (int r = 0; r < rows; ++r)
        kernels::layerNorm(x + std::size_t(r) * std::size_t(width), out + std::size_t(r) * std::size_t(width),
                           std::size_t(width), norm.gain.data(), norm.bias.data());
}

} // namespace

std::vector<float> sinusoids(int positions, int width)
{
    const int half = width / 2;
    const double increment = std::log(10000.0) / double(half - 1);
    std::vector<float> table(std::size_t(positions) * std::size_t(width));
    for (int p = 0; p < positions; ++p)
        for (int i = 0; i < half; ++i) {
            const double angle = double(p) * std::exp(-increment * double(i));
            table[std::size_t(p) * std::size_t(width) + std::size_t(i)] = float(std::sin(angle));
            table[std::size_t(p) * std::size_t(width) + std::size_t(half + i)] = float(std::cos(angle));
        }
    return table;
}

expected<std::shared_ptr<const Network>, ModelError> Network::create(Model model, bool eightBit)
{
    const Hyperparameters h = model.hparams;
    const auto refuse = [](const QString &why) {
        return unexpected(ModelError{QStringLiteral("The speech model can't be used: %1").arg(why)});
    };
    if (h.audioContext * 2 != kWindowFrames || h.melBins <= 0 || h.audioWidth % 2 != 0)
        return refuse(QStringLiteral("its audio sizes are not those of a speech model."));
    if (!model.melFilters.empty() && model.melFilters.size() != std::size_t(h.melBins) * kSpectrumBins)
        return refuse(QStringLiteral("its mel filters have the wrong size."));

    std::shared_ptr<Network> net(new Network);
    net->m_hparams = h;
    net->m_vocabulary = std::move(model.vocabulary);
    net->m_melFilters = model.melFilters.empty() ? slaneyMelFilters(h.melBins) : std::move(model.melFilters);

    Builder b(model);
    const int da = h.audioWidth, dt = h.textWidth;
    net->m_conv1 = b.convolution("encoder.conv1", da, h.melBins);
    net->m_conv2 = b.convolution("encoder.conv2", da, da);
    net->m_audioPositions = b.take("encoder.positional_embedding", {h.audioContext, da}, true);
    if (net->m_audioPositions.empty())
        net->m_audioPositions = sinusoids(h.audioContext, da);
    for (int i = 0; i < h.audioLayers; ++i) {
        const std::string p = "encoder.blocks." + std::to_string(i) + ".";
        EncoderLayer layer;
        layer.attentionNorm = b.norm(p + "attn_ln", da);
        layer.qkv = b.selfAttention(p + "attn", da);
        layer.attentionOut = b.linear(p + "attn.out", da, da);
        layer.mlpNorm = b.norm(p + "mlp_ln", da);
        layer.mlpIn = b.linear(p + "mlp.0", 4 * da, da);
        layer.mlpOut = b.linear(p + "mlp.2", da, 4 * da);
        net->m_encoder.push_back(std::move(layer));
    }
    net->m_encoderNorm = b.norm("encoder.ln_post", da);

    net->m_tokenEmbedding = kernels::toHalf(b.take("decoder.token_embedding.weight", {h.vocabularySize, dt}));
    if (!net->m_tokenEmbedding.empty()) {
        const int text = std::clamp(SpecialTokens::forVocabularySize(h.vocabularySize).endOfText, 0, h.vocabularySize);
        net->m_textRows = kernels::quantizeRows(net->m_tokenEmbedding.data(), std::size_t(text), std::size_t(dt));
    }
    net->m_textPositions = b.take("decoder.positional_embedding", {h.textContext, dt});
    for (int i = 0; i < h.textLayers; ++i) {
        const std::string p = "decoder.blocks." + std::to_string(i) + ".";
        DecoderLayer layer;
        layer.selfNorm = b.norm(p + "attn_ln", dt);
        layer.qkv = b.selfAttention(p + "attn", dt);
        layer.selfOut = b.linear(p + "attn.out", dt, dt);
        layer.crossNorm = b.norm(p + "cross_attn_ln", dt);
        layer.crossQuery = b.linear(p + "cross_attn.query", dt, dt);
        Linear ck = b.linear(p + "cross_attn.key", dt, da, false);
        Linear cv = b.linear(p + "cross_attn.value", dt, da);
        layer.crossKeyValue = Builder::stack({&ck, &cv});
        layer.crossOut = b.linear(p + "cross_attn.out", dt, dt);
        layer.mlpNorm = b.norm(p + "mlp_ln", dt);
        layer.mlpIn = b.linear(p + "mlp.0", 4 * dt, dt);
        layer.mlpOut = b.linear(p + "mlp.2", dt, 4 * dt);
        for (Linear *l : {&layer.qkv, &layer.selfOut, &layer.crossQuery, &layer.crossOut, &layer.mlpIn, &layer.mlpOut})
            l->half = kernels::toHalf(l->weight);
        net->m_decoder.push_back(std::move(layer));
    }
    net->m_decoderNorm = b.norm("decoder.ln", dt);
    net->m_alignmentHeads = model.alignmentHeads.empty() ? publishedAlignmentHeads(h) : model.alignmentHeads;
    if (!b.error().isEmpty())
        return refuse(b.error());
    // The second convolution stays in single precision: its inputs have outliers that cost the small models
    // words in 8 bits, and it is a small share of the work. One input at a time (a decoding step) keeps 14 bits
    // of it (kernels::gemvEightBit); many at once are mapped to 8 bits (eightbit::accumulate).
    if (eightBit && eightbit::available()) {
        const auto toEightBit = [](Linear &l) {
            l.rows = kernels::quantizeRows(l.weight.data(), std::size_t(l.out), std::size_t(l.in));
            l.weight = {};
            l.half = {};
        };
        for (EncoderLayer &layer : net->m_encoder)
            for (Linear *l : {&layer.qkv, &layer.attentionOut, &layer.mlpIn, &layer.mlpOut})
                toEightBit(*l);
        for (DecoderLayer &layer : net->m_decoder)
            for (Linear *l : {&layer.qkv, &layer.selfOut, &layer.crossQuery, &layer.crossKeyValue, &layer.crossOut,
                              &layer.mlpIn, &layer.mlpOut})
                toEightBit(*l);
    }
    return std::shared_ptr<const Network>(std::move(net));
}

Session::Session(std::shared_ptr<const Network> network, int threads) : m_network(std::move(network))
{
    const Hyperparameters &h = m_network->hparams();
    m_threads = threads > 0 ? threads : std::max(1, int(std::thread::hardware_concurrency()));
    // Products are split across our own helpers; the BLAS library's threads would only compete with them.
    openblas_set_num_threads(1);

    const auto sized = [](std::vector<float> &buffer, std::int64_t rows, std::int64_t columns) {
        buffer.assign(std::size_t(rows * columns), 0.0f);
    };
    const std::int64_t frames = kWindowFrames, positions = h.audioContext, da = h.audioWidth, dt = h.textWidth;
    sized(m_columns, frames, 3 * std::max<std::int64_t>(h.melBins, da));
    sized(m_convOut, frames, da);
    sized(m_x, positions, da);
    sized(m_normed, positions, da);
    sized(m_qkv, positions, 3 * da);
    sized(m_attended, positions, da);
    sized(m_hidden, positions, 4 * da);
    sized(m_scores, positions, positions);

    const std::int64_t tokens = h.textContext;
    m_crossKeyValues.resize(std::size_t(h.textLayers));
    m_crossKeysHalf.assign(std::size_t(h.textLayers), std::vector<std::uint16_t>(std::size_t(positions * dt)));
    m_crossValuesHalf.assign(std::size_t(h.textLayers), std::vector<std::uint16_t>(std::size_t(positions * dt)));
    m_crossRow.assign(std::size_t(2 * dt), 0.0f);
    m_selfKeys.resize(std::size_t(h.textLayers));
    m_selfValues.resize(std::size_t(h.textLayers));
    for (int l = 0; l < h.textLayers; ++l) {
        sized(m_crossKeyValues[std::size_t(l)], positions, 2 * dt);
        sized(m_selfKeys[std::size_t(l)], tokens, dt);
        sized(m_selfValues[std::size_t(l)], tokens, dt);
    }
    sized(m_dx, tokens, dt);
    sized(m_dnormed, tokens, dt);
    sized(m_dqkv, tokens, 3 * dt);
    sized(m_dquery, tokens, dt);
    sized(m_dattended, tokens, dt);
    sized(m_dhidden, tokens, 4 * dt);
    sized(m_dscores, tokens, std::max(positions, tokens));

    m_alignmentSlots.assign(std::size_t(h.textLayers), std::vector<int>(std::size_t(h.textHeads), -1));
    const std::vector<AlignmentHead> &heads = m_network->alignmentHeads();
    for (std::size_t i = 0; i < heads.size(); ++i)
        if (heads[i].layer >= 0 && heads[i].layer < h.textLayers && heads[i].head >= 0 && heads[i].head < h.textHeads)
            m_alignmentSlots[std::size_t(heads[i].layer)][std::size_t(heads[i].head)] = int(i);
}

void Session::attention(const float *queries, int queryStride, const float *keys, const float *values, int keyStride,
                        int rows, int keyCount, int heads, int width, bool causal, float *out, const int *capture)
{
    const int headWidth = width / heads;
    const float scale = 1.0f / std::sqrt(float(headWidth));
    float *scores = rows > 1 && !causal && rows == keyCount ? m_scores.data() : m_dscores.data();
    // Query rows are independent unless masked: each part takes a block of them through every head, a tile at
    // a time.
    const auto block = [&](std::size_t begin, std::size_t end) {
        const std::size_t tile = causal ? end - begin : kAttentionTile;
        for (std::size_t first = begin; first < end; first += tile) {
            const int count = int(std::min(tile, end - first));
            const float *q = queries + first * std::size_t(queryStride);
            float *s = scores + first * std::size_t(keyCount);
            for (int h = 0; h < heads; ++h) {
                const int column = h * headWidth;
                if (count == 1)
                    cblas_sgemv(CblasRowMajor, CblasNoTrans, keyCount, headWidth, scale, keys + column, keyStride,
                                q + column, 1, 0.0f, s, 1);
                else
                    cblas_sgemm(CblasRowMajor, CblasNoTrans, CblasTrans, count, keyCount, headWidth, scale, q + column,
                                queryStride, keys + column, keyStride, 0.0f, s, keyCount);
                kernels::scaledSoftmaxRows(s, std::size_t(count), std::size_t(keyCount), std::size_t(keyCount), 1.0f,
                                           causal);
                if (capture && capture[h] >= 0)
                    std::copy_n(s, std::size_t(count) * std::size_t(keyCount),
                                m_alignment.data() +
                                    (std::size_t(capture[h]) * m_alignmentRows + first) * std::size_t(keyCount));
                float *o = out + first * std::size_t(width) + std::size_t(column);
                if (count == 1)
                    cblas_sgemv(CblasRowMajor, CblasTrans, keyCount, headWidth, 1.0f, values + column, keyStride, s, 1,
                                0.0f, o, 1);
                else
                    cblas_sgemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, count, headWidth, keyCount, 1.0f, s,
                                keyCount, values + column, keyStride, 0.0f, o, width);
            }
        }
    };
    if (causal)
        block(0, std::size_t(rows));
    else
        workers::parallelFor(std::size_t(rows), m_threads, block, kRowGrain);
}

bool Session::attend(std::span<const int> tokens)
{
    const Hyperparameters &h = m_network->hparams();
    const std::vector<AlignmentHead> &heads = m_network->alignmentHeads();
    int layers = 0;
    for (const AlignmentHead &head : heads)
        layers = std::max(layers, head.layer + 1);
    m_length = 0;
    if (layers == 0 || tokens.empty() || int(tokens.size()) > h.textContext)
        return false;
    m_alignmentRows = tokens.size();
    m_alignment.assign(heads.size() * m_alignmentRows * std::size_t(h.audioContext), 0.0f);
    m_captureLayers = std::min(layers, h.textLayers);
    const bool fed = decode(tokens, {}, nullptr);
    m_captureLayers = 0;
    m_length = 0; // the layers after the alignment heads' hold nothing for these tokens
    return fed;
}

void Session::screenText(std::vector<char> allowed)
{
    m_textAllowed = std::move(allowed);
    m_textAllowed.resize(m_network->m_textRows.rows, 0);
    m_textError.assign(m_network->m_textRows.rows, 0.0f);
}

void Session::crossAttentionOne(std::size_t layer, const float *query, float *out)
{
    const Hyperparameters &h = m_network->hparams();
    const std::size_t positions = std::size_t(h.audioContext), dh = std::size_t(h.textWidth / h.textHeads);
    const float scale = 1.0f / std::sqrt(float(dh));
    // Heads are independent: each part takes whole heads, with its own slices of the scratch rows.
    workers::parallelFor(std::size_t(h.textHeads), m_threads, [&](std::size_t first, std::size_t last) {
        for (std::size_t head = first; head < last; ++head) {
            float *scaled = m_crossRow.data() + head * dh, *scores = m_dscores.data() + head * positions;
            for (std::size_t j = 0; j < dh; ++j)
                scaled[j] = query[head * dh + j] * scale;
            kernels::gemvHalf(m_crossKeysHalf[layer].data() + head * positions * dh, scaled, scores, positions, dh,
                              false);
            kernels::softmax(scores, positions);
            kernels::gemvHalf(m_crossValuesHalf[layer].data() + head * dh * positions, scores, out + head * dh, dh,
                              positions, false);
        }
    });
}

void Session::encode(const float *window)
{
    const Network &net = *m_network;
    const Hyperparameters &h = net.hparams();
    const int mels = h.melBins, d = h.audioWidth, positions = h.audioContext;

    // Both convolutions as one product each over tap-major columns; the second keeps every other frame.
    const auto gather = [this](const float *input, int inputFrames, int width, int outputFrames, int stride) {
        for (int t = 0; t < outputFrames; ++t)
            for (int k = 0; k < 3; ++k) {
                const int source = t * stride + k - 1;
                float *to = m_columns.data() + (std::size_t(t) * 3 + std::size_t(k)) * std::size_t(width);
                if (source < 0 || source >= inputFrames)
                    std::fill_n(to, width, 0.0f);
                else
                    std::copy_n(input + std::size_t(source) * std::size_t(width), width, to);
            }
    };
    gather(window, kWindowFrames, mels, kWindowFrames, 1);
    linear(m_columns.data(), kWindowFrames, net.m_conv1, m_convOut.data(), m_threads);
    geluAll(m_convOut.data(), m_convOut.size(), m_threads);
    gather(m_convOut.data(), kWindowFrames, d, positions, 2);
    linear(m_columns.data(), positions, net.m_conv2, m_x.data(), m_threads);
    geluAll(m_x.data(), m_x.size(), m_threads);
    kernels::add(m_x.data(), net.m_audioPositions.data(), m_x.size());

    for (const EncoderLayer &layer : net.m_encoder)
        encoderLayer(layer);
    normRows(m_x.data(), m_normed.data(), positions, d, net.m_encoderNorm);

    const std::size_t dt = std::size_t(h.textWidth), heads = std::size_t(h.textHeads), dh = dt / heads;
    std::vector<std::uint16_t> row(2 * dt);
    for (std::size_t l = 0; l < net.m_decoder.size(); ++l) {
        linear(m_normed.data(), positions, net.m_decoder[l].crossKeyValue, m_crossKeyValues[l].data(), m_threads);
        std::uint16_t *keys = m_crossKeysHalf[l].data(), *values = m_crossValuesHalf[l].data();
        for (std::size_t p = 0; p < std::size_t(positions); ++p) {
            kernels::toHalf(m_crossKeyValues[l].data() + p * 2 * dt, row.data(), 2 * dt);
            for (std::size_t head = 0; head < heads; ++head) {
                std::copy_n(row.data() + head * dh, dh, keys + (head * std::size_t(positions) + p) * dh);
                for (std::size_t j = 0; j < dh; ++j)
                    values[(head * dh + j) * std::size_t(positions) + p] = row[dt + head * dh + j];
            }
        }
    }
    m_length = 0;
}

void Session::encoderLayer(const EncoderLayer &layer)
{
    const Hyperparameters &h = m_network->hparams();
    const int d = h.audioWidth, positions = h.audioContext;
    normRows(m_x.data(), m_normed.data(), positions, d, layer.attentionNorm);
    linear(m_normed.data(), positions, layer.qkv, m_qkv.data(), m_threads);
    attention(m_qkv.data(), 3 * d, m_qkv.data() + d, m_qkv.data() + 2 * d, 3 * d, positions, positions, h.audioHeads, d,
              false, m_attended.data());
    linear(m_attended.data(), positions, layer.attentionOut, m_normed.data(), m_threads);
    kernels::add(m_x.data(), m_normed.data(), m_x.size());

    normRows(m_x.data(), m_normed.data(), positions, d, layer.mlpNorm);
    linear(m_normed.data(), positions, layer.mlpIn, m_hidden.data(), m_threads);
    geluAll(m_hidden.data(), m_hidden.size(), m_threads);
    linear(m_hidden.data(), positions, layer.mlpOut, m_normed.data(), m_threads);
    kernels::add(m_x.data(), m_normed.data(), m_x.size());
}

void Session::truncate(int length)
{
    m_length = std::clamp(length, 0, m_length);
}

bool Session::decode(std::span<const int> tokens, std::span<const int> rows, float *logits, int firstToken)
{
    const Network &net = *m_network;
    const Hyperparameters &h = net.hparams();
    const int n = int(tokens.size()), d = h.textWidth;
    if (n == 0 || m_length + n > h.textContext)
        return false;
    const std::size_t width = std::size_t(d), span = std::size_t(n) * width;

    for (int i = 0; i < n; ++i) {
        const int token = std::clamp(tokens[std::size_t(i)], 0, h.vocabularySize - 1);
        float *x = m_dx.data() + std::size_t(i) * width;
        const std::uint16_t *embedding = net.m_tokenEmbedding.data() + std::size_t(token) * width;
        const float *position = net.m_textPositions.data() + std::size_t(m_length + i) * width;
        for (std::size_t j = 0; j < width; ++j)
            x[j] = kernels::halfToFloat(embedding[j]) + position[j];
    }

    const int total = m_length + n;
    for (std::size_t l = 0; l < net.m_decoder.size(); ++l) {
        const DecoderLayer &layer = net.m_decoder[l];
        float *keys = m_selfKeys[l].data(), *values = m_selfValues[l].data();

        normRows(m_dx.data(), m_dnormed.data(), n, d, layer.selfNorm);
        linear(m_dnormed.data(), n, layer.qkv, m_dqkv.data(), m_threads);
        for (int i = 0; i < n; ++i) {
            const float *row = m_dqkv.data() + std::size_t(i) * 3 * width;
            std::memcpy(keys + std::size_t(m_length + i) * width, row + width, width * sizeof(float));
            std::memcpy(values + std::size_t(m_length + i) * width, row + 2 * width, width * sizeof(float));
        }
        attention(m_dqkv.data(), 3 * d, keys, values, d, n, total, h.textHeads, d, true, m_dattended.data());
        linear(m_dattended.data(), n, layer.selfOut, m_dnormed.data(), m_threads);
        kernels::add(m_dx.data(), m_dnormed.data(), span);

        normRows(m_dx.data(), m_dnormed.data(), n, d, layer.crossNorm);
        linear(m_dnormed.data(), n, layer.crossQuery, m_dquery.data(), m_threads);
        const float *cross = m_crossKeyValues[l].data();
        const bool capturing = int(l) < m_captureLayers;
        if (n == 1 && !capturing)
            crossAttentionOne(l, m_dquery.data(), m_dattended.data());
        else
            attention(m_dquery.data(), d, cross, cross + d, 2 * d, n, h.audioContext, h.textHeads, d, false,
                      m_dattended.data(), capturing ? m_alignmentSlots[l].data() : nullptr);
        if (capturing && int(l) + 1 == m_captureLayers)
            break; // nothing later reaches the alignment heads
        linear(m_dattended.data(), n, layer.crossOut, m_dnormed.data(), m_threads);
        kernels::add(m_dx.data(), m_dnormed.data(), span);

        normRows(m_dx.data(), m_dnormed.data(), n, d, layer.mlpNorm);
        linear(m_dnormed.data(), n, layer.mlpIn, m_dhidden.data(), m_threads);
        kernels::gelu(m_dhidden.data(), std::size_t(n) * 4 * width);
        linear(m_dhidden.data(), n, layer.mlpOut, m_dnormed.data(), m_threads);
        kernels::add(m_dx.data(), m_dnormed.data(), span);
    }
    m_length = total;

    const std::size_t vocabulary = std::size_t(h.vocabularySize);
    for (std::size_t r = 0; r < rows.size(); ++r) {
        const int row = std::clamp(rows[r], 0, n - 1);
        kernels::layerNorm(m_dx.data() + std::size_t(row) * width, m_dnormed.data(), width,
                           net.m_decoderNorm.gain.data(), net.m_decoderNorm.bias.data());
        float *out = logits + r * vocabulary;
        const std::size_t text = net.m_textRows.rows;
        if (n == 1 && firstToken <= 0 && !m_textAllowed.empty() && text > 0) {
            const std::uint16_t *embedding = net.m_tokenEmbedding.data();
            // The special tokens' exact rows go with the last part.
            workers::parallelFor(
                text, m_threads,
                [&](std::size_t begin, std::size_t end) {
                    kernels::gemvQuantized(net.m_textRows, m_dnormed.data(), out, m_textError.data(), begin, end);
                    if (end == text)
                        kernels::gemvHalf(embedding + text * width, m_dnormed.data(), out + text, vocabulary - text,
                                          width, false);
                },
                kRowGrain);
            float floor = -std::numeric_limits<float>::infinity();
            for (std::size_t t = 0; t < text; ++t)
                if (m_textAllowed[t])
                    floor = std::max(floor, out[t] - m_textError[t]);
            for (std::size_t t = 0; t < text; ++t)
                if (out[t] + m_textError[t] >= floor)
                    kernels::gemvHalf(embedding + t * width, m_dnormed.data(), out + t, 1, width, false);
            continue;
        }
        const std::size_t first = std::min(std::size_t(std::max(firstToken, 0)), vocabulary);
        std::fill_n(out, first, -std::numeric_limits<float>::infinity());
        const std::uint16_t *rowsFrom = net.m_tokenEmbedding.data() + first * width;
        workers::parallelFor(
            vocabulary - first, m_threads,
            [&](std::size_t begin, std::size_t end) {
                kernels::gemvHalf(rowsFrom + begin * width, m_dnormed.data(), out + first + begin, end - begin, width,
                                  false);
            },
            kRowGrain);
    }
    return true;
}

} // namespace qm::whisper
