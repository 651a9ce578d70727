#include "capture/mediaprocessor.h"
#include "support/providers/fakeopenai.h"
#include "support/providers/segmentlines.h"
#include "support/providers/speechfixture.h"
#include "transcription/openaiengine.h"

#include <QCoroTask>
#include <QDir>
#include <QNetworkProxy>
#include <QTemporaryDir>
#include <QTest>

using namespace qm;
using namespace qm::test;

namespace {

// What the fake hears in every part: a line near its start by one speaker, a line near its end by another.
QList<Heard> partScript(const Mp4Audio &audio, int upload)
{
    return {{QStringLiteral("Part %1 opens.").arg(upload), 1.0, 2.5, 0},
            {QStringLiteral("Part %1 closes.").arg(upload), audio.seconds - 3.0, audio.seconds - 1.0, 1}};
}

} // namespace

class TestOpenAIEngine : public QObject {
    Q_OBJECT

    QTemporaryDir m_dir;
    MediaProcessor m_media;
    QUrl m_short;
    double m_shortSeconds = 0;
    QString m_long; // 90 s, cut into parts wherever it is copied
    double m_longSeconds = 0;
    std::unique_ptr<FakeOpenAI> m_fake;

    SegmentsResult run(OpenAIEngine &engine, EngineRequest request, QStringList *progress)
    {
        ProgressCallback report = [progress](const QString &text) { progress->append(text); };
        return QCoro::waitFor(engine.transcribe(std::move(request), std::move(report)));
    }

    // Parts are written beside the file, so each case gets its own copy.
    QUrl longCopy(const QTemporaryDir &folder)
    {
        const QString path = folder.filePath(QStringLiteral("speech-0.m4a"));
        return QFile::copy(m_long, path) ? QUrl::fromLocalFile(path) : QUrl();
    }

    EngineRequest request(const QUrl &audio, double duration, const QString &model)
    {
        return EngineRequest{audio, duration, std::nullopt, true, model, m_fake->key, false};
    }

private Q_SLOTS:
    void initTestCase()
    {
        QNetworkProxy::setApplicationProxy(QNetworkProxy::NoProxy);
        const QString path = m_dir.filePath(QStringLiteral("short/speech-0.m4a"));
        QVERIFY(writeSpeechTrack(path, QStringLiteral("Can everyone hear me? Yes, loud and clear."), 1, 0, 16000));
        m_short = QUrl::fromLocalFile(path);
        m_shortSeconds = QCoro::waitFor(m_media.duration(m_short));
        m_long = m_dir.filePath(QStringLiteral("long/speech-0.m4a"));
        QVERIFY(writeSpeechTrack(m_long, QStringLiteral("Moving on to the next item on the agenda."), 1, 90, 16000));
        m_longSeconds = QCoro::waitFor(m_media.duration(QUrl::fromLocalFile(m_long)));
        QVERIFY(qAbs(m_longSeconds - 90) < 1);
    }

    void init()
    {
        m_fake = std::make_unique<FakeOpenAI>();
        m_fake->script = {{QStringLiteral("Can everyone hear me?"), 0.1, 1.4, 0},
                          {QStringLiteral("Yes, loud and clear."), 1.6, 2.9, 1}};
    }
    void cleanup()
    {
        QVERIFY2(m_fake->violations.isEmpty(), qPrintable(m_fake->violations.join(QStringLiteral("; "))));
    }

    // The model decides the response format, and with it whether times and speakers come back.
    void models_data()
    {
        QTest::addColumn<QString>("model");
        QTest::addColumn<std::optional<QString>>("language");
        QTest::addColumn<QByteArrayList>("form");
        QTest::addColumn<QStringList>("expected");

        const QByteArray file = "file=@speech-0.m4a;audio/mp4";
        QTest::newRow("diarize") << QStringLiteral("gpt-4o-transcribe-diarize") << std::optional<QString>()
                                 << QByteArrayList{"model=gpt-4o-transcribe-diarize", "response_format=diarized_json",
                                                   "chunking_strategy=auto", file}
                                 << QStringList{QStringLiteral("0.10-1.40 A: Can everyone hear me?"),
                                                QStringLiteral("1.60-2.90 B: Yes, loud and clear.")};
        QTest::newRow("whisper, Hebrew") << QStringLiteral("whisper-1") << std::optional<QString>(QStringLiteral("he"))
                                         << QByteArrayList{"model=whisper-1", "response_format=verbose_json",
                                                           "language=he", file}
                                         << QStringList{QStringLiteral("0.10-1.40 -:  Can everyone hear me?"),
                                                        QStringLiteral("1.60-2.90 -:  Yes, loud and clear.")};
        QTest::newRow("plain text spans the measured file")
            << QStringLiteral("gpt-4o-transcribe") << std::optional<QString>()
            << QByteArrayList{"model=gpt-4o-transcribe", "response_format=json", file}
            << QStringList{QStringLiteral("0.00-%1 -: Can everyone hear me? Yes, loud and clear.")
                               .arg(m_shortSeconds, 0, 'f', 2)};
    }
    void models()
    {
        QFETCH(QString, model);
        QFETCH(std::optional<QString>, language);
        QFETCH(QByteArrayList, form);
        QFETCH(QStringList, expected);
        OpenAIEngine engine(m_media, 1200.0, m_fake->base());
        QStringList progress;
        // The request's duration is deliberately off: only the measured file may decide the text's end.
        EngineRequest r = request(m_short, m_shortSeconds + 7, model);
        r.language = language;
        const SegmentsResult result = run(engine, r, &progress);
        QVERIFY2(result, qPrintable(result ? QString() : result.error().description()));
        QCOMPARE(segmentLines(*result, 2), expected);
        QCOMPARE(m_fake->forms.value(0), form);
        QCOMPARE(progress, QStringList{QStringLiteral("Transcribing with OpenAI\u2026")});
    }

    // A recording is cut only when it is more than a minute longer than one part; each part's plain text then
    // ends where the part ends on the recording's time line.
    void partsAtTheEdge_data()
    {
        QTest::addColumn<double>("duration");
        QTest::addColumn<QStringList>("expected");
        QTest::newRow("one minute over: whole") << 80.0 << QStringList{QStringLiteral("0-whole")};
        QTest::newRow("just over: five parts")
            << 81.0
            << QStringList{QStringLiteral("0-20"), QStringLiteral("20-40"), QStringLiteral("40-60"),
                           QStringLiteral("60-80"), QStringLiteral("80-81")};
    }
    void partsAtTheEdge()
    {
        QFETCH(double, duration);
        QFETCH(QStringList, expected);
        QTemporaryDir folder;
        m_fake->script = {{QStringLiteral("words"), 0, 1, 0}};
        OpenAIEngine engine(m_media, 20.0, m_fake->base());
        QStringList progress;
        const SegmentsResult result =
            run(engine, request(longCopy(folder), duration, QStringLiteral("gpt-4o-transcribe")), &progress);
        QVERIFY2(result, qPrintable(result ? QString() : result.error().description()));

        QStringList spans;
        for (const TranscriptSegment &s : *result) {
            const bool whole = expected.size() == 1;
            spans.append(whole ? QStringLiteral("%1-whole").arg(s.start)
                               : QStringLiteral("%1-%2").arg(s.start).arg(qRound(s.end)));
        }
        QCOMPARE(spans, expected);
        QCOMPARE(m_fake->uploads.size(), expected.size());
        if (expected.size() > 1) {
            QCOMPARE(progress.first(), QStringLiteral("Transcribing with OpenAI \u2013 part 1 of 5\u2026"));
            QVERIFY(QFileInfo::exists(folder.filePath(QStringLiteral("part-4.m4a"))));
        }
    }

    // Speaker letters restart in each part; times land on the recording's line.
    void diarizedPartsAreJoined()
    {
        QTemporaryDir folder;
        m_fake->hearing = partScript;
        OpenAIEngine engine(m_media, 20.0, m_fake->base());
        QStringList progress;
        const SegmentsResult result = run(
            engine, request(longCopy(folder), m_longSeconds, QStringLiteral("gpt-4o-transcribe-diarize")), &progress);
        QVERIFY2(result, qPrintable(result ? QString() : result.error().description()));

        QCOMPARE(progress.size(), 5);
        QCOMPARE(progress.last(), QStringLiteral("Transcribing with OpenAI \u2013 part 5 of 5\u2026"));
        QCOMPARE(m_fake->uploads.size(), 5);
        QStringList expected;
        for (int i = 0; i < 5; ++i) {
            const double offset = 20.0 * i;
            const double length = m_fake->uploads.at(i).seconds;
            QVERIFY2(qAbs(length - std::min(20.0, m_longSeconds - offset)) < 0.2, qPrintable(QString::number(length)));
            expected << QStringLiteral("%1-%2 A: Part %3 opens.")
                            .arg(offset + 1, 0, 'f', 2)
                            .arg(offset + 2.5, 0, 'f', 2)
                            .arg(i)
                     << QStringLiteral("%1-%2 B: Part %3 closes.")
                            .arg(offset + length - 3, 0, 'f', 2)
                            .arg(offset + length - 1, 0, 'f', 2)
                            .arg(i);
        }
        QCOMPARE(segmentLines(*result, 2), expected);
    }

    void failingPartEndsTheCall()
    {
        QTemporaryDir folder;
        m_fake->hearing = [this](const Mp4Audio &, int upload) {
            if (upload == 1)
                m_fake->outcome = Outcome::refused;
            return m_fake->script;
        };
        OpenAIEngine engine(m_media, 20.0, m_fake->base());
        QStringList progress;
        const SegmentsResult result =
            run(engine, request(longCopy(folder), 90, QStringLiteral("whisper-1")), &progress);
        QVERIFY(!result);
        QCOMPARE(result.error().status, 429);
        QCOMPARE(m_fake->uploads.size(), 2);
        QCOMPARE(progress.size(), 2);
    }
};

QTEST_GUILESS_MAIN(TestOpenAIEngine)
#include "tst_openaiengine.moc"
