// Usage: qm_make_test_model OUTPUT [--multilingual]
//
// Writes a Whisper model in the ggml format with the real vocabulary size, window and context lengths but
// tiny layers (width 64, 2 heads, one encoder and one decoder block) and small random weights, so every token
// id is valid and the file stays small. It exists to exercise the plumbing, so its answer is fixed by the
// decoder's positions: after the start sequence come <|0.00|>, " w1000", <|2.00|> and the end of text, so a
// window decoded without a prompt reads "w1000" from 0.00 to 2.00 s after the window's start. (Windows
// decoded after a prompt shift the positions and come out empty.)

#include <QCoreApplication>
#include <QFile>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr int kWidth = 64;
constexpr int kHeads = 2;
constexpr int kMels = 80;
constexpr int kAudioContext = 1500;
constexpr int kTextContext = 448;

class Writer {
public:
    explicit Writer(QFile &file) : m_file(file) {}

    void int32(std::int32_t value) { m_file.write(reinterpret_cast<const char *>(&value), sizeof value); }
    void float32(float value) { m_file.write(reinterpret_cast<const char *>(&value), sizeof value); }
    void bytes(const std::string &text) { m_file.write(text.data(), qint64(text.size())); }

    // Half precision for matrices (as published models store them), single precision for vectors.
    void tensor(const std::string &name, std::vector<int> shape, float spread, float centre = 0.0f,
                const std::vector<float> &values = {})
    {
        const bool half = shape.size() >= 2;
        int32(int(shape.size()));
        int32(int(name.size()));
        int32(half ? 1 : 0);
        std::int64_t count = 1;
        for (auto extent = shape.rbegin(); extent != shape.rend(); ++extent) {
            int32(*extent);
            count *= *extent;
        }
        bytes(name);
        std::normal_distribution<float> noise(centre, spread);
        for (std::int64_t i = 0; i < count; ++i) {
            const float value = !values.empty() ? values[std::size_t(i)] : spread > 0 ? noise(m_random) : centre;
            if (half)
                halfValue(value);
            else
                float32(value);
        }
    }

private:
    void halfValue(float value)
    {
        // Values here are small and normal, so rounding the mantissa is all the conversion needs.
        std::uint32_t bits = 0;
        std::memcpy(&bits, &value, sizeof bits);
        const std::uint32_t sign = (bits >> 16) & 0x8000u;
        const int exponent = int((bits >> 23) & 0xff) - 127 + 15;
        std::uint16_t half = std::uint16_t(sign);
        if (exponent > 0 && exponent < 31)
            half = std::uint16_t(sign | std::uint32_t(exponent) << 10 | ((bits >> 13) & 0x3ffu));
        m_file.write(reinterpret_cast<const char *>(&half), sizeof half);
    }

    QFile &m_file;
    std::mt19937 m_random{20261122};
};

void norm(Writer &w, const std::string &prefix)
{
    w.tensor(prefix + ".weight", {kWidth}, 0.0f, 1.0f);
    w.tensor(prefix + ".bias", {kWidth}, 0.0f);
}

void attention(Writer &w, const std::string &prefix, float spread = 0.1f)
{
    for (const char *part : {"query", "key", "value", "out"}) {
        w.tensor(prefix + "." + part + ".weight", {kWidth, kWidth}, spread);
        if (std::string(part) != "key")
            w.tensor(prefix + "." + part + ".bias", {kWidth}, spread / 5);
    }
}

void mlp(Writer &w, const std::string &prefix, float spread = 0.1f)
{
    norm(w, prefix + "mlp_ln");
    w.tensor(prefix + "mlp.0.weight", {4 * kWidth, kWidth}, spread);
    w.tensor(prefix + "mlp.0.bias", {4 * kWidth}, spread / 5);
    w.tensor(prefix + "mlp.2.weight", {kWidth, 4 * kWidth}, spread / 2);
    w.tensor(prefix + "mlp.2.bias", {kWidth}, spread / 5);
}

// Walsh functions: orthogonal, zero-mean directions of length 1, which layer normalisation leaves as they are.
float walsh(int index, int i)
{
    return (std::popcount(unsigned(index & i)) % 2 ? -1.0f : 1.0f) / 8.0f;
}

// The chain's tokens sit on directions 1–4 (scaled by 2), everything else is faint noise. Positions carry
// the plan: from the last start token on, position k points (scaled by 10) at the direction of the k-th token
// of the chain, so after layer normalisation that token's logit is about 16 and every other token's near 0.
struct Chain {
    std::vector<float> tokens;
    std::vector<float> positions;
};

Chain chain(int vocabularySize, bool multilingual)
{
    const int shift = multilingual ? 1 : 0;
    const int timestampBegin = vocabularySize - 1501;
    const int links[] = {timestampBegin, 1000, timestampBegin + 100, 50256 + shift};
    const int startLength = multilingual ? 3 : 1;

    Chain c{std::vector<float>(std::size_t(vocabularySize) * kWidth), std::vector<float>(kTextContext * kWidth)};
    std::mt19937 random(7);
    std::normal_distribution<float> noise(0.0f, 0.05f);
    for (float &v : c.tokens)
        v = noise(random);
    for (int link = 0; link < 4; ++link)
        for (int i = 0; i < kWidth; ++i)
            c.tokens[std::size_t(links[link]) * kWidth + std::size_t(i)] = 2.0f * walsh(link + 1, i);
    for (int p = 0; p < kTextContext; ++p) {
        const int link = std::clamp(p - (startLength - 1), 0, 3);
        for (int i = 0; i < kWidth; ++i)
            c.positions[std::size_t(p) * kWidth + std::size_t(i)] = 10.0f * walsh(link + 1, i);
    }
    return c;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    if (args.size() < 2) {
        std::fprintf(stderr, "usage: qm_make_test_model OUTPUT [--multilingual]\n");
        return 2;
    }
    const bool multilingual = args.contains(QStringLiteral("--multilingual"));
    const int vocabularySize = multilingual ? 51865 : 51864;
    const int textTokens = multilingual ? 50257 : 50256;

    QFile file(args.at(1) + QStringLiteral(".part"));
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        std::fprintf(stderr, "can't write %s\n", qPrintable(file.fileName()));
        return 1;
    }
    Writer w(file);
    w.int32(0x67676d6c);
    for (int value : {vocabularySize, kAudioContext, kWidth, kHeads, 1, kTextContext, kWidth, kHeads, 1, kMels, 1})
        w.int32(value);

    // Triangular filters spread evenly over the spectrum are enough for random weights.
    w.int32(kMels);
    w.int32(201);
    for (int m = 0; m < kMels; ++m)
        for (int k = 0; k < 201; ++k)
            w.float32(std::max(0.0f, 1.0f - std::fabs(float(k) - 2.5f * float(m + 1)) / 2.5f));

    // Bytes first, so " " and punctuation are single tokens as in the real vocabulary; then made-up words.
    w.int32(textTokens);
    for (int t = 0; t < textTokens; ++t) {
        const std::string token = t < 256 ? std::string(1, char(t)) : " w" + std::to_string(t);
        w.int32(int(token.size()));
        w.bytes(token);
    }

    w.tensor("encoder.conv1.weight", {kWidth, kMels, 3}, 0.1f);
    w.tensor("encoder.conv1.bias", {kWidth, 1}, 0.02f);
    w.tensor("encoder.conv2.weight", {kWidth, kWidth, 3}, 0.1f);
    w.tensor("encoder.conv2.bias", {kWidth, 1}, 0.02f);
    w.tensor("encoder.positional_embedding", {kAudioContext, kWidth}, 0.1f);
    norm(w, "encoder.blocks.0.attn_ln");
    attention(w, "encoder.blocks.0.attn");
    mlp(w, "encoder.blocks.0.");
    norm(w, "encoder.ln_post");

    const Chain plan = chain(vocabularySize, multilingual);
    w.tensor("decoder.token_embedding.weight", {vocabularySize, kWidth}, 0, 0, plan.tokens);
    w.tensor("decoder.positional_embedding", {kTextContext, kWidth}, 0, 0, plan.positions);
    norm(w, "decoder.blocks.0.attn_ln");
    attention(w, "decoder.blocks.0.attn", 0.01f);
    norm(w, "decoder.blocks.0.cross_attn_ln");
    attention(w, "decoder.blocks.0.cross_attn", 0.01f);
    mlp(w, "decoder.blocks.0.", 0.01f);
    norm(w, "decoder.ln");

    if (!file.flush() || file.error() != QFile::NoError) {
        std::fprintf(stderr, "can't write %s\n", qPrintable(file.fileName()));
        return 1;
    }
    file.close();
    QFile::remove(args.at(1));
    return file.rename(args.at(1)) ? 0 : 1;
}
