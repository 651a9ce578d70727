#include "capture/mediaprocessor.h"
#include "support/providers/fakeassemblyai.h"
#include "support/providers/fakedeepgram.h"
#include "support/providers/fakeelevenlabs.h"
#include "support/providers/fakeopenai.h"
#include "support/providers/segmentlines.h"
#include "support/providers/speechfixture.h"
#include "transcription/assemblyaiengine.h"
#include "transcription/deepgramengine.h"
#include "transcription/elevenlabsengine.h"
#include "transcription/openaiengine.h"

#include <QCoroTask>
#include <QJsonArray>
#include <QNetworkProxy>
#include <QTemporaryDir>
#include <QTest>

using namespace qm;
using namespace qm::test;
using namespace std::chrono_literals;

Q_DECLARE_METATYPE(Outcome)

namespace {

using Speaker = std::optional<QString>;

const QList<Heard> kConversation{
    {QStringLiteral("Good morning everyone."), 0.2, 1.6, 0},
    {QStringLiteral("Morning!"), 1.8, 2.4, 1},
    {QStringLiteral("Let's review the numbers."), 2.6, 3.9, 0},
};

} // namespace

class TestCloudEngines : public QObject {
    Q_OBJECT

    QTemporaryDir m_dir;
    MediaProcessor m_media;
    QUrl m_speech;
    double m_duration = 0;
    std::unique_ptr<FakeDeepgram> m_deepgram;
    std::unique_ptr<FakeOpenAI> m_openAI;
    std::unique_ptr<FakeAssemblyAI> m_assemblyAI;
    std::unique_ptr<FakeElevenLabs> m_elevenLabs;

    EngineRequest request(bool diarize, Speaker language, QString model, QString key = QStringLiteral("test-key-0123"))
    {
        return EngineRequest{m_speech,       m_duration, std::move(language), diarize, std::move(model),
                             std::move(key), false};
    }

    SegmentsResult run(SpeechEngine &engine, EngineRequest r, QStringList *progress = nullptr)
    {
        ProgressCallback report = [progress](const QString &text) {
            if (progress)
                progress->append(text);
        };
        return QCoro::waitFor(engine.transcribe(std::move(r), std::move(report)));
    }

    std::array<FakeProvider *, 4> fakes()
    {
        return {m_deepgram.get(), m_openAI.get(), m_assemblyAI.get(), m_elevenLabs.get()};
    }

    // The engine and fake for a provider's display name; the engine gives up after 500 ms of silence.
    std::pair<std::unique_ptr<SpeechEngine>, FakeProvider *> pair(const QString &provider)
    {
        const HttpLimits limits{500ms, 60s};
        if (provider == QLatin1String("Deepgram"))
            return {std::make_unique<DeepgramEngine>(m_deepgram->base(), limits), m_deepgram.get()};
        if (provider == QLatin1String("OpenAI"))
            return {std::make_unique<OpenAIEngine>(m_media, 1200.0, m_openAI->base(), limits), m_openAI.get()};
        if (provider == QLatin1String("AssemblyAI"))
            return {std::make_unique<AssemblyAIEngine>(m_assemblyAI->base(), limits, 20ms), m_assemblyAI.get()};
        return {std::make_unique<ElevenLabsEngine>(m_elevenLabs->base(), limits), m_elevenLabs.get()};
    }

private Q_SLOTS:
    void initTestCase()
    {
        QNetworkProxy::setApplicationProxy(QNetworkProxy::NoProxy);
        const QString track = m_dir.filePath(QStringLiteral("Source/meeting-audio.m4a"));
        QVERIFY(
            writeSpeechTrack(track, QStringLiteral("Good morning everyone. Morning! Let's review the numbers."), 2));
        m_speech = QUrl::fromLocalFile(m_dir.filePath(QStringLiteral("speech-0.m4a")));
        QVERIFY(QCoro::waitFor(m_media.exportSpeechAudio({QUrl::fromLocalFile(track)}, m_speech)));
        m_duration = QCoro::waitFor(m_media.duration(m_speech));
        QVERIFY(m_duration > 2.0);
    }

    void init()
    {
        m_deepgram = std::make_unique<FakeDeepgram>();
        m_openAI = std::make_unique<FakeOpenAI>();
        m_assemblyAI = std::make_unique<FakeAssemblyAI>();
        m_elevenLabs = std::make_unique<FakeElevenLabs>();
        for (FakeProvider *fake : fakes()) {
            fake->script = kConversation;
            fake->slowDelay = 2s;
        }
    }

    void cleanup()
    {
        for (FakeProvider *fake : fakes())
            QVERIFY2(fake->violations.isEmpty(), qPrintable(fake->violations.join(QStringLiteral("; "))));
    }

    // Each service's request for the options, and its answer read back with the service's own speaker names.
    void transcribes_data()
    {
        QTest::addColumn<QString>("provider");
        QTest::addColumn<bool>("diarize");
        QTest::addColumn<Speaker>("language");
        QTest::addColumn<QString>("model");
        QTest::addColumn<QByteArrayList>("sent"); // Deepgram's query, ElevenLabs' form, AssemblyAI's job and result
        QTest::addColumn<QStringList>("expected");

        const auto lines = [](const char *a, const char *b) {
            return QStringList{QStringLiteral("0.200-1.600 %1: Good morning everyone.").arg(QLatin1String(a)),
                               QStringLiteral("1.800-2.400 %1: Morning!").arg(QLatin1String(b)),
                               QStringLiteral("2.600-3.900 %1: Let's review the numbers.").arg(QLatin1String(a))};
        };
        const QStringList joined{
            QStringLiteral("0.200-3.900 -: Good morning everyone. Morning! Let's review the numbers.")};
        const QString deepgram = QStringLiteral("Deepgram");
        QTest::newRow("Deepgram diarized, Hebrew")
            << deepgram << true << Speaker(QStringLiteral("he")) << QStringLiteral("nova-3")
            << QByteArrayList{"model=nova-3&smart_format=true&punctuate=true&utterances=true&diarize=true&language=he"}
            << lines("0", "1");
        QTest::newRow("Deepgram speaker numbers ignored without diarization, language detected")
            << deepgram << false << Speaker() << QStringLiteral("nova-3")
            << QByteArrayList{"model=nova-3&smart_format=true&punctuate=true&utterances=true"
                              "&diarize=false&detect_language=true"}
            << lines("-", "-");
        const QString elevenLabs = QStringLiteral("ElevenLabs");
        QTest::newRow("ElevenLabs diarized, English")
            << elevenLabs << true << Speaker(QStringLiteral("en")) << QStringLiteral("scribe_v1")
            << QByteArrayList{"model_id=scribe_v1",     "diarize=true",     "timestamps_granularity=word",
                              "tag_audio_events=false", "language_code=en", "file=@speech-0.m4a;audio/mp4"}
            << lines("speaker_0", "speaker_1");
        QTest::newRow("ElevenLabs without speakers: pauses under 1.5 s join everything")
            << elevenLabs << false << Speaker() << QStringLiteral("scribe_v1")
            << QByteArrayList{"model_id=scribe_v1", "diarize=false", "timestamps_granularity=word",
                              "tag_audio_events=false", "file=@speech-0.m4a;audio/mp4"}
            << joined;
        const QString assemblyAI = QStringLiteral("AssemblyAI");
        QTest::newRow("AssemblyAI utterances, Hebrew, a chosen model")
            << assemblyAI << true << Speaker(QStringLiteral("he")) << QStringLiteral("universal-2")
            << QByteArrayList{"{\"format_text\":true,\"language_code\":\"he\",\"punctuate\":true,"
                              "\"speaker_labels\":true,\"speech_models\":[\"universal-2\"]}",
                              "transcript"}
            << lines("A", "B");
        QTest::newRow("AssemblyAI without diarization: sentences, grouped")
            << assemblyAI << false << Speaker() << QString()
            << QByteArrayList{"{\"format_text\":true,\"language_detection\":true,\"punctuate\":true,"
                              "\"speaker_labels\":false}",
                              "sentences"}
            << joined;
    }
    void transcribes()
    {
        QFETCH(QString, provider);
        QFETCH(bool, diarize);
        QFETCH(Speaker, language);
        QFETCH(QString, model);
        QFETCH(QStringList, expected);
        auto [engine, fake] = pair(provider);
        QStringList progress;
        const SegmentsResult result = run(*engine, request(diarize, language, model), &progress);
        QVERIFY2(result, qPrintable(result ? QString() : result.error().description()));
        QCOMPARE(segmentLines(*result, 3), expected);
        QCOMPARE(fake->uploads.size(), 1);
        QVERIFY(qAbs(fake->uploads.first().seconds - m_duration) < 0.1);
        QCOMPARE(fake->uploads.first().sampleRate, 16000);

        QByteArrayList sent;
        if (fake == m_deepgram.get()) {
            QCOMPARE(m_deepgram->server.requests.size(), 1);
            sent = {m_deepgram->server.requests.first().query};
        } else if (fake == m_elevenLabs.get()) {
            sent = m_elevenLabs->forms.value(0);
        } else {
            QCOMPARE(m_assemblyAI->pollTimesMs.size(), 3); // queued, processing, completed
            QJsonObject job = m_assemblyAI->createdJobs.value(0);
            job.remove(QLatin1String("audio_url"));
            const bool sentences = m_assemblyAI->server.requests.last().path.endsWith("/sentences");
            sent = {jsonBytes(job), sentences ? "sentences" : "transcript"};
        }
        QTEST(sent, "sent");
        const QStringList expectedProgress =
            provider == QLatin1String("AssemblyAI")
                ? QStringList{QStringLiteral("Uploading to AssemblyAI\u2026"),
                              QStringLiteral("AssemblyAI is transcribing\u2026")}
                : QStringList{QStringLiteral("Uploading to %1 & transcribing\u2026").arg(provider)};
        QCOMPARE(progress, expectedProgress);
    }

    void deepgramOddShapes()
    {
        auto engine = pair(QStringLiteral("Deepgram")).first;
        m_deepgram->tamper = [](const QByteArray &, QJsonObject &body) {
            QJsonObject results = body.value(QLatin1String("results")).toObject();
            QJsonArray utterances = results.value(QLatin1String("utterances")).toArray();
            QJsonObject second = utterances.at(1).toObject();
            second.remove(QLatin1String("end"));
            utterances.replace(1, second);
            results.insert(QLatin1String("utterances"), utterances);
            body.insert(QLatin1String("results"), results);
        };
        SegmentsResult result = run(*engine, request(true, {}, QStringLiteral("nova-3")));
        QVERIFY(result);
        QCOMPARE(result->size(), 2); // the utterance without an end is dropped, the others kept

        m_deepgram->tamper = {};
        m_deepgram->channelOnly = true;
        result = run(*engine, request(true, {}, QStringLiteral("nova-3")));
        QVERIFY(result);
        QCOMPARE(segmentLines(*result, 3),
                 QStringList{QStringLiteral("0.000-%1 -: Good morning everyone. Morning! Let's review the numbers.")
                                 .arg(m_duration, 0, 'f', 3)});

        m_deepgram->script.clear();
        result = run(*engine, request(true, {}, QStringLiteral("nova-3")));
        QVERIFY(result);
        QVERIFY(result->isEmpty());
    }

    void elevenLabsTextOnly()
    {
        auto engine = pair(QStringLiteral("ElevenLabs")).first;
        m_elevenLabs->tamper = [](const QByteArray &, QJsonObject &body) {
            body.insert(QLatin1String("words"), QJsonArray());
        };
        const SegmentsResult result = run(*engine, request(true, {}, QStringLiteral("scribe_v1")));
        QVERIFY(result);
        QCOMPARE(segmentLines(*result, 3),
                 QStringList{QStringLiteral("0.000-%1 -: Good morning everyone. Morning! Let's review the numbers.")
                                 .arg(m_duration, 0, 'f', 3)});
    }

    void assemblyAIPollsEveryFourSeconds()
    {
        m_assemblyAI->statuses = {QStringLiteral("completed")};
        AssemblyAIEngine engine(m_assemblyAI->base());
        QVERIFY(run(engine, request(true, {}, {})));
        QCOMPARE(m_assemblyAI->pollTimesMs.size(), 1);
        const qint64 waited = m_assemblyAI->pollTimesMs.first() - m_assemblyAI->createdAtMs;
        QVERIFY2(waited >= 3990 && waited < 5000, qPrintable(QString::number(waited)));
    }

    void assemblyAIFailures_data()
    {
        QTest::addColumn<QStringList>("statuses");
        QTest::addColumn<Speaker>("jobError");
        QTest::addColumn<QByteArray>("dropFieldAt");
        QTest::addColumn<QString>("expected");

        const QStringList failing{QStringLiteral("queued"), QStringLiteral("error")};
        QTest::newRow("job failed with a reason")
            << failing << Speaker(QStringLiteral("Transcoding failed. File does not appear to contain audio."))
            << QByteArray()
            << QStringLiteral("AssemblyAI error 0: Transcoding failed. File does not appear to contain audio.");
        QTest::newRow("job failed without a reason")
            << failing << Speaker() << QByteArray() << QStringLiteral("AssemblyAI error 0: unknown error");
        QTest::newRow("upload without upload_url")
            << QStringList{QStringLiteral("completed")} << Speaker() << QByteArray("/v2/upload")
            << QStringLiteral("AssemblyAI returned a response Quillmoor couldn't read.");
        QTest::newRow("create without id")
            << QStringList{QStringLiteral("completed")} << Speaker() << QByteArray("/v2/transcript")
            << QStringLiteral("AssemblyAI returned a response Quillmoor couldn't read.");
    }
    void assemblyAIFailures()
    {
        QFETCH(QStringList, statuses);
        QFETCH(Speaker, jobError);
        QFETCH(QByteArray, dropFieldAt);
        QFETCH(QString, expected);
        m_assemblyAI->statuses = statuses;
        m_assemblyAI->jobError = jobError;
        m_assemblyAI->tamper = [dropFieldAt](const QByteArray &path, QJsonObject &body) {
            if (path == dropFieldAt) {
                body.remove(QLatin1String("upload_url"));
                body.remove(QLatin1String("id"));
            }
        };
        auto engine = pair(QStringLiteral("AssemblyAI")).first;
        const SegmentsResult result = run(*engine, request(true, {}, {}));
        QVERIFY(!result);
        QCOMPARE(result.error().description(), expected);
    }

    // Whatever goes wrong at the service reaches the user as one sentence naming the provider.
    void serviceErrors_data()
    {
        QTest::addColumn<QString>("provider");
        QTest::addColumn<Outcome>("outcome");
        QTest::addColumn<QString>("key");
        QTest::addColumn<QString>("expected");

        const QString good = QStringLiteral("test-key-0123");
        const QString bad = QStringLiteral("wrong-key");
        const QStringList refusals{
            QStringLiteral("Deepgram error 401: Invalid credentials."),
            QStringLiteral("OpenAI error 401: Incorrect API key provided."),
            QStringLiteral("AssemblyAI error 401: Authentication error, API token missing/invalid"),
            QStringLiteral("ElevenLabs error 401: Invalid API key")};
        for (const QString &refusal : refusals) {
            const QString provider = refusal.section(u' ', 0, 0);
            const QByteArray name = provider.toLatin1();
            QTest::addRow("%s bad key", name.constData()) << provider << Outcome::success << bad << refusal;
            QTest::addRow("%s slow", name.constData())
                << provider << Outcome::slow << good
                << provider + QStringLiteral(" stopped answering, so the transcription was cancelled.");
        }
    }
    void serviceErrors()
    {
        QFETCH(QString, provider);
        QFETCH(Outcome, outcome);
        QFETCH(QString, key);
        QFETCH(QString, expected);
        auto [engine, fake] = pair(provider);
        fake->outcome = outcome;
        const QString model = provider == QLatin1String("Deepgram")     ? QStringLiteral("nova-3")
                              : provider == QLatin1String("OpenAI")     ? QStringLiteral("gpt-4o-transcribe-diarize")
                              : provider == QLatin1String("ElevenLabs") ? QStringLiteral("scribe_v1")
                                                                        : QString();
        const SegmentsResult result = run(*engine, request(true, {}, model, key));
        QVERIFY(!result);
        QCOMPARE(result.error().description(), expected);
    }
};

QTEST_GUILESS_MAIN(TestCloudEngines)
#include "tst_cloudengines.moc"
