#include "transcription/whisper/whispermodel.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QTemporaryDir>
#include <QTest>
#include <qfloat16.h>

#include <cstring>
#include <functional>

using namespace qm::whisper;

namespace {

// Data types as the format numbers them.
enum : std::uint8_t { f32 = 0, i8 = 1, i16 = 2, f16 = 4 };

constexpr int width = 8;
constexpr int heads = 2;
constexpr int mels = 4;
constexpr int vocabularySize = 50260;
constexpr int textContext = 6;
constexpr int audioContext = 5;

struct Variable {
    std::string name;
    std::vector<std::uint32_t> dims;
    std::uint8_t type = f32;
    QByteArray data;
};

// Element `i` of a variable whose row r, column c holds r + c / 1000, so a split shows which rows went where.
float pattern(std::int64_t i, std::int64_t columns)
{
    return float(i / columns) + float(i % columns) / 1000.0f;
}

// Quantized types get one scale per row, 127 (or 32767) over the row's largest magnitude, as the converter
// computes them; `scales` receives them.
QByteArray encode(std::int64_t count, std::int64_t columns, std::uint8_t type, QByteArray *scales = nullptr)
{
    QByteArray bytes;
    float scale = 1.0f;
    for (std::int64_t i = 0; i < count; ++i) {
        const float value = pattern(i, columns);
        if (i % columns == 0 && scales) {
            scale = (type == i8 ? 127.0f : 32767.0f) / pattern(i + columns - 1, columns);
            scales->append(reinterpret_cast<const char *>(&scale), 4);
        }
        if (type == f32) {
            bytes.append(reinterpret_cast<const char *>(&value), 4);
        } else if (type == f16) {
            const qfloat16 half(value);
            bytes.append(reinterpret_cast<const char *>(&half), 2);
        } else if (type == i8) {
            bytes.append(char(std::int8_t(std::lround(value * scale))));
        } else {
            const auto q = std::int16_t(std::lround(value * scale));
            bytes.append(reinterpret_cast<const char *>(&q), 2);
        }
    }
    return bytes;
}

// A complete, tiny Whisper network in CTranslate2's layout, written the way the converter lays it out.
class ModelWriter {
public:
    ModelWriter()
    {
        scalar("encoder/num_heads", heads);
        scalar("decoder/num_heads", heads);
        tensor("encoder/conv1/weight", {width, mels, 3});
        tensor("encoder/conv1/bias", {width});
        tensor("encoder/conv2/weight", {width, width, 3});
        tensor("encoder/conv2/bias", {width});
        tensor("encoder/position_encodings/encodings", {audioContext, width});
        layer("encoder/layer_0", false);
        norm("encoder/layer_norm");
        tensor("decoder/embeddings/weight", {vocabularySize, width}, f16);
        tensor("decoder/position_encodings/encodings", {textContext, width});
        layer("decoder/layer_0", true);
        norm("decoder/layer_norm");
        aliases.push_back({"decoder/projection/weight", "decoder/embeddings/weight"});
    }

    void tensor(const std::string &name, std::vector<std::uint32_t> dims, std::uint8_t type = f32)
    {
        std::int64_t count = 1;
        for (auto d : dims)
            count *= d;
        const bool quantized = type == i8 || type == i16;
        const std::int64_t columns = dims.size() > 1 ? count / dims[0] : 1;
        QByteArray scales;
        variables.push_back({name, dims, type, encode(count, columns, type, quantized ? &scales : nullptr)});
        if (quantized)
            variables.push_back({name + "_scale", {dims[0]}, f32, scales});
    }

    void scalar(const std::string &name, std::int16_t value)
    {
        variables.push_back({name, {}, i16, QByteArray(reinterpret_cast<const char *>(&value), 2)});
    }

    void remove(const std::string &name)
    {
        std::erase_if(variables, [&](const Variable &v) { return v.name == name; });
    }

    Variable &find(const std::string &name)
    {
        return *std::find_if(variables.begin(), variables.end(), [&](const Variable &v) { return v.name == name; });
    }

    QByteArray bytes(std::int32_t version = 6, const std::string &spec = "WhisperSpec") const
    {
        QByteArray out;
        const auto put = [&out](auto value) { out.append(reinterpret_cast<const char *>(&value), sizeof value); };
        const auto text = [&](const std::string &s) {
            put(std::uint16_t(s.size() + 1));
            out.append(s.data(), qsizetype(s.size()));
            out.append('\0');
        };
        put(version);
        text(spec);
        put(std::int32_t(3));
        put(std::uint32_t(variables.size()));
        for (const auto &v : variables) {
            text(v.name);
            put(std::uint8_t(v.dims.size()));
            for (auto d : v.dims)
                put(d);
            put(v.type);
            put(std::uint32_t(v.data.size()));
            out.append(v.data);
        }
        put(std::uint32_t(aliases.size()));
        for (const auto &[alias, target] : aliases) {
            text(alias);
            text(target);
        }
        return out;
    }

    std::vector<Variable> variables;
    std::vector<std::pair<std::string, std::string>> aliases;

private:
    void norm(const std::string &prefix)
    {
        tensor(prefix + "/gamma", {width});
        tensor(prefix + "/beta", {width});
    }

    void linear(const std::string &prefix, std::uint32_t out, std::uint32_t in, std::uint8_t type = f32)
    {
        tensor(prefix + "/weight", {out, in}, type);
        tensor(prefix + "/bias", {out});
    }

    void layer(const std::string &prefix, bool decoder)
    {
        norm(prefix + "/self_attention/layer_norm");
        linear(prefix + "/self_attention/linear_0", 3 * width, width, f16);
        linear(prefix + "/self_attention/linear_1", width, width);
        if (decoder) {
            norm(prefix + "/attention/layer_norm");
            linear(prefix + "/attention/linear_0", width, width);
            linear(prefix + "/attention/linear_1", 2 * width, width);
            linear(prefix + "/attention/linear_2", width, width);
        }
        norm(prefix + "/ffn/layer_norm");
        linear(prefix + "/ffn/linear_0", 4 * width, width, i8);
        linear(prefix + "/ffn/linear_1", width, 4 * width, i16);
    }
};

// The GPT-2 byte alphabet's spelling of a few tokens, then filler up to the model's size.
QByteArray vocabularyJson(int count)
{
    QJsonArray tokens{QStringLiteral("!"), QString::fromUtf8("Ġthe"), QString::fromUtf8("Ċ"), QString::fromUtf8("âĢĻ"),
                      QString::fromUtf8("<|endoftext|>")};
    while (tokens.size() < count)
        tokens.append(QStringLiteral("t%1").arg(tokens.size()));
    return QJsonDocument(tokens).toJson(QJsonDocument::Compact);
}

void write(const QString &path, const QByteArray &bytes)
{
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    QCOMPARE(file.write(bytes), bytes.size());
}

// One row of a loaded tensor, as the pattern wrote it.
bool rowIs(const Tensor &t, std::int64_t row, float expectedRow)
{
    const std::int64_t columns = t.shape.size() > 1 ? t.shape[1] : 1;
    for (std::int64_t c = 0; c < columns; ++c) {
        const float expected = expectedRow + (columns > 1 ? float(c) / 1000.0f : 0.0f);
        // Within half an int8 step of the row's largest value, which covers half floats too.
        if (std::abs(t.values[std::size_t(row * columns + c)] - expected) > 0.5f * (expectedRow + 0.01f) / 127.0f)
            return false;
    }
    return true;
}

} // namespace

class TestCTranslate2Loader : public QObject {
    Q_OBJECT

    QTemporaryDir m_dir;

    QString folder(const ModelWriter &writer, const QByteArray &modelBytes = {})
    {
        static int serial = 0;
        const QString path = m_dir.filePath(QString::number(++serial));
        QDir().mkpath(path);
        write(path + QStringLiteral("/model.bin"), modelBytes.isNull() ? writer.bytes() : modelBytes);
        static const QByteArray vocabulary = vocabularyJson(vocabularySize);
        write(path + QStringLiteral("/vocabulary.json"), vocabulary);
        write(path + QStringLiteral("/config.json"), "{\"suppress_ids\":[]}");
        return path;
    }

private Q_SLOTS:
    void fusedProjectionsAreSplitIntoReferenceNames()
    {
        const auto loaded = loadCTranslate2Model(folder(ModelWriter()));
        QVERIFY2(loaded, qPrintable(loaded ? QString() : loaded.error().reason));
        const Model &m = *loaded;

        QCOMPARE(m.hparams.vocabularySize, vocabularySize);
        QCOMPARE(m.hparams.audioWidth, width);
        QCOMPARE(m.hparams.textWidth, width);
        QCOMPARE(m.hparams.audioHeads, heads);
        QCOMPARE(m.hparams.audioLayers, 1);
        QCOMPARE(m.hparams.textLayers, 1);
        QCOMPARE(m.hparams.melBins, mels);
        QCOMPARE(m.hparams.audioContext, audioContext);
        QCOMPARE(m.hparams.textContext, textContext);

        // Self-attention: rows 0…d-1 are the query, d…2d-1 the key, 2d…3d-1 the value.
        for (const char *block : {"encoder.blocks.0.attn", "decoder.blocks.0.attn"}) {
            const std::string b(block);
            const Tensor *query = m.tensor(b + ".query.weight");
            const Tensor *key = m.tensor(b + ".key.weight");
            const Tensor *value = m.tensor(b + ".value.weight");
            QVERIFY(query && key && value);
            QCOMPARE(key->shape, (std::vector<std::int64_t>{width, width}));
            QVERIFY(rowIs(*query, 0, 0) && rowIs(*key, 0, width) && rowIs(*value, width - 1, 3 * width - 1));
            QVERIFY(m.tensor(b + ".query.bias") && m.tensor(b + ".value.bias"));
            QVERIFY(!m.tensor(b + ".key.bias"));
            QCOMPARE(m.tensor(b + ".value.bias")->values.front(), float(2 * width));
        }
        // Cross-attention: the query stands alone, key and value share one projection.
        const Tensor *crossKey = m.tensor("decoder.blocks.0.cross_attn.key.weight");
        const Tensor *crossValue = m.tensor("decoder.blocks.0.cross_attn.value.weight");
        QVERIFY(crossKey && crossValue && m.tensor("decoder.blocks.0.cross_attn.out.weight"));
        QVERIFY(rowIs(*crossKey, 1, 1) && rowIs(*crossValue, 0, width));
        QVERIFY(!m.tensor("decoder.blocks.0.cross_attn.key.bias"));
        QCOMPARE(m.tensor("decoder.blocks.0.cross_attn.value.bias")->values.front(), float(width));

        // Quantized weights come back divided by their row scales.
        const Tensor *up = m.tensor("encoder.blocks.0.mlp.0.weight");
        QVERIFY(up && rowIs(*up, 3, 3) && rowIs(*up, 4 * width - 1, 4 * width - 1));
        QVERIFY(rowIs(*m.tensor("decoder.blocks.0.mlp.2.weight"), width - 1, width - 1));

        for (const char *name :
             {"encoder.conv1.weight", "encoder.conv2.bias", "encoder.positional_embedding", "encoder.ln_post.weight",
              "encoder.blocks.0.attn_ln.bias", "encoder.blocks.0.mlp_ln.weight", "decoder.token_embedding.weight",
              "decoder.positional_embedding", "decoder.ln.bias", "decoder.blocks.0.cross_attn_ln.weight",
              "decoder.blocks.0.attn.out.bias"})
            QVERIFY2(m.tensor(name), name);
        QCOMPARE(m.tensor("encoder.conv1.weight")->shape, (std::vector<std::int64_t>{width, mels, 3}));
        QVERIFY(rowIs(*m.tensor("decoder.token_embedding.weight"), 2, 2));

        QCOMPARE(m.vocabulary.size(), std::size_t(vocabularySize));
        QCOMPARE(m.vocabulary[1], std::string(" the"));
        QCOMPARE(m.vocabulary[2], std::string("\n"));
        QCOMPARE(m.vocabulary[3], std::string("\xe2\x80\x99")); // ’ as three raw bytes
        QCOMPARE(m.vocabulary[4], std::string("<|endoftext|>"));
    }

    void readsVocabularyText()
    {
        const QString path = folder(ModelWriter());
        QFile::remove(path + QStringLiteral("/vocabulary.json"));
        QByteArray lines;
        for (const auto &token : QJsonDocument::fromJson(vocabularyJson(vocabularySize)).array())
            lines += token.toString().toUtf8() + '\n';
        write(path + QStringLiteral("/vocabulary.txt"), lines);
        const auto loaded = loadCTranslate2Model(path);
        QVERIFY(loaded);
        QCOMPARE(loaded->vocabulary[1], std::string(" the"));
        QCOMPARE(loaded->vocabulary.size(), std::size_t(vocabularySize));
    }

    void missingEncoderPositionsAreSinusoids()
    {
        ModelWriter writer;
        writer.remove("encoder/position_encodings/encodings");
        const auto loaded = loadCTranslate2Model(folder(writer));
        QVERIFY(loaded);
        QCOMPARE(loaded->hparams.audioContext, 1500);
        const Tensor *positions = loaded->tensor("encoder.positional_embedding");
        QVERIFY(positions);
        // Position 0: sin 0 in the first half, cos 0 in the second.
        QCOMPARE(positions->values[0], 0.0f);
        QCOMPARE(positions->values[width / 2], 1.0f);
    }

    void rejectsDamage_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<QString>("reason");

        const QByteArray whole = ModelWriter().bytes();
        QTest::newRow("empty") << QByteArray("") << QStringLiteral("empty");
        QTest::newRow("cut in the header") << whole.left(10) << QStringLiteral("Whisper model");
        QTest::newRow("cut in a variable") << whole.left(whole.size() / 2) << QStringLiteral("cut short");
        QTest::newRow("cut in the aliases") << whole.left(whole.size() - 3) << QStringLiteral("cut short");
        QTest::newRow("older version") << ModelWriter().bytes(5) << QStringLiteral("version 5");
        QTest::newRow("another spec") << ModelWriter().bytes(6, "TransformerSpec") << QStringLiteral("TransformerSpec");

        ModelWriter huge;
        huge.find("encoder/conv1/bias").dims = {4'000'000'000u, 4'000'000'000u};
        QTest::newRow("dimensions beyond the file") << huge.bytes() << QStringLiteral("doesn't match its shape");
        ModelWriter badType;
        badType.find("encoder/conv1/bias").type = 9;
        QTest::newRow("unknown data type") << badType.bytes() << QStringLiteral("data type 9");
        ModelWriter missing;
        missing.remove("decoder/layer_norm/gamma");
        QTest::newRow("missing tensor") << missing.bytes() << QStringLiteral("lacks decoder/layer_norm/gamma");
        ModelWriter noScale;
        noScale.remove("encoder/layer_0/ffn/linear_0/weight_scale");
        QTest::newRow("int8 without scales") << noScale.bytes() << QStringLiteral("no usable scales");
        ModelWriter wrongShape;
        wrongShape.find("decoder/layer_0/attention/linear_1/weight").dims = {width, 2 * width};
        QTest::newRow("wrong fused shape") << wrongShape.bytes() << QStringLiteral("unexpected shape");
        ModelWriter noHeadsFit;
        noHeadsFit.remove("encoder/num_heads");
        noHeadsFit.scalar("encoder/num_heads", 3);
        QTest::newRow("heads don't divide the width") << noHeadsFit.bytes() << QStringLiteral("sizes");
    }

    void rejectsDamage()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(QString, reason);
        const auto loaded = loadCTranslate2Model(folder(ModelWriter(), bytes));
        QVERIFY(!loaded);
        QVERIFY2(loaded.error().reason.contains(reason), qPrintable(loaded.error().reason));
    }

    void rejectsIncompleteFolders_data()
    {
        QTest::addColumn<QString>("removed");
        QTest::addColumn<QByteArray>("replacement");
        QTest::addColumn<QString>("reason");
        QTest::newRow("no model.bin") << QStringLiteral("model.bin") << QByteArray() << QStringLiteral("no model.bin");
        QTest::newRow("no vocabulary") << QStringLiteral("vocabulary.json") << QByteArray()
                                       << QStringLiteral("no vocabulary");
        QTest::newRow("vocabulary larger than the model")
            << QStringLiteral("vocabulary.json") << vocabularyJson(vocabularySize + 1)
            << QStringLiteral("doesn't match");
        QTest::newRow("damaged vocabulary")
            << QStringLiteral("vocabulary.json") << QByteArray("[\"a\",") << QStringLiteral("vocabulary file");
        QTest::newRow("damaged settings")
            << QStringLiteral("config.json") << QByteArray("{") << QStringLiteral("settings");
    }

    void rejectsIncompleteFolders()
    {
        QFETCH(QString, removed);
        QFETCH(QByteArray, replacement);
        QFETCH(QString, reason);
        const QString path = folder(ModelWriter());
        QFile::remove(path + u'/' + removed);
        if (!replacement.isNull())
            write(path + u'/' + removed, replacement);
        const auto loaded = loadCTranslate2Model(path);
        QVERIFY(!loaded);
        QVERIFY2(loaded.error().reason.contains(reason), qPrintable(loaded.error().reason));
    }

    // Real weights when scripts/fetch-test-model has cached them.
    void realModel()
    {
        const QString path = qEnvironmentVariable("QM_TEST_MODEL_DIR");
        if (path.isEmpty())
            QSKIP("QM_TEST_MODEL_DIR is not set: run scripts/fetch-test-model to test real weights.");
        const auto loaded = loadCTranslate2Model(path);
        QVERIFY2(loaded, qPrintable(loaded ? QString() : loaded.error().reason));
        const Hyperparameters &h = loaded->hparams;
        QCOMPARE(h.melBins, 80);
        QCOMPARE(h.audioContext, 1500);
        QCOMPARE(h.textContext, 448);
        QCOMPARE(h.audioWidth / h.audioHeads, 64);
        QVERIFY(h.vocabularySize == 51864 || h.vocabularySize == 51865);
        const std::int64_t d = h.audioWidth;
        const std::size_t perEncoderBlock = 15, perDecoderBlock = 24;
        QCOMPARE(loaded->tensors.size(),
                 7 + perEncoderBlock * std::size_t(h.audioLayers) + 4 + perDecoderBlock * std::size_t(h.textLayers));
        QCOMPARE(loaded->tensor("decoder.blocks.0.cross_attn.key.weight")->shape, (std::vector<std::int64_t>{d, d}));
        QCOMPARE(loaded->tensor("encoder.blocks.0.mlp.0.weight")->shape, (std::vector<std::int64_t>{4 * d, d}));
        const int eot = h.multilingual() ? 50257 : 50256;
        QCOMPARE(loaded->vocabulary.at(std::size_t(eot)), std::string("<|endoftext|>"));
        QCOMPARE(loaded->vocabulary.at(11), std::string(","));
    }
};

QTEST_GUILESS_MAIN(TestCTranslate2Loader)
#include "tst_ctranslate2loader.moc"
