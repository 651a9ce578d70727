// Real Whisper weights on synthetic speech: the one check that the whole engine, not just its parts, hears
// words. Needs the model that scripts/fetch-test-model caches, named by QM_TEST_MODEL_DIR.

#include "support/providers/speechfixture.h"
#include "support/wordscore.h"
#include "transcription/whisper/modellibrary.h"
#include "transcription/whisper/whisperengine.h"

#include <QCoroTask>
#include <QNetworkAccessManager>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

#include <algorithm>
#include <cmath>

using namespace qm;
using qm::test::wordErrorRate;
using qm::test::words;

namespace {

// Plain words that espeak-ng says clearly and Whisper spells one way (no digits, names or homophones).
const QString speech =
    QStringLiteral("The meeting starts early in the morning. Please bring the quarterly report and your laptop. "
                   "We will review the budget for the new office and decide who leads the project. "
                   "After lunch the team will test the recording software on every computer in the building. "
                   "If the sound is clear, we can send the notes to the customers before the end of the week. "
                   "The kitchen on the second floor will be closed while the painters finish the walls. "
                   "Thank you all for coming today, and drive home safely.");

} // namespace

class TestWhisperAccuracy : public QObject {
    Q_OBJECT

    QString m_model;
    QTemporaryDir m_dir;
    QNetworkAccessManager m_network;

    SegmentsResult transcribe(const QString &audio, double seconds)
    {
        whisper::ModelLibrary library(m_network, m_dir.filePath(QStringLiteral("models")));
        WhisperEngine engine(library);
        EngineRequest request;
        request.audio = QUrl::fromLocalFile(audio);
        request.duration = seconds;
        request.language = QStringLiteral("en");
        request.model = m_model;
        return QCoro::waitFor(engine.transcribe(request, [](const QString &) {}));
    }

private Q_SLOTS:
    void initTestCase()
    {
        m_model = qEnvironmentVariable("QM_TEST_MODEL_DIR");
        if (m_model.isEmpty())
            QSKIP("QM_TEST_MODEL_DIR is not set: scripts/fetch-test-model caches a real model and scripts/test "
                  "names it; without one the accuracy test has nothing to run.");
        if (QStandardPaths::findExecutable(QStringLiteral("espeak-ng")).isEmpty())
            QSKIP("espeak-ng is not installed (scripts/install-deps installs it).");
    }

    void transcribesSyntheticSpeech()
    {
        const QString audio = m_dir.filePath(QStringLiteral("speech.m4a"));
        QVERIFY(test::writeSpeechTrack(audio, speech, 1, 0, 16000));

        const auto segments = transcribe(audio, 40);
        QVERIFY2(segments, qPrintable(segments ? QString() : segments.error().description()));
        QString heard;
        double lastEnd = 0;
        for (const auto &segment : *segments) {
            heard += QStringLiteral("[%1–%2] ").arg(segment.start).arg(segment.end) + segment.text + u' ';
            QVERIFY(segment.start >= lastEnd - 0.5 && segment.end >= segment.start);
            lastEnd = segment.end;
        }
        const double wer = wordErrorRate(words(speech), words(heard));
        qInfo().noquote() << "heard:" << heard.trimmed();
        qInfo() << "word error rate" << wer << "over" << words(speech).size() << "words";
        // espeak-ng's voice is robotic, yet both cached models hear it almost word for word: measured WER 0.022
        // with tiny.en and with base (2 of 89 words: "the meeting starts" heard as "the meetings start").
        // 0.10 allows a few more such slips (another espeak-ng version, another model), while a real fault in
        // the front end, the network or the decoding rules garbles whole sentences and lands far above it.
        QVERIFY2(wer < 0.10, qPrintable(QStringLiteral("WER %1: %2").arg(wer).arg(heard)));
        // The speech ends before the audio's end, and the last words are the last words spoken.
        QVERIFY(lastEnd > 20 && lastEnd < 45);
        QCOMPARE(words(heard).value(words(heard).size() - 1), QStringLiteral("safely"));
    }

    // Segments start and end with the speech they hold, and a short word after a long silence is kept.
    void timesFollowTheSpeech_data()
    {
        QTest::addColumn<QList<test::PlacedSpeech>>("pieces");
        const auto piece = [](double pause, const char *text) {
            return test::PlacedSpeech{pause, QString::fromUtf8(text), QStringLiteral("en-us"), 0, 0};
        };
        QTest::newRow("a sentence after 10 s of silence")
            << QList{piece(10, "Please bring the quarterly report and your laptop.")};
        QTest::newRow("a short reply, then a sentence")
            << QList{piece(1.3, "Thanks."), piece(0.5, "Good morning everyone, today we review the budget.")};
        QTest::newRow("pauses within one window")
            << QList{piece(2, "Can you hear me?"), piece(4, "The kitchen on the second floor is closed."),
                     piece(7, "Welcome back.")};
    }

    void timesFollowTheSpeech()
    {
        QFETCH(QList<test::PlacedSpeech>, pieces);
        const QString audio = m_dir.filePath(QStringLiteral("placed.m4a"));
        QVERIFY(test::writePlacedSpeech(audio, pieces, 3));
        const auto segments = transcribe(audio, pieces.last().end + 3);
        QVERIFY2(segments, qPrintable(segments ? QString() : segments.error().description()));
        QString heard, timed;
        for (const auto &segment : *segments) {
            heard += segment.text + u' ';
            timed += QStringLiteral("[%1–%2] ").arg(segment.start).arg(segment.end) + segment.text + u' ';
            QVERIFY(!segment.words.isEmpty());
            QCOMPARE(segment.start, segment.words.first().start);
            QCOMPARE(segment.end, segment.words.last().end);
        }
        const QStringList said = words(heard);
        const auto near = [&](double at, auto edge) {
            return std::any_of(segments->begin(), segments->end(),
                               [&](const TranscriptSegment &s) { return std::abs(edge(s) - at) <= 0.3; });
        };
        for (qsizetype i = 0; i < pieces.size(); ++i) {
            const test::PlacedSpeech &p = pieces[i];
            QVERIFY2(said.contains(words(p.text).first()), qPrintable(heard));
            // Sentences closer than that may share a segment.
            if (p.pause >= 1)
                QVERIFY2(near(p.start, [](const TranscriptSegment &s) { return s.start; }),
                         qPrintable(QStringLiteral("no segment starts at %1: %2").arg(p.start).arg(timed)));
            if (i + 1 == pieces.size() || pieces[i + 1].pause >= 1)
                QVERIFY2(near(p.end, [](const TranscriptSegment &s) { return s.end; }),
                         qPrintable(QStringLiteral("no segment ends at %1: %2").arg(p.end).arg(timed)));
        }
    }

    // Silence must not turn into invented sentences.
    void silenceGivesNoWords()
    {
        const QString audio = m_dir.filePath(QStringLiteral("silence.m4a"));
        QProcess ffmpeg;
        ffmpeg.start(QStringLiteral("ffmpeg"),
                     {QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-y"), QStringLiteral("-f"),
                      QStringLiteral("lavfi"), QStringLiteral("-i"), QStringLiteral("anullsrc=r=16000:cl=mono"),
                      QStringLiteral("-t"), QStringLiteral("40"), QStringLiteral("-c:a"), QStringLiteral("aac"),
                      audio});
        QVERIFY(ffmpeg.waitForFinished(60000) && ffmpeg.exitCode() == 0);

        const auto segments = transcribe(audio, 40);
        QVERIFY2(segments || segments.error().kind == TranscriptionError::Kind::noSpeech,
                 qPrintable(segments ? QString() : segments.error().description()));
        QString heard;
        for (const auto &segment : segments.value_or(Segments{}))
            heard += segment.text;
        QVERIFY2(words(heard).isEmpty(), qPrintable(heard));
    }
};

QTEST_GUILESS_MAIN(TestWhisperAccuracy)
#include "tst_whisperaccuracy.moc"
