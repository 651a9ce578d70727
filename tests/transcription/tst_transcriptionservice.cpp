#include "capture/mediaprocessor.h"
#include "support/fakesecretstore.h"
#include "support/providers/fakedeepgram.h"
#include "support/providers/fakeelevenlabs.h"
#include "support/providers/segmentlines.h"
#include "support/providers/speechfixture.h"
#include "transcription/deepgramengine.h"
#include "transcription/elevenlabsengine.h"
#include "transcription/transcriptionservice.h"

#include <QCoroTask>
#include <QDir>
#include <QNetworkProxy>
#include <QTemporaryDir>
#include <QTest>

using namespace qm;
using namespace qm::test;

namespace {

// The one engine that is not a cloud service: stands in for the on-device model, which plugs in the same way.
class LocalEngine : public SpeechEngine {
public:
    explicit LocalEngine(QList<EngineRequest> &requests) : m_requests(requests) {}
    QCoro::Task<SegmentsResult> transcribe(EngineRequest request, ProgressCallback progress) override
    {
        m_requests.append(request);
        progress(QStringLiteral("Transcribing on this computer\u2026"));
        co_return Segments{{QUuid::createUuid(), 1, 2, QStringLiteral("raw"), QStringLiteral("Hello there.")}};
    }

private:
    QList<EngineRequest> &m_requests;
};

} // namespace

class TestTranscriptionService : public QObject {
    Q_OBJECT

    QTemporaryDir m_library;
    QTemporaryDir m_temp; // the process's temporary directory, where working folders appear
    MediaProcessor m_media;
    FakeSecretStore m_secrets;
    FakeDeepgram m_deepgram;
    FakeElevenLabs m_elevenLabs;
    QList<EngineRequest> m_localRequests;
    int m_enginesMade = 0;
    Recording m_recording;

    TranscriptionService service()
    {
        return TranscriptionService(m_secrets, m_media,
                                    [this](TranscriptionProvider provider) -> std::unique_ptr<SpeechEngine> {
                                        ++m_enginesMade;
                                        // The other services are only reached through the key check, which comes before
                                        // any engine.
                                        if (provider == TranscriptionProvider::deepgram)
                                            return std::make_unique<DeepgramEngine>(m_deepgram.base());
                                        if (provider == TranscriptionProvider::elevenLabs)
                                            return std::make_unique<ElevenLabsEngine>(m_elevenLabs.base());
                                        return std::make_unique<LocalEngine>(m_localRequests);
                                    });
    }

    std::array<FakeProvider *, 2> fakes() { return {&m_deepgram, &m_elevenLabs}; }

    QStringList workingFolders() const
    {
        return QDir(m_temp.path()).entryList({QStringLiteral("Quillmoor-*")}, QDir::Dirs);
    }

    struct Run {
        expected<Transcript, TranscriptionError> result;
        QStringList progress;
        QStringList foldersSeen; // working folders present while the run reported progress
    };
    Run run(const Recording &recording, const TranscriptionOptions &options)
    {
        Run out{unexpected(TranscriptionError::noSpeech()), {}, {}};
        ProgressCallback progress = [&out, this](const QString &text) {
            out.progress.append(text);
            out.foldersSeen = workingFolders();
        };
        TranscriptionService transcription = service();
        out.result = QCoro::waitFor(transcription.transcribe(recording, options, std::move(progress)));
        return out;
    }

    static TranscriptionOptions options(TranscriptionProvider provider, const QString &model)
    {
        return {provider, TranscriptionLanguage::english, true, true, QStringLiteral("  Dana "), model};
    }

private Q_SLOTS:
    void initTestCase()
    {
        QNetworkProxy::setApplicationProxy(QNetworkProxy::NoProxy);
        qputenv("TMPDIR", QFile::encodeName(m_temp.path()));
        QCOMPARE(QDir::tempPath(), QDir(m_temp.path()).canonicalPath());

        const QString folder = m_library.filePath(QStringLiteral("2026-03-02 09-30 Zoom Meeting"));
        QVERIFY(writeSpeechTrack(folder + QStringLiteral("/Source/meeting-audio.m4a"),
                                 QStringLiteral("Let's look at the roadmap. Sounds good."), 2));
        QVERIFY(writeSpeechTrack(folder + QStringLiteral("/Source/microphone.m4a"),
                                 QStringLiteral("Right. I agree with that plan."), 1));
        m_recording.id = QUuid::createUuid();
        m_recording.folder = QUrl::fromLocalFile(folder);
        m_recording.hasMeetingTrack = true;
        m_recording.hasMicrophoneTrack = true;
        m_recording.state = ProcessingState::ready;
    }

    void init()
    {
        m_secrets.items.clear();
        for (TranscriptionProvider provider : kCloudProviders)
            m_secrets.put(QLatin1String(kKeyringService), apiKeyAccount(provider), m_deepgram.key);
        m_enginesMade = 0;
        for (FakeProvider *fake : fakes()) {
            fake->server.requests.clear();
            fake->uploads.clear();
            fake->forms.clear();
            fake->outcome = Outcome::success;
            fake->hearing = {};
        }
    }

    void cleanup()
    {
        QVERIFY2(workingFolders().isEmpty(), "the working folder outlived the run");
        for (FakeProvider *fake : fakes())
            QVERIFY2(fake->violations.isEmpty(), qPrintable(fake->violations.join(QStringLiteral("; "))));
    }

    // Microphone as "Dana", the meeting's voices numbered, merged in time order (microphone first at equal
    // starts), tidied.
    void twoPasses()
    {
        m_deepgram.hearing = [](const Mp4Audio &, int upload) {
            if (upload == 0)
                return QList<Heard>{{QStringLiteral("Right."), 0.5, 0.9, 0},
                                    {QStringLiteral("I agree"), 2.0, 3.0, 0},
                                    {QStringLiteral("with that plan."), 3.2, 4.0, 0}};
            return QList<Heard>{{QStringLiteral("Let's look"), 0.5, 1.5, 1},
                                {QStringLiteral(" at the roadmap. "), 1.6, 2.5, 1},
                                {QStringLiteral("Sounds good."), 3.0, 3.5, 0}};
        };
        const Run r = run(m_recording, options(TranscriptionProvider::deepgram, QStringLiteral("nova-3")));
        QVERIFY2(r.result, qPrintable(r.result ? QString() : r.result.error().description()));

        QCOMPARE(segmentLines(r.result->segments),
                 (QStringList{QStringLiteral("0.5-0.9 Dana: Right."),
                              QStringLiteral("0.5-2.5 Speaker 1: Let's look at the roadmap."),
                              QStringLiteral("2-3 Dana: I agree"), QStringLiteral("3-3.5 Speaker 2: Sounds good."),
                              QStringLiteral("3.2-4 Dana: with that plan.")}));
        QCOMPARE(r.result->engine, QStringLiteral("Deepgram"));
        QCOMPARE(r.result->model, QStringLiteral("nova-3"));
        QCOMPARE(r.result->language, QStringLiteral("en"));
        QVERIFY(r.result->speakerNames.isEmpty());
        QVERIFY(qAbs(r.result->createdAt.secsTo(QDateTime::currentDateTime())) < 60);

        QCOMPARE(r.progress,
                 (QStringList{QStringLiteral("Preparing audio (1/2: your microphone)\u2026"),
                              QStringLiteral("Uploading to Deepgram & transcribing\u2026 (1/2: your microphone)"),
                              QStringLiteral("Preparing audio (2/2: meeting audio)\u2026"),
                              QStringLiteral("Uploading to Deepgram & transcribing\u2026 (2/2: meeting audio)")}));
        QCOMPARE(r.foldersSeen.size(), 1);
        QVERIFY(r.foldersSeen.first().contains(QRegularExpression(
            QStringLiteral("^Quillmoor-[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12}$"))));

        // Each pass sent its own track: the microphone without diarization, the meeting with it.
        QCOMPARE(m_deepgram.server.requests.size(), 2);
        QVERIFY(m_deepgram.server.requests.at(0).query.contains("diarize=false&language=en"));
        QVERIFY(m_deepgram.server.requests.at(1).query.contains("diarize=true&language=en"));
        const double microphone = QCoro::waitFor(
            m_media.duration(QUrl::fromLocalFile(m_recording.folderPath() + QStringLiteral("/Source/microphone.m4a"))));
        const double meeting = QCoro::waitFor(m_media.duration(
            QUrl::fromLocalFile(m_recording.folderPath() + QStringLiteral("/Source/meeting-audio.m4a"))));
        QVERIFY(qAbs(m_deepgram.uploads.at(0).seconds - microphone) < 0.2);
        QVERIFY(qAbs(m_deepgram.uploads.at(1).seconds - meeting) < 0.2);
        QCOMPARE(m_deepgram.uploads.at(0).channels, 1);
    }

    // Without a microphone track the voice can't be told apart: one pass over everything, speakers numbered.
    void onePassWithoutMicrophone()
    {
        Recording meetingOnly = m_recording;
        meetingOnly.hasMicrophoneTrack = false;
        m_elevenLabs.script = {{QStringLiteral("Welcome back."), 0.2, 1.0, 3},
                               {QStringLiteral("Thanks."), 3.0, 3.4, 1},
                               {QStringLiteral("Shall we start?"), 5.0, 6.0, 3}};
        const Run r = run(meetingOnly, options(TranscriptionProvider::elevenLabs, QStringLiteral("scribe_v1")));
        QVERIFY2(r.result, qPrintable(r.result ? QString() : r.result.error().description()));
        QCOMPARE(segmentLines(r.result->segments), (QStringList{QStringLiteral("0.2-1 Speaker 1: Welcome back."),
                                                                QStringLiteral("3-3.4 Speaker 2: Thanks."),
                                                                QStringLiteral("5-6 Speaker 1: Shall we start?")}));
        QCOMPARE(r.progress, (QStringList{QStringLiteral("Preparing audio\u2026"),
                                          QStringLiteral("Uploading to ElevenLabs & transcribing\u2026")}));
        QCOMPARE(m_elevenLabs.uploads.size(), 1);
        QCOMPARE(m_elevenLabs.uploads.first().channels, 1);
    }

    // The key is checked before any engine is made or any audio prepared.
    void missingKey_data()
    {
        QTest::addColumn<TranscriptionProvider>("provider");
        QTest::addColumn<QString>("expected");
        const std::pair<TranscriptionProvider, const char *> providers[] = {
            {TranscriptionProvider::deepgram, "Deepgram"},
            {TranscriptionProvider::openAI, "OpenAI"},
            {TranscriptionProvider::assemblyAI, "AssemblyAI"},
            {TranscriptionProvider::elevenLabs, "ElevenLabs"}};
        for (const auto &[provider, name] : providers)
            QTest::newRow(name)
                << provider
                << QStringLiteral("Add your %1 API key in Settings \u203A Transcription.").arg(QLatin1String(name));
    }
    void missingKey()
    {
        QFETCH(TranscriptionProvider, provider);
        QFETCH(QString, expected);
        m_secrets.items.remove({QLatin1String(kKeyringService), apiKeyAccount(provider)});
        m_secrets.put(QStringLiteral("some.other.service"), apiKeyAccount(provider), QStringLiteral("not ours"));
        const Run r = run(m_recording, options(provider, {}));
        QVERIFY(!r.result);
        QCOMPARE(r.result.error().description(), expected);
        QVERIFY(r.progress.isEmpty());
        QCOMPARE(m_enginesMade, 0);
    }

    // Failures pass through unchanged, and nothing is left behind.
    void failures_data()
    {
        QTest::addColumn<QString>("fault");
        QTest::addColumn<QString>("expected");
        QTest::newRow("service refuses the key")
            << QStringLiteral("stale key") << QStringLiteral("Deepgram error 401: Invalid credentials.");
        QTest::newRow("export fails") << QStringLiteral("no tracks")
                                      << QStringLiteral("There is no audio in this recording.");
        QTest::newRow("only blank text") << QStringLiteral("blank")
                                         << QStringLiteral("No speech was found in this recording.");
    }
    void failures()
    {
        QFETCH(QString, fault);
        QFETCH(QString, expected);
        if (fault == QLatin1String("stale key"))
            m_secrets.put(QLatin1String(kKeyringService), apiKeyAccount(TranscriptionProvider::deepgram),
                          QStringLiteral("stale"));
        Recording recording = m_recording;
        if (fault == QLatin1String("no tracks"))
            recording.folder = QUrl::fromLocalFile(m_library.filePath(QStringLiteral("gone")));
        const bool blank = fault == QLatin1String("blank");
        m_deepgram.hearing = [blank](const Mp4Audio &, int) {
            return blank ? QList<Heard>{{QStringLiteral(" \n "), 0, 1, 0}}
                         : QList<Heard>{{QStringLiteral("Hi."), 0, 1, 0}};
        };
        const Run r = run(recording, options(TranscriptionProvider::deepgram, QStringLiteral("nova-3")));
        QVERIFY(!r.result);
        QCOMPARE(r.result.error().description(), expected);
        QCOMPARE(r.foldersSeen.size(), 1);
    }

    // An engine that isn't a cloud service needs no key, never diarizes, and leaves the model out.
    void onDeviceEngine()
    {
        m_secrets.items.clear();
        TranscriptionOptions local = options(TranscriptionProvider::onDevice, {});
        local.labelMyVoice = false;
        local.language = TranscriptionLanguage::automatic;
        Recording inPerson = m_recording;
        inPerson.source = RecordingSource::inPerson;
        const Run r = run(inPerson, local);
        QVERIFY2(r.result, qPrintable(r.result ? QString() : r.result.error().description()));
        QCOMPARE(segmentLines(r.result->segments), QStringList{QStringLiteral("1-2 -: Hello there.")});
        QCOMPARE(r.result->engine, QStringLiteral("On-Device"));
        QCOMPARE(r.result->model, std::nullopt);
        QCOMPARE(r.result->language, std::nullopt);
        QCOMPARE(m_localRequests.size(), 1);
        const EngineRequest &request = m_localRequests.first();
        QVERIFY(!request.diarize);
        QVERIFY(request.farField);
        QVERIFY(request.apiKey.isEmpty());
        QVERIFY(request.duration > 1.0);
    }
};

QTEST_GUILESS_MAIN(TestTranscriptionService)
#include "tst_transcriptionservice.moc"
