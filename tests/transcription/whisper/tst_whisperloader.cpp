#include "transcription/whisper/eightbit.h"
#include "transcription/whisper/frontend.h"
#include "transcription/whisper/kernels.h"
#include "transcription/whisper/network.h"
#include "transcription/whisper/tokens.h"
#include "transcription/whisper/whispermodel.h"

#include <QBuffer>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

#include <cmath>
#include <cstring>
#include <limits>

using namespace qm::whisper;

namespace {

// Little-endian pieces of a ggml file.
QByteArray int32s(std::initializer_list<std::int32_t> values)
{
    QByteArray out;
    for (std::int32_t v : values)
        out.append(reinterpret_cast<const char *>(&v), sizeof v);
    return out;
}

QByteArray halfBytes(std::uint16_t h)
{
    return QByteArray(reinterpret_cast<const char *>(&h), 2);
}

// Magic, tiny but plausible sizes, no mel filters, a three-token vocabulary.
QByteArray header()
{
    QByteArray out = int32s({0x67676d6c, 51864, 1500, 64, 2, 1, 448, 64, 2, 1, 80, 1});
    out += int32s({0, 0});
    out += int32s({3, 1}) + "a" + int32s({2}) + "bc" + int32s({0});
    return out;
}

QByteArray tensorRecord(const QByteArray &name, std::int32_t type, std::initializer_list<std::int32_t> extents,
                        const QByteArray &data)
{
    return int32s({std::int32_t(extents.size()), std::int32_t(name.size()), type}) + int32s(extents) + name + data;
}

QString writeFile(QTemporaryDir &dir, const QByteArray &bytes)
{
    const QString path = dir.filePath(QStringLiteral("model-%1.bin").arg(qHash(bytes)));
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        return {};
    file.write(bytes);
    return path;
}

} // namespace

class TestWhisperLoader : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void dequantizesEachType_data()
    {
        QTest::addColumn<int>("type");
        QTest::addColumn<QByteArray>("block");
        QTest::addColumn<QList<float>>("expected");

        // Scale 0.5 (0x3800), offset −1 (0xbc00) where the form has one.
        QByteArray q8 = halfBytes(0x3800);
        QList<float> q8Values;
        for (int j = 0; j < 32; ++j) {
            q8.append(char(std::int8_t(j - 16)));
            q8Values.append(0.5f * float(j - 16));
        }
        QTest::newRow("q8_0") << 8 << q8 << q8Values;

        // Nibble j is weight j, its high nibble weight j + 16; the mask's bit j is the fifth bit of weight j.
        const auto fiveBit = [](bool offset) {
            QByteArray block = halfBytes(0x3800);
            if (offset)
                block += halfBytes(0xbc00);
            const std::uint32_t mask = 0x8000'0001u; // weight 0 and weight 31 get the fifth bit
            block.append(reinterpret_cast<const char *>(&mask), 4);
            QList<float> values(32);
            for (int j = 0; j < 16; ++j) {
                const int low = j, high = 15 - j;
                block.append(char(low | high << 4));
                const int lowQ = low | (j == 0 ? 16 : 0), highQ = high | (j == 15 ? 16 : 0);
                values[j] = offset ? 0.5f * float(lowQ) - 1.0f : 0.5f * float(lowQ - 16);
                values[j + 16] = offset ? 0.5f * float(highQ) - 1.0f : 0.5f * float(highQ - 16);
            }
            return std::pair(block, values);
        };
        QTest::newRow("q5_0") << 6 << fiveBit(false).first << fiveBit(false).second;
        QTest::newRow("q5_1") << 7 << fiveBit(true).first << fiveBit(true).second;

        QByteArray f16;
        QList<float> f16Values;
        for (int j = 0; j < 32; ++j) {
            // 1.0, −2.0, 0.5, 65504 (largest), a subnormal, then zeros.
            static const std::uint16_t bits[] = {0x3c00, 0xc000, 0x3800, 0x7bff, 0x0001};
            static const float values[] = {1.0f, -2.0f, 0.5f, 65504.0f, 5.9604644775390625e-8f};
            f16 += halfBytes(j < 5 ? bits[j] : 0);
            f16Values.append(j < 5 ? values[j] : 0.0f);
        }
        QTest::newRow("f16") << 1 << f16 << f16Values;

        QByteArray f32;
        QList<float> f32Values;
        for (int j = 0; j < 32; ++j) {
            const float v = float(j) * 0.25f - 3.0f;
            f32.append(reinterpret_cast<const char *>(&v), 4);
            f32Values.append(v);
        }
        QTest::newRow("f32") << 0 << f32 << f32Values;
    }

    void dequantizesEachType()
    {
        QFETCH(int, type);
        QFETCH(QByteArray, block);
        QFETCH(QList<float>, expected);
        QTemporaryDir dir;
        const QString path = writeFile(dir, header() + tensorRecord("w", type, {32, 1}, block));
        const auto model = loadGgmlModel(path);
        QVERIFY2(model, model ? "" : qPrintable(model.error().reason));
        const Tensor *w = model->tensor("w");
        QVERIFY(w);
        QCOMPARE(w->shape, (std::vector<std::int64_t>{1, 32}));
        QCOMPARE(QList<float>(w->values.begin(), w->values.end()), expected);
        QCOMPARE(model->hparams.vocabularySize, 51864);
        QCOMPARE(model->vocabulary, (std::vector<std::string>{"a", "bc", ""}));
    }

    void rejectsDamagedFiles_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<QString>("reason");

        const QByteArray good = header() + tensorRecord("w", 0, {32, 2}, QByteArray(256, '\0'));
        QTest::newRow("empty") << QByteArray() << QStringLiteral("empty");
        QTest::newRow("wrong magic") << QByteArray("GGUF") + good.mid(4) << QStringLiteral("isn't a speech model");
        for (int cut : {6, 30, 52, 60, 70, 80, int(good.size()) - 1})
            QTest::newRow(qPrintable(QStringLiteral("cut at %1").arg(cut)))
                << good.left(cut) << QStringLiteral("cut short");

        QByteArray noHeads = header();
        std::memset(noHeads.data() + 16, 0, 4);
        QTest::newRow("zero heads") << noHeads << QStringLiteral("sizes");
        QByteArray hugeVocabulary = header();
        const std::int32_t huge = 0x7fffffff;
        std::memcpy(hugeVocabulary.data() + 56, &huge, 4);
        QTest::newRow("vocabulary count") << hugeVocabulary << QStringLiteral("vocabulary");
        QTest::newRow("huge tensor") << header() + tensorRecord("w", 0, {1 << 30, 1 << 30}, {})
                                     << QStringLiteral("damaged");
        QTest::newRow("unknown type") << header() + tensorRecord("w", 12, {32}, QByteArray(64, '\0'))
                                      << QStringLiteral("weight type (12)");
        QTest::newRow("partial block") << header() + tensorRecord("w", 8, {16}, QByteArray(34, '\0'))
                                       << QStringLiteral("partial block");
        QTest::newRow("no weights") << header() << QStringLiteral("no weights");
    }

    void rejectsDamagedFiles()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(QString, reason);
        QTemporaryDir dir;
        const auto model = loadGgmlModel(writeFile(dir, bytes));
        QVERIFY(!model);
        QVERIFY2(model.error().reason.contains(reason), qPrintable(model.error().reason));
    }

    void halfPrecision_data()
    {
        QTest::addColumn<float>("value");
        QTest::addColumn<float>("expected");
        QTest::newRow("one") << 1.0f << 1.0f;
        QTest::newRow("negative") << -2.5f << -2.5f;
        QTest::newRow("largest") << 65504.0f << 65504.0f;
        QTest::newRow("beyond the largest") << 70000.0f << std::numeric_limits<float>::infinity();
        QTest::newRow("subnormal") << 3e-7f << 17 * 5.9604644775390625e-8f;
        QTest::newRow("ties to even") << 1.0f + 1.5f / 1024 << 1.0f + 2.0f / 1024;
    }

    void halfPrecision()
    {
        QFETCH(float, value);
        QFETCH(float, expected);
        QCOMPARE(kernels::halfToFloat(kernels::floatToHalf(value)), expected);
        std::uint16_t wide[16];
        const std::vector<float> sixteen(16, value);
        kernels::toHalf(sixteen.data(), wide, 16);
        QCOMPARE(kernels::halfToFloat(wide[15]), expected);
    }

    // Rows longer than a vector register with a ragged end, against a plain sum.
    void halfMatrixVectorProduct()
    {
        const std::size_t rows = 5, columns = 37;
        std::vector<float> weights(rows * columns), x(columns);
        for (std::size_t i = 0; i < weights.size(); ++i)
            weights[i] = float(int(i % 7) - 3) * 0.25f;
        for (std::size_t i = 0; i < columns; ++i)
            x[i] = float(i) * 0.5f - 4.0f;
        const std::vector<std::uint16_t> half = kernels::toHalf(weights);
        std::vector<float> y(rows, 1.0f);
        kernels::gemvHalf(half.data(), x.data(), y.data(), rows, columns, true);
        for (std::size_t r = 0; r < rows; ++r) {
            double expected = 1.0;
            for (std::size_t i = 0; i < columns; ++i)
                expected += double(weights[r * columns + i]) * double(x[i]);
            QCOMPARE(y[r], float(expected));
        }
    }

    // The 8-bit screen's error bound must hold for every row, including for inputs with a few large components.
    void quantizedEstimatesStayWithinTheirBound()
    {
        const std::size_t rows = 300, columns = 96;
        std::vector<float> weights(rows * columns), x(columns);
        std::uint32_t state = 12345;
        const auto next = [&state] {
            state = state * 1664525u + 1013904223u;
            return float(state >> 8) / float(1u << 24) - 0.5f;
        };
        for (float &w : weights)
            w = next() * 0.3f;
        for (float &v : x)
            v = next() * 2.0f;
        x[7] = 40.0f; // an outlier, as layer-normalised states have
        const std::vector<std::uint16_t> half = kernels::toHalf(weights);
        const kernels::QuantizedRows quantized = kernels::quantizeRows(half.data(), rows, columns);
        std::vector<float> exact(rows), estimate(rows), error(rows);
        kernels::gemvHalf(half.data(), x.data(), exact.data(), rows, columns, false);
        kernels::gemvQuantized(quantized, x.data(), estimate.data(), error.data());
        for (std::size_t r = 0; r < rows; ++r)
            QVERIFY2(std::abs(estimate[r] - exact[r]) <= error[r],
                     qPrintable(
                         QStringLiteral("row %1: %2 vs %3 ± %4").arg(r).arg(estimate[r]).arg(exact[r]).arg(error[r])));
    }

    // The synthetic model round-trips through the loader into a network; every cut of it is refused cleanly.
    void syntheticModelLoadsAndCutsAreRefused()
    {
        QTemporaryDir dir;
        const QString path = dir.filePath(QStringLiteral("test.bin"));
        QCOMPARE(QProcess::execute(QStringLiteral(QM_MAKE_TEST_MODEL), {path}), 0);
        auto model = loadModel(path);
        QVERIFY2(model, model ? "" : qPrintable(model.error().reason));
        QCOMPARE(model->hparams.textLayers, 1);
        QCOMPARE(model->tensor("encoder.conv1.bias")->shape, (std::vector<std::int64_t>{64}));
        QVERIFY(Network::create(std::move(*model)));

        QFile file(path);
        QVERIFY(file.open(QIODevice::ReadOnly));
        const QByteArray whole = file.readAll();
        for (qsizetype cut : {qsizetype(100), whole.size() / 3, whole.size() - 7}) {
            const auto damaged = loadGgmlModel(writeFile(dir, whole.left(cut)));
            QVERIFY(!damaged);
            QVERIFY2(damaged.error().reason.contains(QLatin1String("cut short")), qPrintable(damaged.error().reason));
        }
    }

    // Rows and inputs of very different sizes, as in real layers: each must keep its own scale.
    void eightBitProductsKeepEachRowsScale()
    {
        if (!eightbit::available())
            QSKIP("this processor has no 8-bit dot products");
        const int out = 48, in = 96, inputs = 200;
        std::vector<float> weight(std::size_t(out * in)), x(std::size_t(inputs * in));
        for (std::size_t i = 0; i < weight.size(); ++i)
            weight[i] = float(std::sin(double(i) * 1.7)) * float(std::pow(10.0, double(i / std::size_t(in) % 4) - 2));
        for (std::size_t i = 0; i < x.size(); ++i)
            x[i] = float(std::cos(double(i) * 0.9)) * (i / std::size_t(in) % 3 == 0 ? 50.0f : 0.5f);
        std::vector<float> y(std::size_t(inputs * out), 1.0f);
        eightbit::accumulate(x.data(), std::size_t(inputs),
                             kernels::quantizeRows(weight.data(), std::size_t(out), std::size_t(in)), y.data());
        for (int r = 0; r < inputs; ++r)
            for (int o = 0; o < out; ++o) {
                double exact = 1.0, size = 0;
                for (int i = 0; i < in; ++i) {
                    const double product = double(weight[std::size_t(o * in + i)]) * double(x[std::size_t(r * in + i)]);
                    exact += product;
                    size += std::abs(product);
                }
                const double got = double(y[std::size_t(r * out + o)]);
                QVERIFY2(std::abs(got - exact) <= 0.02 * size + 1e-6,
                         qPrintable(QStringLiteral("input %1, row %2: %3 vs %4").arg(r).arg(o).arg(got).arg(exact)));
            }
    }

    // Run a second time with oneDNN held below VNNI (see CMakeLists.txt): its 8-bit path then saturates, and the
    // engine must notice and keep single precision.
    void eightBitIsRefusedWhereTheLibraryWouldSaturate()
    {
        if (qEnvironmentVariable("ONEDNN_MAX_CPU_ISA") != QLatin1String("AVX2"))
            QSKIP("runs with ONEDNN_MAX_CPU_ISA=AVX2");
        QVERIFY(!eightbit::available());
    }

    // The same window through 8-bit and single-precision products, and through one and two threads, must
    // give the same logits up to the 8-bit rounding: a wrong scale, offset or split shows up as noise.
    void productsAgreeAcrossPrecisionsAndThreads()
    {
        QTemporaryDir dir;
        const QString path = dir.filePath(QStringLiteral("test.bin"));
        QCOMPARE(QProcess::execute(QStringLiteral(QM_MAKE_TEST_MODEL), {path}), 0);
        const auto logitsOf = [&](bool eightBit, int threads) {
            auto model = loadModel(path);
            auto network = Network::create(std::move(*model), eightBit);
            Session session(*network, threads);
            const Hyperparameters &h = (*network)->hparams();
            std::vector<float> window(std::size_t(kWindowFrames) * std::size_t(h.melBins));
            for (std::size_t i = 0; i < window.size(); ++i)
                window[i] = float(std::sin(double(i) * 0.37) * 0.8);
            session.encode(window.data());
            const std::vector<int> tokens{SpecialTokens::forVocabularySize(h.vocabularySize).startOfTranscript, 11};
            const std::vector<int> rows{1};
            std::vector<float> logits(std::size_t(h.vocabularySize));
            session.decode(tokens, rows, logits.data());
            return logits;
        };
        const auto distance = [](const std::vector<float> &a, const std::vector<float> &b) {
            double difference = 0, size = 0;
            for (std::size_t i = 0; i < a.size(); ++i) {
                difference += double(a[i] - b[i]) * double(a[i] - b[i]);
                size += double(b[i]) * double(b[i]);
            }
            return std::sqrt(difference / size);
        };
        const std::vector<float> exact = logitsOf(false, 1);
        QVERIFY(distance(logitsOf(false, 2), exact) < 1e-5);
        if (!eightbit::available())
            QSKIP("this processor has no 8-bit dot products");
        const std::vector<float> quick = logitsOf(true, 2);
        QVERIFY2(distance(quick, exact) < 0.02, qPrintable(QString::number(distance(quick, exact))));
        QCOMPARE(kernels::argmax(quick.data(), quick.size()), kernels::argmax(exact.data(), exact.size()));
    }

    void networkNamesAMissingWeight()
    {
        QTemporaryDir dir;
        const QString path = dir.filePath(QStringLiteral("test.bin"));
        QCOMPARE(QProcess::execute(QStringLiteral(QM_MAKE_TEST_MODEL), {path}), 0);
        auto model = loadModel(path);
        QVERIFY(model);
        model->tensors.erase("decoder.blocks.0.cross_attn.value.weight");
        const auto network = Network::create(std::move(*model));
        QVERIFY(!network);
        QVERIFY(network.error().reason.contains(QLatin1String("decoder.blocks.0.cross_attn.value.weight")));
    }
};

QTEST_GUILESS_MAIN(TestWhisperLoader)
#include "tst_whisperloader.moc"
