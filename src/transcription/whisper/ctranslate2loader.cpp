// Reads a CTranslate2 Whisper directory: model.bin (format version 6, spec "WhisperSpec"), vocabulary.json or
// vocabulary.txt, and config.json when present.

#include "transcription/whisper/whispermodel.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QtNumeric>
#include <qfloat16.h>

#include <array>
#include <cmath>
#include <cstring>
#include <map>
#include <optional>

namespace qm::whisper {

namespace {

constexpr std::int32_t supportedVersion = 6;
constexpr int maximumRank = 8;

enum class DataType : std::uint8_t { float32 = 0, int8 = 1, int16 = 2, int32 = 3, float16 = 4, bfloat16 = 5 };

int elementSize(DataType type)
{
    switch (type) {
    case DataType::int8:
        return 1;
    case DataType::int16:
    case DataType::float16:
    case DataType::bfloat16:
        return 2;
    case DataType::float32:
    case DataType::int32:
        return 4;
    }
    return 0;
}

// A variable as it lies in the mapped file; nothing is copied until it is converted.
struct Variable {
    std::vector<std::int64_t> shape;
    DataType type = DataType::float32;
    const uchar *data = nullptr;
    std::int64_t count = 0;
};

// Bounds-checked little-endian reads over the mapped file. Any read past the end clears `ok` and answers
// zeros, so a damaged header ends in one check rather than in a wild read.
class Reader {
public:
    Reader(const uchar *data, qint64 size) : m_data(data), m_left(size) {}

    bool ok() const { return m_ok; }
    qint64 left() const { return m_left; }

    template <class T> T read()
    {
        T value{};
        if (const uchar *bytes = take(sizeof(T)))
            std::memcpy(&value, bytes, sizeof(T));
        return value;
    }

    std::string string()
    {
        const auto length = read<std::uint16_t>();
        const auto *bytes = reinterpret_cast<const char *>(take(length));
        if (!bytes)
            return {};
        std::string text(bytes, length);
        while (!text.empty() && text.back() == '\0')
            text.pop_back();
        return text;
    }

    const uchar *take(qint64 size)
    {
        if (!m_ok || size < 0 || size > m_left) {
            m_ok = false;
            return nullptr;
        }
        const uchar *start = m_data;
        m_data += size;
        m_left -= size;
        return start;
    }

private:
    const uchar *m_data;
    qint64 m_left;
    bool m_ok = true;
};

ModelError damaged(const QString &file, const QString &what)
{
    return ModelError{QStringLiteral("The model file %1 is damaged (%2).").arg(file, what)};
}

using Variables = std::map<std::string, Variable, std::less<>>;

expected<Variables, ModelError> readVariables(const uchar *data, qint64 size, const QString &file)
{
    Reader reader(data, size);
    const auto version = reader.read<std::int32_t>();
    const auto spec = reader.string();
    reader.read<std::int32_t>(); // the layout's revision: every revision so far lays the variables out alike
    if (!reader.ok() || (version != supportedVersion && spec != "WhisperSpec"))
        return unexpected(ModelError{QStringLiteral("%1 isn't a Whisper model in CTranslate2's format.").arg(file)});
    if (version != supportedVersion)
        return unexpected(
            ModelError{QStringLiteral("%1 uses version %2 of CTranslate2's format; only version 6 can be read.")
                           .arg(file)
                           .arg(version)});
    if (spec != "WhisperSpec")
        return unexpected(ModelError{QStringLiteral("%1 holds a %2 model, not Whisper.")
                                         .arg(file, QString::fromUtf8(spec.data(), qsizetype(spec.size())))});

    Variables variables;
    const auto variableCount = reader.read<std::uint32_t>();
    for (std::uint32_t i = 0; i < variableCount && reader.ok(); ++i) {
        std::string name = reader.string();
        const auto rank = reader.read<std::uint8_t>();
        if (rank > maximumRank)
            return unexpected(damaged(file, QStringLiteral("a variable of rank %1").arg(rank)));
        Variable variable;
        variable.count = 1;
        for (int d = 0; d < rank; ++d) {
            const std::int64_t extent = reader.read<std::uint32_t>();
            variable.shape.push_back(extent);
            // Anything larger than the file fails the size check below; capping keeps the product from overflowing.
            variable.count = extent != 0 && variable.count > (size + 1) / extent ? size + 1 : variable.count * extent;
        }
        const auto type = reader.read<std::uint8_t>();
        variable.type = DataType(type);
        const std::int64_t bytes = reader.read<std::uint32_t>();
        if (!reader.ok())
            break;
        if (elementSize(variable.type) == 0)
            return unexpected(damaged(file, QStringLiteral("unknown data type %1").arg(type)));
        if (bytes != variable.count * elementSize(variable.type))
            return unexpected(damaged(
                file, QStringLiteral("the size of %1 doesn't match its shape").arg(QString::fromStdString(name))));
        variable.data = reader.take(bytes);
        variables.insert_or_assign(std::move(name), std::move(variable));
    }

    const auto aliasCount = reader.read<std::uint32_t>();
    for (std::uint32_t i = 0; i < aliasCount && reader.ok(); ++i) {
        std::string alias = reader.string();
        const std::string target = reader.string();
        if (const auto found = variables.find(target); reader.ok() && found != variables.end())
            variables.insert_or_assign(std::move(alias), found->second);
    }
    if (!reader.ok())
        return unexpected(ModelError{QStringLiteral("The model file %1 is cut short.").arg(file)});
    return variables;
}

// The raw values of a scalar setting such as "encoder/num_heads".
std::optional<std::int64_t> integerSetting(const Variables &variables, std::string_view name)
{
    const auto found = variables.find(name);
    if (found == variables.end() || found->second.count != 1)
        return std::nullopt;
    const Variable &v = found->second;
    switch (v.type) {
    case DataType::int8:
        return std::int8_t(v.data[0]);
    case DataType::int16: {
        std::int16_t value;
        std::memcpy(&value, v.data, sizeof value);
        return value;
    }
    case DataType::int32: {
        std::int32_t value;
        std::memcpy(&value, v.data, sizeof value);
        return value;
    }
    default:
        return std::nullopt;
    }
}

template <class T> void widen(const uchar *data, std::int64_t count, float *out)
{
    for (std::int64_t i = 0; i < count; ++i) {
        T value;
        std::memcpy(&value, data + i * std::int64_t(sizeof(T)), sizeof(T));
        out[i] = float(value);
    }
}

// Converts in chunks through an aligned buffer: the file places half floats at any byte offset.
void widenHalf(const uchar *data, std::int64_t count, float *out)
{
    std::array<qfloat16, 4096> chunk;
    for (std::int64_t done = 0; done < count;) {
        const auto n = std::min<std::int64_t>(count - done, std::int64_t(chunk.size()));
        std::memcpy(chunk.data(), data + done * 2, std::size_t(n) * 2);
        qFloatFromFloat16(out + done, chunk.data(), n);
        done += n;
    }
}

void widenBrain(const uchar *data, std::int64_t count, float *out)
{
    for (std::int64_t i = 0; i < count; ++i) {
        std::uint16_t high;
        std::memcpy(&high, data + i * 2, 2);
        const std::uint32_t bits = std::uint32_t(high) << 16;
        std::memcpy(out + i, &bits, 4);
    }
}

void widen(const Variable &variable, float *out)
{
    switch (variable.type) {
    case DataType::float32:
        std::memcpy(out, variable.data, std::size_t(variable.count) * 4);
        break;
    case DataType::float16:
        widenHalf(variable.data, variable.count, out);
        break;
    case DataType::bfloat16:
        widenBrain(variable.data, variable.count, out);
        break;
    case DataType::int8:
        widen<std::int8_t>(variable.data, variable.count, out);
        break;
    case DataType::int16:
        widen<std::int16_t>(variable.data, variable.count, out);
        break;
    case DataType::int32:
        widen<std::int32_t>(variable.data, variable.count, out);
        break;
    }
}

// Widens the variables into the model under their reference names. The first failure is kept and every later
// step is skipped, so the conversion reads as a plain list of steps.
class Converter {
public:
    Converter(const Variables &variables, QString file) : m_variables(variables), m_file(std::move(file)) {}

    const Variable *find(std::string_view name) const
    {
        const auto found = m_variables.find(name);
        return found == m_variables.end() ? nullptr : &found->second;
    }

    void copy(const std::string &from, const std::string &to, std::vector<std::int64_t> shape)
    {
        auto values = floats(from, shape);
        if (!values.empty())
            m_model.tensors[to] = Tensor{std::move(shape), std::move(values)};
    }

    // Splits a projection fused along its output rows into the parts named in `to` ("" drops a part), each
    // `rows` tall; `columns` is 0 for a bias. Fused biases carry a zero block for the key, which the reference
    // network has no bias for.
    void split(const std::string &from, const std::vector<std::string> &to, std::int64_t rows, std::int64_t columns)
    {
        const auto parts = std::int64_t(to.size());
        const auto shape = [&](std::int64_t height) {
            return columns > 0 ? std::vector<std::int64_t>{height, columns} : std::vector<std::int64_t>{height};
        };
        const auto values = floats(from, shape(parts * rows));
        if (values.empty())
            return;
        const std::int64_t partSize = rows * std::max<std::int64_t>(columns, 1);
        for (std::int64_t p = 0; p < parts; ++p) {
            if (to[std::size_t(p)].empty())
                continue;
            const auto begin = values.begin() + p * partSize;
            m_model.tensors[to[std::size_t(p)]] = Tensor{shape(rows), std::vector<float>(begin, begin + partSize)};
        }
    }

    void add(const std::string &to, Tensor tensor) { m_model.tensors[to] = std::move(tensor); }

    const std::optional<ModelError> &error() const { return m_error; }
    Model &model() { return m_model; }

private:
    // The variable in single precision, with a quantized weight divided back by its scales; empty on failure.
    std::vector<float> floats(const std::string &name, const std::vector<std::int64_t> &shape)
    {
        if (m_error)
            return {};
        const Variable *variable = find(name);
        const QString printable = QString::fromStdString(name);
        if (!variable)
            return fail(ModelError{QStringLiteral("The model file %1 lacks %2.").arg(m_file, printable)});
        if (variable->shape != shape || variable->count == 0)
            return fail(damaged(m_file, QStringLiteral("%1 has an unexpected shape").arg(printable)));
        std::vector<float> values(std::size_t(variable->count));
        widen(*variable, values.data());
        if (variable->type != DataType::int8 && variable->type != DataType::int16)
            return values;

        // Quantized rows hold round(w · scale), with one scale per output row or one for the whole tensor.
        const Variable *scale = find(name + "_scale");
        const std::int64_t rows = shape.front();
        if (!scale || scale->type == DataType::int8 || scale->type == DataType::int16 ||
            (scale->count != rows && scale->count != 1))
            return fail(damaged(m_file, QStringLiteral("%1 has no usable scales").arg(printable)));
        std::vector<float> scales(std::size_t(scale->count));
        widen(*scale, scales.data());
        const std::int64_t rowLength = variable->count / rows;
        for (std::int64_t r = 0; r < rows; ++r) {
            const float factor = scales[std::size_t(scale->count == 1 ? 0 : r)];
            if (!(factor > 0.0f) || !std::isfinite(factor))
                return fail(damaged(m_file, QStringLiteral("%1 has an invalid scale").arg(printable)));
            for (std::int64_t c = 0; c < rowLength; ++c)
                values[std::size_t(r * rowLength + c)] /= factor;
        }
        return values;
    }

    std::vector<float> fail(ModelError error)
    {
        m_error = std::move(error);
        return {};
    }

    const Variables &m_variables;
    QString m_file;
    Model m_model;
    std::optional<ModelError> m_error;
};

int countLayers(const Variables &variables, const std::string &prefix)
{
    int layers = 0;
    while (variables.contains(prefix + std::to_string(layers) + "/ffn/linear_0/weight"))
        ++layers;
    return layers;
}

const std::vector<std::int64_t> *shapeOf(const Variables &variables, std::string_view name)
{
    const auto found = variables.find(name);
    return found == variables.end() ? nullptr : &found->second.shape;
}

expected<Hyperparameters, ModelError> hyperparameters(const Variables &variables, const QString &file)
{
    const auto *embedding = shapeOf(variables, "decoder/embeddings/weight");
    const auto *conv1 = shapeOf(variables, "encoder/conv1/weight");
    const auto *textPositions = shapeOf(variables, "decoder/position_encodings/encodings");
    if (!embedding || embedding->size() != 2 || !conv1 || conv1->size() != 3 || !textPositions ||
        textPositions->size() != 2)
        return unexpected(ModelError{
            QStringLiteral("The model file %1 lacks the embeddings or the convolutions Whisper needs.").arg(file)});

    // Extents come from 32-bit fields; anything this large is damage, and the limits keep the casts exact.
    const auto within = [](std::int64_t value, std::int64_t limit) { return value > 0 && value <= limit; };
    const auto *audioPositions = shapeOf(variables, "encoder/position_encodings/encodings");
    const bool extentsSane = within((*embedding)[0], 1'000'000) && within((*embedding)[1], 16384) &&
                             within((*conv1)[1], 1024) && within((*textPositions)[0], 65536) &&
                             (!audioPositions || (audioPositions->size() == 2 && within((*audioPositions)[0], 65536)));
    if (!extentsSane)
        return unexpected(damaged(file, QStringLiteral("its sizes don't describe a Whisper network")));

    Hyperparameters h;
    h.vocabularySize = int((*embedding)[0]);
    h.textWidth = int((*embedding)[1]);
    h.textContext = int((*textPositions)[0]);
    h.audioWidth = int((*conv1)[0] == (*embedding)[1] ? (*embedding)[1] : 0);
    h.melBins = int((*conv1)[1]);
    // Whisper's encoder positions are sinusoids; some conversions leave them out for the runtime to compute.
    h.audioContext = audioPositions ? int((*audioPositions)[0]) : 1500;
    h.audioLayers = countLayers(variables, "encoder/layer_");
    h.textLayers = countLayers(variables, "decoder/layer_");
    // Every published size has 64-wide heads; the file states the count from revision 3 on.
    h.audioHeads = int(integerSetting(variables, "encoder/num_heads").value_or(h.audioWidth / 64));
    h.textHeads = int(integerSetting(variables, "decoder/num_heads").value_or(h.textWidth / 64));

    const bool sane = h.audioWidth >= 4 && h.audioWidth % 2 == 0 && h.audioLayers > 0 && h.textLayers > 0 &&
                      h.audioHeads > 0 && h.textHeads > 0 && h.audioWidth % h.audioHeads == 0 &&
                      h.textWidth % h.textHeads == 0 && (*textPositions)[1] == h.textWidth &&
                      (!audioPositions || (*audioPositions)[1] == h.audioWidth);
    if (!sane)
        return unexpected(damaged(file, QStringLiteral("its sizes don't describe a Whisper network")));
    return h;
}

std::vector<float> sinusoids(int positions, int width)
{
    std::vector<float> values(std::size_t(positions) * std::size_t(width));
    const int half = width / 2;
    const double increment = std::log(10000.0) / (half - 1);
    for (int p = 0; p < positions; ++p)
        for (int i = 0; i < half; ++i) {
            const double angle = p * std::exp(-increment * i);
            values[std::size_t(p * width + i)] = float(std::sin(angle));
            values[std::size_t(p * width + half + i)] = float(std::cos(angle));
        }
    return values;
}

void convertAttention(Converter &c, const std::string &from, const std::string &to, bool fused, std::int64_t d)
{
    if (fused) {
        c.split(from + "/linear_0/weight", {to + ".query.weight", to + ".key.weight", to + ".value.weight"}, d, d);
        c.split(from + "/linear_0/bias", {to + ".query.bias", "", to + ".value.bias"}, d, 0);
        c.copy(from + "/linear_1/weight", to + ".out.weight", {d, d});
        c.copy(from + "/linear_1/bias", to + ".out.bias", {d});
    } else {
        c.copy(from + "/linear_0/weight", to + ".query.weight", {d, d});
        c.copy(from + "/linear_0/bias", to + ".query.bias", {d});
        c.split(from + "/linear_1/weight", {to + ".key.weight", to + ".value.weight"}, d, d);
        c.split(from + "/linear_1/bias", {"", to + ".value.bias"}, d, 0);
        c.copy(from + "/linear_2/weight", to + ".out.weight", {d, d});
        c.copy(from + "/linear_2/bias", to + ".out.bias", {d});
    }
}

void convertLayerNorm(Converter &c, const std::string &from, const std::string &to, std::int64_t d)
{
    c.copy(from + "/gamma", to + ".weight", {d});
    c.copy(from + "/beta", to + ".bias", {d});
}

void convertBlock(Converter &c, const std::string &from, const std::string &to, bool decoder, std::int64_t d)
{
    convertLayerNorm(c, from + "/self_attention/layer_norm", to + ".attn_ln", d);
    convertAttention(c, from + "/self_attention", to + ".attn", true, d);
    if (decoder) {
        convertLayerNorm(c, from + "/attention/layer_norm", to + ".cross_attn_ln", d);
        convertAttention(c, from + "/attention", to + ".cross_attn", false, d);
    }
    convertLayerNorm(c, from + "/ffn/layer_norm", to + ".mlp_ln", d);
    c.copy(from + "/ffn/linear_0/weight", to + ".mlp.0.weight", {4 * d, d});
    c.copy(from + "/ffn/linear_0/bias", to + ".mlp.0.bias", {4 * d});
    c.copy(from + "/ffn/linear_1/weight", to + ".mlp.2.weight", {d, 4 * d});
    c.copy(from + "/ffn/linear_1/bias", to + ".mlp.2.bias", {d});
}

void convertNetwork(Converter &c, const Hyperparameters &h)
{
    const std::int64_t d = h.audioWidth;
    c.copy("encoder/conv1/weight", "encoder.conv1.weight", {d, h.melBins, 3});
    c.copy("encoder/conv1/bias", "encoder.conv1.bias", {d});
    c.copy("encoder/conv2/weight", "encoder.conv2.weight", {d, d, 3});
    c.copy("encoder/conv2/bias", "encoder.conv2.bias", {d});
    if (c.find("encoder/position_encodings/encodings"))
        c.copy("encoder/position_encodings/encodings", "encoder.positional_embedding", {h.audioContext, d});
    else
        c.add("encoder.positional_embedding", Tensor{{h.audioContext, d}, sinusoids(h.audioContext, int(d))});
    for (int i = 0; i < h.audioLayers; ++i)
        convertBlock(c, "encoder/layer_" + std::to_string(i), "encoder.blocks." + std::to_string(i), false, d);
    convertLayerNorm(c, "encoder/layer_norm", "encoder.ln_post", d);

    c.copy("decoder/embeddings/weight", "decoder.token_embedding.weight", {h.vocabularySize, d});
    c.copy("decoder/position_encodings/encodings", "decoder.positional_embedding", {h.textContext, d});
    for (int i = 0; i < h.textLayers; ++i)
        convertBlock(c, "decoder/layer_" + std::to_string(i), "decoder.blocks." + std::to_string(i), true, d);
    convertLayerNorm(c, "decoder/layer_norm", "decoder.ln", d);
}

// GPT-2's byte-level alphabet: printable bytes stand for themselves, the other 68 for U+0100 onwards in order.
std::array<int, 324> unicodeToByte()
{
    std::array<int, 324> table;
    table.fill(-1);
    int next = 256;
    for (int b = 0; b < 256; ++b) {
        const bool printable = (b >= 0x21 && b <= 0x7e) || (b >= 0xa1 && b <= 0xac) || (b >= 0xae && b <= 0xff);
        table[std::size_t(printable ? b : next++)] = b;
    }
    return table;
}

std::string tokenBytes(const QString &token, const std::array<int, 324> &table)
{
    std::string bytes;
    bytes.reserve(std::size_t(token.size()));
    for (const char32_t c : token.toUcs4()) {
        if (c >= table.size() || table[c] < 0)
            return token.toStdString(); // not byte-level text; a special token's name, kept as written
        bytes.push_back(char(table[c]));
    }
    return bytes;
}

expected<std::vector<std::string>, ModelError> readVocabulary(const QDir &directory, int vocabularySize)
{
    QStringList tokens;
    QFile json(directory.filePath(QStringLiteral("vocabulary.json")));
    QFile text(directory.filePath(QStringLiteral("vocabulary.txt")));
    if (json.open(QIODevice::ReadOnly)) {
        const auto document = QJsonDocument::fromJson(json.readAll());
        if (!document.isArray())
            return unexpected(ModelError{QStringLiteral("The vocabulary file %1 is damaged.").arg(json.fileName())});
        for (const auto &entry : document.array())
            tokens.append(entry.toString());
    } else if (text.open(QIODevice::ReadOnly)) {
        tokens = QString::fromUtf8(text.readAll()).split(u'\n');
        if (!tokens.isEmpty() && tokens.back().isEmpty())
            tokens.removeLast();
    } else {
        return unexpected(ModelError{QStringLiteral("The model in %1 has no vocabulary.json.").arg(directory.path())});
    }
    if (tokens.size() > vocabularySize || tokens.size() < 50256)
        return unexpected(ModelError{QStringLiteral("The vocabulary in %1 doesn't match its model (%2 tokens for %3).")
                                         .arg(directory.path())
                                         .arg(tokens.size())
                                         .arg(vocabularySize)});

    const auto table = unicodeToByte();
    std::vector<std::string> vocabulary;
    vocabulary.reserve(std::size_t(tokens.size()));
    for (const auto &token : std::as_const(tokens))
        vocabulary.push_back(tokenBytes(token, table));
    return vocabulary;
}

} // namespace

expected<Model, ModelError> loadCTranslate2Model(const QString &directoryPath)
{
    const QDir directory(directoryPath);
    QFile file(directory.filePath(QStringLiteral("model.bin")));
    if (!file.exists())
        return unexpected(ModelError{QStringLiteral("The folder %1 has no model.bin.").arg(directoryPath)});
    if (!file.open(QIODevice::ReadOnly))
        return unexpected(ModelError{
            QStringLiteral("The model file %1 can't be read: %2.").arg(file.fileName(), file.errorString())});
    const qint64 size = file.size();
    const uchar *data = size > 0 ? file.map(0, size) : nullptr;
    if (!data)
        return unexpected(ModelError{
            size == 0
                ? QStringLiteral("The model file %1 is empty.").arg(file.fileName())
                : QStringLiteral("The model file %1 can't be read: %2.").arg(file.fileName(), file.errorString())});

    auto variables = readVariables(data, size, file.fileName());
    if (!variables)
        return unexpected(variables.error());
    auto hparams = hyperparameters(*variables, file.fileName());
    if (!hparams)
        return unexpected(hparams.error());

    // Checked before the weights are widened, so a bad folder fails fast.
    const QString configPath = directory.filePath(QStringLiteral("config.json"));
    std::vector<AlignmentHead> alignmentHeads;
    if (QFile config(configPath); config.open(QIODevice::ReadOnly)) {
        const QJsonDocument settings = QJsonDocument::fromJson(config.readAll());
        if (!settings.isObject())
            return unexpected(ModelError{QStringLiteral("The model settings %1 are damaged.").arg(configPath)});
        // Pairs of decoder layer and head; anything else leaves the published heads for the model's shape.
        for (const QJsonValue &pair : settings.object().value(QLatin1String("alignment_heads")).toArray()) {
            const QJsonArray p = pair.toArray();
            const int layer = p.at(0).toInt(-1), head = p.at(1).toInt(-1);
            if (p.size() == 2 && layer >= 0 && layer < hparams->textLayers && head >= 0 && head < hparams->textHeads)
                alignmentHeads.push_back({layer, head});
        }
    }
    auto vocabulary = readVocabulary(directory, hparams->vocabularySize);
    if (!vocabulary)
        return unexpected(vocabulary.error());

    Converter converter(*variables, file.fileName());
    convertNetwork(converter, *hparams);
    if (converter.error())
        return unexpected(*converter.error());
    Model model = std::move(converter.model());
    model.hparams = *hparams;
    model.vocabulary = std::move(*vocabulary);
    model.alignmentHeads = std::move(alignmentHeads);
    return model;
}

} // namespace qm::whisper
