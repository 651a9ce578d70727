#include "support/providers/speechfixture.h"
#include "transcription/whisper/modellibrary.h"
#include "transcription/whisper/whisperengine.h"

#include <QCoroTask>
#include <QElapsedTimer>
#include <QNetworkAccessManager>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>
#include <QThreadPool>

using namespace qm;

namespace {

struct Outcome {
    SegmentsResult result = Segments{};
    bool resumedOnMainThread = false;
};

QCoro::Task<Outcome> run(WhisperEngine *engine, EngineRequest request, ProgressCallback progress)
{
    auto task = engine->transcribe(std::move(request), std::move(progress));
    Outcome outcome;
    outcome.result = co_await task;
    outcome.resumedOnMainThread = QThread::currentThread() == QCoreApplication::instance()->thread();
    co_return outcome;
}

} // namespace

class TestWhisperEngine : public QObject {
    Q_OBJECT

    QTemporaryDir m_dir;
    QString m_model;
    QString m_speech;
    QNetworkAccessManager m_network;

    EngineRequest request(const QString &audio, std::optional<QString> language = QStringLiteral("en"))
    {
        EngineRequest r;
        r.audio = QUrl::fromLocalFile(audio);
        r.language = std::move(language);
        r.model = m_model;
        return r;
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        m_model = m_dir.filePath(QStringLiteral("synthetic.bin"));
        QCOMPARE(QProcess::execute(QStringLiteral(QM_MAKE_TEST_MODEL), {m_model}), 0);
        m_speech = m_dir.filePath(QStringLiteral("speech.m4a"));
        if (!test::writeSpeechTrack(m_speech, QStringLiteral("Please call Stella."), 1, 4.0, 16000))
            QSKIP("espeak-ng or ffmpeg is missing");
    }

    // The synthetic model's fixed answer comes through every stage: decoding, model check, worker threads.
    void transcribesOnWorkersAndResumesOnTheMainThread()
    {
        whisper::ModelLibrary library(m_network, m_dir.filePath(QStringLiteral("models")));
        WhisperEngine engine(library);
        QStringList texts;
        bool progressOnMainThread = true;
        const auto progress = [&](const QString &text) {
            texts << text;
            progressOnMainThread = progressOnMainThread && QThread::currentThread() == thread();
        };
        for (int call = 0; call < 2; ++call) { // the second call reuses the loaded model
            auto task = run(&engine, request(m_speech), progress);
            const Outcome outcome = QCoro::waitFor(task);
            QVERIFY2(outcome.result, outcome.result ? "" : qPrintable(outcome.result.error().description()));
            QVERIFY(outcome.resumedOnMainThread);
            QCOMPARE(outcome.result->size(), 1);
            const TranscriptSegment &segment = outcome.result->first();
            QCOMPARE(segment.text, QStringLiteral("w1000"));
            // Its one word, within its timestamps (0–2 s), starts with the sound: espeak-ng's comes after 50 ms.
            // Where it ends is up to the random weights' attention.
            QCOMPARE(segment.words.size(), 1);
            QCOMPARE(segment.words[0].text, QStringLiteral("w1000"));
            QCOMPARE(segment.start, 0.05);
            QCOMPARE(segment.end, segment.words[0].end);
            QVERIFY(segment.end > segment.start && segment.end <= 2.0);
            QVERIFY(!segment.speaker);
        }
        QVERIFY(progressOnMainThread);
        QCOMPARE(texts.first(), QStringLiteral("Transcribing on this computer\u2026"));
        QVERIFY(texts.contains(QStringLiteral("Transcribing on this computer\u2026 100%")));
        QVERIFY(!texts.join(u'\n').contains(QLatin1String("Downloading")));
    }

    void silenceGivesNothing()
    {
        const QString silence = m_dir.filePath(QStringLiteral("silence.m4a"));
        QCOMPARE(QProcess::execute(QStringLiteral("ffmpeg"),
                                   {QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-y"),
                                    QStringLiteral("-f"), QStringLiteral("lavfi"), QStringLiteral("-i"),
                                    QStringLiteral("anullsrc=r=16000:cl=mono"), QStringLiteral("-t"),
                                    QStringLiteral("45"), QStringLiteral("-c:a"), QStringLiteral("aac"), silence}),
                 0);
        whisper::ModelLibrary library(m_network, m_dir.filePath(QStringLiteral("models")));
        WhisperEngine engine(library);
        auto task = run(&engine, request(silence), [](const QString &) {});
        const Outcome outcome = QCoro::waitFor(task);
        QVERIFY(outcome.result);
        QVERIFY(outcome.result->isEmpty());
    }

    void refusesLanguagesTheModelLacks_data()
    {
        QTest::addColumn<QString>("model");
        QTest::addColumn<QString>("language");
        QTest::addColumn<QString>("name");
        QTest::newRow("Hebrew, English-only name")
            << QStringLiteral("base.en") << QStringLiteral("he") << QStringLiteral("Hebrew");
        QTest::newRow("Hebrew, English-only file") << QString() << QStringLiteral("he") << QStringLiteral("Hebrew");
        QTest::newRow("a code Whisper lacks")
            << QStringLiteral("base") << QStringLiteral("tlh") << QStringLiteral("tlh");
    }

    void refusesLanguagesTheModelLacks()
    {
        QFETCH(QString, model);
        QFETCH(QString, language);
        QFETCH(QString, name);
        whisper::ModelLibrary library(m_network, m_dir.filePath(QStringLiteral("models")));
        WhisperEngine engine(library);
        EngineRequest r = request(m_speech, language);
        if (!model.isEmpty())
            r.model = model;
        QStringList texts;
        auto task = run(&engine, r, [&](const QString &text) { texts << text; });
        const Outcome outcome = QCoro::waitFor(task);
        QVERIFY(!outcome.result);
        QCOMPARE(outcome.result.error().kind, TranscriptionError::Kind::unsupportedLanguage);
        QCOMPARE(outcome.result.error().description(),
                 QStringLiteral("On-device transcription doesn't support \u201C%1\u201D with the selected model.")
                     .arg(name));
        QVERIFY(texts.isEmpty()); // refused before any download or decoding
    }

    // Destroying the engine stops the workers within the window in progress: measured against the time the
    // rest of the same recording takes when left to run.
    void stopsWhenTheEngineGoes()
    {
        const QString longSpeech = m_dir.filePath(QStringLiteral("long.m4a"));
        QVERIFY(test::writeSpeechTrack(longSpeech, QStringLiteral("Please call Stella."), 1, 360.0, 16000));
        whisper::ModelLibrary library(m_network, m_dir.filePath(QStringLiteral("models")));
        QElapsedTimer clock;
        const auto timeAfterFirstWindow = [&](bool destroy) {
            auto engine = std::make_unique<WhisperEngine>(library);
            bool windowDone = false;
            {
                auto task = run(engine.get(), request(longSpeech),
                                [&](const QString &text) { windowDone = windowDone || text.endsWith(u'%'); });
                if (!QTest::qWaitFor([&] { return windowDone; }, 120000))
                    return qint64(-1);
                clock.start();
                if (destroy)
                    engine.reset();
                else
                    QCoro::waitFor(task);
            }
            return QThreadPool::globalInstance()->waitForDone(120000) ? clock.elapsed() : qint64(-1);
        };
        const qint64 rest = timeAfterFirstWindow(false);
        const qint64 stopping = timeAfterFirstWindow(true);
        qInfo() << "the other 11 windows took" << rest << "ms; stopping took" << stopping << "ms";
        QVERIFY(rest > 0 && stopping >= 0);
        QVERIFY(stopping < rest / 3);
    }
};

QTEST_GUILESS_MAIN(TestWhisperEngine)
#include "tst_whisperengine.moc"
