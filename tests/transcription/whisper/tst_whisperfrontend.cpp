#include "transcription/whisper/frontend.h"

#include <QTest>

#include <algorithm>
#include <cmath>
#include <numbers>
#include <numeric>

using namespace qm::whisper;

namespace {

std::vector<float> tone(double hertz, double seconds, float amplitude = 0.5f)
{
    std::vector<float> samples(std::size_t(seconds * kSampleRate));
    for (std::size_t i = 0; i < samples.size(); ++i)
        samples[i] = amplitude * float(std::sin(2 * std::numbers::pi * hertz * double(i) / kSampleRate));
    return samples;
}

// The filter that responds most to the spectrum bin nearest `hertz`.
int strongestFilter(const std::vector<float> &filters, int bins, double hertz)
{
    const int k = int(std::lround(hertz * kFftSize / kSampleRate));
    int best = 0;
    for (int m = 1; m < bins; ++m)
        if (filters[std::size_t(m) * kSpectrumBins + std::size_t(k)] >
            filters[std::size_t(best) * kSpectrumBins + std::size_t(k)])
            best = m;
    return best;
}

} // namespace

class TestWhisperFrontEnd : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void filtersAreAreaNormalisedTriangles()
    {
        const std::vector<float> filters = slaneyMelFilters(80);
        QCOMPARE(filters.size(), std::size_t(80 * kSpectrumBins));
        // The first triangle spans 0–74.5 Hz: at 40 Hz it is 0.9256 of its height 2 / 74.47.
        QVERIFY(std::abs(filters[1] - 0.02486f) < 1e-4f);
        int previousPeak = -1;
        for (int m = 0; m < 80; ++m) {
            const auto row = filters.begin() + m * kSpectrumBins;
            QVERIFY(std::all_of(row, row + kSpectrumBins, [](float w) { return w >= 0; }));
            const int peak = int(std::max_element(row, row + kSpectrumBins) - row);
            QVERIFY(peak >= previousPeak);
            previousPeak = peak;
            // Each integrates to one over hertz, as far as 40 Hz steps can tell.
            QVERIFY2(std::abs(std::accumulate(row, row + kSpectrumBins, 0.0) * 40.0 - 1.0) < 0.1,
                     qPrintable(QString::number(m)));
        }
    }

    void toneLandsInItsMelBin_data()
    {
        QTest::addColumn<double>("hertz");
        QTest::newRow("200 Hz") << 200.0;
        QTest::newRow("1 kHz") << 1000.0;
        QTest::newRow("3.2 kHz") << 3200.0;
        QTest::newRow("7 kHz") << 7000.0;
    }

    void toneLandsInItsMelBin()
    {
        QFETCH(double, hertz);
        const std::vector<float> filters = slaneyMelFilters(80);
        const LogMel mel = logMelSpectrogram(tone(hertz, 1.0), filters, 80);
        const int expected = strongestFilter(filters, 80, hertz);
        for (std::int64_t t : {std::int64_t(10), std::int64_t(50), std::int64_t(90)}) {
            const float *frame = mel.frame(t);
            const int loudest = int(std::max_element(frame, frame + 80) - frame);
            QVERIFY2(std::abs(loudest - expected) <= 1,
                     qPrintable(QStringLiteral("%1 vs %2").arg(loudest).arg(expected)));
        }
    }

    void hundredFramesASecondWithASilentWindowAfter_data()
    {
        QTest::addColumn<double>("seconds");
        QTest::addColumn<int>("frames");
        QTest::newRow("1 s") << 1.0 << 100;
        QTest::newRow("2.5 s") << 2.5 << 250;
        QTest::newRow("a sample short of 1 s") << (kSampleRate - 1) / double(kSampleRate) << 99;
        QTest::newRow("nothing") << 0.0 << 0;
    }

    void hundredFramesASecondWithASilentWindowAfter()
    {
        QFETCH(double, seconds);
        QFETCH(int, frames);
        const LogMel mel = logMelSpectrogram(tone(440, seconds), slaneyMelFilters(80), 80);
        QCOMPARE(mel.frames, frames);
        QCOMPARE(mel.values.size(), std::size_t(frames + kWindowFrames) * 80);
    }

    // log10, floored 8 below the loudest value anywhere, then (x + 4) / 4.
    void normalisesOverTheWholeRecording()
    {
        std::vector<float> samples = tone(1000, 2.0, 0.9f);
        std::fill(samples.begin() + kSampleRate, samples.end(), 0.0f); // the second half silent
        const LogMel mel = logMelSpectrogram(samples, slaneyMelFilters(80), 80);
        const auto [low, high] = std::minmax_element(mel.values.begin(), mel.values.end());
        QVERIFY(*high > 1.0f);
        QCOMPARE(*low, *high - 2.0f); // 8 in log10 units is 2 after dividing by 4
        // Silence sits at the floor; a quiet copy of the tone keeps its place below the loud one.
        QCOMPARE(mel.frame(150)[40], *low);
        const LogMel quiet = logMelSpectrogram(tone(1000, 1.0, 0.009f), slaneyMelFilters(80), 80);
        const float *loudFrame = mel.frame(50), *quietFrame = quiet.frame(50);
        const int bin = int(std::max_element(loudFrame, loudFrame + 80) - loudFrame);
        QVERIFY(quietFrame[bin] > *std::min_element(quiet.values.begin(), quiet.values.end()));
        // A file that is silent throughout is flat.
        const LogMel silent = logMelSpectrogram(std::vector<float>(8000, 0.0f), slaneyMelFilters(80), 80);
        QVERIFY(
            std::all_of(silent.values.begin(), silent.values.end(), [&](float v) { return v == silent.values[0]; }));
        QCOMPARE(silent.values[0], (-10.0f + 4.0f) / 4.0f);
    }
};

QTEST_GUILESS_MAIN(TestWhisperFrontEnd)
#include "tst_whisperfrontend.moc"
