#include "transcription/whisper/decoding.h"
#include "transcription/whisper/tokens.h"
#include "transcription/whisper/wordtiming.h"

#include <QTest>

#include <cmath>

using namespace qm::whisper;

namespace {

const SpecialTokens english = SpecialTokens::forVocabularySize(51864);

int ts(int step)
{
    return english.timestampBegin + step;
}

constexpr int kText = 1000;

using Boosts = QList<QPair<int, float>>;

} // namespace

class TestWhisperDecoding : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void specialTokens_data()
    {
        QTest::addColumn<int>("vocabulary");
        QTest::addColumn<QList<int>>("expected"); // eot, sot, transcribe, previous, no speech, no timestamps, begin
        QTest::addColumn<int>("languages");
        QTest::addColumn<int>("hebrew");
        QTest::newRow("English-only") << 51864 << QList<int>{50256, 50257, 50358, 50360, 50361, 50362, 50363} << 0
                                      << -1;
        QTest::newRow("multilingual") << 51865 << QList<int>{50257, 50258, 50359, 50361, 50362, 50363, 50364} << 99
                                      << 50279;
        QTest::newRow("with Cantonese") << 51866 << QList<int>{50257, 50258, 50360, 50362, 50363, 50364, 50365} << 100
                                        << 50279;
    }

    void specialTokens()
    {
        QFETCH(int, vocabulary);
        QFETCH(QList<int>, expected);
        QFETCH(int, languages);
        QFETCH(int, hebrew);
        const SpecialTokens s = SpecialTokens::forVocabularySize(vocabulary);
        QCOMPARE((QList<int>{s.endOfText, s.startOfTranscript, s.transcribe, s.startOfPrevious, s.noSpeech,
                             s.noTimestamps, s.timestampBegin}),
                 expected);
        QCOMPARE(s.languageCount, languages);
        QCOMPARE(s.languageToken(QStringLiteral("he")), hebrew);
        if (hebrew > 0)
            QCOMPARE(s.languageCode(hebrew), QStringLiteral("he"));
    }

    void rules_data()
    {
        QTest::addColumn<QList<int>>("sampled");
        QTest::addColumn<Boosts>("boosts");
        QTest::addColumn<QList<int>>("banned");
        QTest::addColumn<QList<int>>("allowed");

        QTest::newRow("first step: a timestamp up to 1.00 s")
            << QList<int>{} << Boosts{} << QList<int>{220, english.endOfText, kText, ts(51), ts(1500)}
            << QList<int>{ts(0), ts(50)};
        QTest::newRow("inside a segment: text, end, or a later timestamp")
            << QList<int>{ts(10), kText} << Boosts{} << QList<int>{ts(0), ts(10), english.noTimestamps}
            << QList<int>{220, kText, english.endOfText, ts(11)};
        QTest::newRow("after a closing timestamp: the next one or the end")
            << QList<int>{ts(0), kText, ts(20)} << Boosts{} << QList<int>{kText, 220, ts(19)}
            << QList<int>{ts(20), ts(21), english.endOfText};
        QTest::newRow("after a pair: text")
            << QList<int>{ts(0), kText, ts(20), ts(20)} << Boosts{} << QList<int>{ts(20), ts(21), ts(1500)}
            << QList<int>{kText, english.endOfText};
        QTest::newRow("suppressed and task tokens")
            << QList<int>{ts(0), kText} << Boosts{} << QList<int>{1234, english.startOfTranscript, english.noSpeech}
            << QList<int>{1235};
        QTest::newRow("timestamps together beat the best word")
            << QList<int>{ts(0), kText} << Boosts{{kText + 1, 6.0f}, {ts(30), 5.0f}, {ts(31), 5.0f}, {ts(32), 5.0f}}
            << QList<int>{kText + 1, english.endOfText} << QList<int>{ts(30)};
        QTest::newRow("a clear word is not overruled")
            << QList<int>{ts(0), kText} << Boosts{{kText + 1, 9.0f}, {ts(30), 5.0f}, {ts(31), 5.0f}, {ts(32), 5.0f}}
            << QList<int>{} << QList<int>{kText + 1, ts(30)};
    }

    void rules()
    {
        QFETCH(QList<int>, sampled);
        QFETCH(Boosts, boosts);
        QFETCH(QList<int>, banned);
        QFETCH(QList<int>, allowed);
        // Words even, timestamps unlikely one by one, so only the boosts decide the forced-timestamp rule.
        std::vector<float> logits(std::size_t(english.vocabularySize), 0.0f);
        std::fill(logits.begin() + english.timestampBegin, logits.end(), -20.0f);
        for (const auto &[token, value] : boosts)
            logits[std::size_t(token)] = value;
        const std::vector<int> suppressed = {1234, english.startOfTranscript, english.noSpeech};
        const std::vector<int> history(sampled.begin(), sampled.end());
        applyRules(logits, RuleInput{english, suppressed, history});
        for (int token : banned)
            QVERIFY2(std::isinf(logits[std::size_t(token)]), qPrintable(QString::number(token)));
        for (int token : allowed)
            QVERIFY2(std::isfinite(logits[std::size_t(token)]), qPrintable(QString::number(token)));
    }

    void splitting_data()
    {
        QTest::addColumn<QList<int>>("tokens");
        QTest::addColumn<int>("frames");
        QTest::addColumn<QList<double>>("bounds"); // start, end of each segment
        QTest::addColumn<int>("advance");

        QTest::newRow("pairs, ending on a lone timestamp: the whole window")
            << QList<int>{ts(0), kText, ts(100), ts(100), kText, ts(200)} << 3000 << QList<double>{10, 12, 12, 14}
            << 3000;
        QTest::newRow("ending on an opened segment: resume at the last end")
            << QList<int>{ts(0), kText, ts(100), ts(150), kText, ts(200), ts(210)} << 3000
            << QList<double>{10, 12, 13, 14} << 400;
        QTest::newRow("one segment closed by a timestamp")
            << QList<int>{ts(0), kText, kText, ts(120)} << 3000 << QList<double>{10, 12.4} << 3000;
        QTest::newRow("no timestamps: the window's audio")
            << QList<int>{kText, kText} << 1234 << QList<double>{10, 22.34} << 1234;
    }

    void splitting()
    {
        QFETCH(QList<int>, tokens);
        QFETCH(int, frames);
        QFETCH(QList<double>, bounds);
        QFETCH(int, advance);
        const std::vector<int> list(tokens.begin(), tokens.end());
        const WindowSegments split = splitWindow(list, english, 10.0, frames);
        QList<double> got;
        for (const TimedTokens &segment : split.segments)
            got << segment.start << segment.end;
        QCOMPARE(got.size(), bounds.size());
        for (qsizetype i = 0; i < got.size(); ++i)
            QVERIFY2(std::abs(got[i] - bounds[i]) < 1e-9, qPrintable(QString::number(got[i])));
        QCOMPARE(split.advance, advance);
    }

    void windowCriteria_data()
    {
        QTest::addColumn<double>("logProbability");
        QTest::addColumn<double>("compression");
        QTest::addColumn<double>("noSpeech");
        QTest::addColumn<bool>("fallback");
        QTest::addColumn<bool>("silence");
        QTest::newRow("confident speech") << -0.3 << 1.5 << 0.1 << false << false;
        QTest::newRow("improbable") << -1.2 << 1.5 << 0.1 << true << false;
        QTest::newRow("repetitive") << -0.3 << 2.6 << 0.1 << true << false;
        QTest::newRow("silent and unsure") << -1.2 << 1.5 << 0.7 << false << true;
        QTest::newRow("no-speech guess but confident text") << -0.5 << 1.5 << 0.7 << false << false;
        QTest::newRow("repetitive in a silent window") << -0.3 << 2.6 << 0.7 << false << false;
    }

    void windowCriteria()
    {
        QFETCH(double, logProbability);
        QFETCH(double, compression);
        QFETCH(double, noSpeech);
        QFETCH(bool, fallback);
        QFETCH(bool, silence);
        WindowResult r;
        r.averageLogProbability = logProbability;
        r.compressionRatio = compression;
        r.noSpeechProbability = noSpeech;
        QCOMPARE(needsFallback(r), fallback);
        QCOMPARE(isSilence(r), silence);
    }

    void compressionRatioSeparatesLoops()
    {
        QVERIFY(compressionRatio(QStringLiteral("Please call Stella and ask her to bring these things.")) < 2.4);
        QVERIFY(compressionRatio(QStringLiteral("Thank you. ").repeated(30)) > 2.4);
        QCOMPARE(compressionRatio(QString()), 0.0);
    }

    void tokensAndText()
    {
        std::vector<std::string> vocabulary;
        for (int b = 0; b < 256; ++b)
            vocabulary.emplace_back(1, char(b));
        for (const char *merged : {"ab", "bc", "abc", "--", " -", " '", "\xe2\x99", " \xe2\x99"})
            vocabulary.emplace_back(merged);
        const TokenRanks ranks = tokenRanks(vocabulary);
        QCOMPARE(encodePiece(ranks, "abc"), (std::vector<int>{258}));
        QCOMPARE(encodePiece(ranks, "abd"), (std::vector<int>{256, 'd'}));

        const std::vector<int> quiet = nonSpeechTokens(vocabulary);
        for (int token : {int('"'), int('#'), int('['), 259, 260, 261, 262, 263})
            QVERIFY2(std::find(quiet.begin(), quiet.end(), token) != quiet.end(), qPrintable(QString::number(token)));
        for (int token : {int('a'), int(' '), int('-'), int('\'')})
            QVERIFY2(std::find(quiet.begin(), quiet.end(), token) == quiet.end(), qPrintable(QString::number(token)));

        // Bytes of one character split across tokens join before decoding; specials add nothing.
        const std::vector<int> cafe = {'c', 'a', 'f', 0xc3, 0xa9, 300};
        QCOMPARE(tokenText(vocabulary, cafe, 264), QStringLiteral("caf\u00e9"));
    }

    void wordSplitting_data()
    {
        QTest::addColumn<QList<int>>("tokens");
        QTest::addColumn<bool>("spaceless");
        QTest::addColumn<QStringList>("words"); // each word's text, then its token count
        const int hi = 256, you = 257;
        QTest::newRow("spaces and punctuation start words")
            << QList<int>{hi, ',', you, 'r', '.'} << false
            << QStringList{QStringLiteral(" hi"),   QStringLiteral("1"), QStringLiteral(","), QStringLiteral("1"),
                           QStringLiteral(" your"), QStringLiteral("2"), QStringLiteral("."), QStringLiteral("1")};
        QTest::newRow("a character split across tokens stays whole")
            << QList<int>{' ', 'c', 'a', 'f', 0xc3, 0xa9} << false
            << QStringList{QStringLiteral(" caf\u00e9"), QStringLiteral("6")};
        QTest::newRow("without spaces, each character is a word")
            << QList<int>{'a', 0xc3, 0xa9} << true
            << QStringList{QStringLiteral("a"), QStringLiteral("1"), QStringLiteral("\u00e9"), QStringLiteral("2")};
    }

    void wordSplitting()
    {
        QFETCH(QList<int>, tokens);
        QFETCH(bool, spaceless);
        std::vector<std::string> vocabulary;
        for (int b = 0; b < 256; ++b)
            vocabulary.emplace_back(1, char(b));
        vocabulary.emplace_back(" hi");
        vocabulary.emplace_back(" you");
        QStringList words;
        for (const TokenWord &word : splitWords(vocabulary, std::vector<int>(tokens.begin(), tokens.end()), spaceless))
            words << QString::fromStdString(word.text) << QString::number(word.tokens);
        QTEST(words, "words");
    }

    void medianOfSevenMirrorsTheEnds()
    {
        std::vector<float> row{1, 9, 2, 8, 3, 7, 4, 6, 5, 0};
        medianOfSeven(row.data(), row.size());
        QCOMPARE(row, (std::vector<float>{8, 3, 7, 4, 6, 5, 5, 5, 5, 5}));
    }

    // One head that looks at each token's stretch of audio in turn, after 0.2 s of silence: the path through its
    // attention gives the words' times, punctuation joins its word, and the first word, which took the silence
    // for itself, is cut back once it follows a long pause.
    void wordTimesFollowTheAttention()
    {
        // Rows: start of transcript, no timestamps (placing " Hello"), ",", " wor", "ld", ".", end of text.
        const std::vector<TokenWord> words{{" Hello", 1}, {",", 1}, {" world", 2}, {".", 1}};
        const std::vector<std::pair<int, int>> stretches{{10, 20}, {20, 24}, {24, 30}, {30, 35}, {35, 40}, {40, 50}};
        constexpr int rows = 8, keys = 50;
        std::vector<float> weights(rows * keys, 0.0f);
        for (int k = 0; k < keys; ++k)
            weights[k] = weights[(rows - 1) * keys + k] = 1.0f / keys;
        for (std::size_t r = 0; r < stretches.size(); ++r)
            for (int k = stretches[r].first; k < stretches[r].second; ++k)
                weights[(r + 1) * keys + std::size_t(k)] = 1.0f / float(stretches[r].second - stretches[r].first);

        WindowWords window = wordTimes(weights, 1, rows, keys, keys, 2, words);
        QCOMPARE(window.words.size(), std::size_t(2));
        const auto check = [](const WordTiming &word, const QString &text, double start, double end, int tokens) {
            QCOMPARE(word.text, text);
            QVERIFY2(std::abs(word.start - start) < 1e-6 && std::abs(word.end - end) < 1e-6,
                     qPrintable(QStringLiteral("%1–%2").arg(word.start).arg(word.end)));
            QCOMPARE(word.tokens, tokens);
        };
        check(window.words[0], QStringLiteral("Hello,"), 0.0, 0.40, 2);
        check(window.words[1], QStringLiteral("world."), 0.48, 0.70, 3);

        for (WordTiming &word : window.words) {
            word.start += 10;
            word.end += 10;
        }
        std::vector<TimedSegment> segments{{9.0, 12.0, 5, {}}};
        QCOMPARE(placeWords(segments, window, 0.0), 10.70);
        // Twice the median word length (0.16 s) before the first word's end.
        QVERIFY(std::abs(segments[0].start - 10.08) < 1e-6);
        QCOMPARE(segments[0].end, 10.70);
        QCOMPARE(segments[0].words.size(), std::size_t(2));
    }

    // Sound at 1–2 s, 3–3.5 s and 6–7 s. A word that took the pause before it moves to its sound, one that ran into
    // the pause after it ends with the sound, one left in silence takes the sound nobody has, and one that starts a
    // little late reaches back to where the sound starts.
    void wordsFitTheSound()
    {
        std::vector<float> peaks(1000, 0.0f);
        for (const auto &[from, to] : {std::pair{100, 200}, {300, 350}, {600, 700}})
            std::fill(peaks.begin() + from, peaks.begin() + to, 0.5f);
        std::vector<WordTiming> words{{QStringLiteral("a"), 0.2, 1.5, 1},
                                      {QStringLiteral("b"), 1.5, 2.9, 1},
                                      {QStringLiteral("c"), 4.5, 4.6, 1},
                                      {QStringLiteral("d"), 6.3, 7.0, 1}};
        fitToSound(words, peaks, hearingLevel(peaks), 0, 10);
        QStringList got;
        for (const WordTiming &w : words)
            got << QStringLiteral("%1 %2-%3 %4%5")
                       .arg(w.text)
                       .arg(w.start)
                       .arg(w.end)
                       .arg(int(w.heardStart))
                       .arg(int(w.heardEnd));
        QCOMPARE(got, (QStringList{QStringLiteral("a 1-1.5 10"), QStringLiteral("b 1.5-2 01"),
                                   QStringLiteral("c 3-3.5 11"), QStringLiteral("d 6-7 11")}));
    }
};

QTEST_GUILESS_MAIN(TestWhisperDecoding)
#include "tst_whisperdecoding.moc"
