#include "transcription/transcriptionservice.h"

#include "capture/mediaprocessor.h"
#include "library/secretstore.h"
#include "library/textutil.h"
#include "transcription/assemblyaiengine.h"
#include "transcription/deepgramengine.h"
#include "transcription/elevenlabsengine.h"
#include "transcription/openaiengine.h"
#include "transcription/segmenttidy.h"

#include <QCoreApplication>
#include <QDir>
#include <QUuid>

#include <algorithm>
#include <numeric>

namespace qm {

namespace {

QString tr(const char *text)
{
    return QCoreApplication::translate("TranscriptionService", text);
}

constexpr double kOpenAIChunkSeconds = 1200.0;

// The run's scratch folder; gone when the run ends, whichever way it ends.
class WorkingFolder {
public:
    WorkingFolder()
        : m_dir(QDir::temp().filePath(QLatin1String("Quillmoor-") +
                                      QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper()))
    {}
    ~WorkingFolder()
    {
        if (m_created)
            QDir(m_dir).removeRecursively();
    }
    WorkingFolder(const WorkingFolder &) = delete;
    WorkingFolder &operator=(const WorkingFolder &) = delete;

    bool create() { return m_created = QDir().mkpath(m_dir); }
    QString path() const { return m_dir; }
    QUrl file(const QString &name) const { return QUrl::fromLocalFile(QDir(m_dir).filePath(name)); }

private:
    QString m_dir;
    bool m_created = false;
};

QUrl track(const Recording &recording, const char *name)
{
    return QUrl::fromLocalFile(
        QDir(recording.folderPath()).filePath(QLatin1String(kSourceFolderName) + u'/' + QLatin1String(name)));
}

} // namespace

TranscriptionService::EngineFactory TranscriptionService::cloudEngines(MediaProcessor &media)
{
    return [&media](TranscriptionProvider provider) -> std::unique_ptr<SpeechEngine> {
        switch (provider) {
        case TranscriptionProvider::elevenLabs:
            return std::make_unique<ElevenLabsEngine>();
        case TranscriptionProvider::assemblyAI:
            return std::make_unique<AssemblyAIEngine>();
        case TranscriptionProvider::openAI:
            return std::make_unique<OpenAIEngine>(media, kOpenAIChunkSeconds);
        case TranscriptionProvider::deepgram: {
            // End-to-end tests point the real program at a loopback stand-in of the service.
            const QString base = qEnvironmentVariable("QM_DEEPGRAM_URL");
            return std::make_unique<DeepgramEngine>(base.isEmpty() ? DeepgramEngine::defaultBase() : QUrl(base));
        }
        case TranscriptionProvider::onDevice:
            break;
        }
        return nullptr;
    };
}

TranscriptionService::TranscriptionService(SecretStore &secrets, MediaProcessor &media, EngineFactory engines)
    : m_secrets(secrets), m_media(media), m_engines(std::move(engines))
{}

std::optional<QString> TranscriptionService::languageCode(TranscriptionLanguage language)
{
    switch (language) {
    case TranscriptionLanguage::english:
        return QStringLiteral("en");
    case TranscriptionLanguage::hebrew:
        return QStringLiteral("he");
    case TranscriptionLanguage::automatic:
        break;
    }
    return std::nullopt;
}

QList<TranscriptionService::Job> TranscriptionService::plan(const Recording &recording,
                                                            const TranscriptionOptions &options)
{
    // The on-device model can't tell speakers apart.
    const bool diarize = options.detectSpeakers && options.provider != TranscriptionProvider::onDevice;
    if (options.labelMyVoice && recording.hasMicrophoneTrack && recording.hasMeetingTrack) {
        QString me = trimSpacesAndTabs(options.myName);
        if (me.isEmpty())
            me = QStringLiteral("Me");
        return {
            Job{{track(recording, kMicrophoneTrackFileName)}, me, false, tr("your microphone")},
            Job{{track(recording, kMeetingTrackFileName)},
                diarize ? std::nullopt : std::optional<QString>(QStringLiteral("Participants")),
                diarize,
                tr("meeting audio")},
        };
    }
    return {Job{recording.audioSourceURLs(), std::nullopt, diarize, tr("recording")}};
}

QCoro::Task<expected<Transcript, TranscriptionError>>
TranscriptionService::transcribe(Recording recording, TranscriptionOptions options, ProgressCallback progress)
{
    const TranscriptionProvider provider = options.provider;
    const bool cloud = provider != TranscriptionProvider::onDevice;
    // Read for every run, so a key changed in the settings counts at once.
    const QString key =
        cloud ? m_secrets.get(apiKeyAccount(provider), QLatin1String(kKeyringService)).value_or(QString()) : QString();
    if (cloud && key.isEmpty())
        co_return unexpected(TranscriptionError::missingAPIKey(provider));

    std::unique_ptr<SpeechEngine> engine = m_engines ? m_engines(provider) : nullptr;
    if (!engine)
        co_return unexpected(
            TranscriptionError::modelUnavailable(tr("on-device transcription isn't part of this build.")));

    const QList<Job> jobs = plan(recording, options);
    WorkingFolder work;
    if (!work.create())
        co_return unexpected(TranscriptionError::file(work.path(), tr("the folder couldn't be created.")));

    const std::optional<QString> language = languageCode(options.language);
    Segments combined;
    for (qsizetype i = 0; i < jobs.size(); ++i) {
        const Job &job = jobs.at(i);
        const QString suffix =
            jobs.size() >= 2 ? QStringLiteral(" (%1/%2: %3)").arg(i + 1).arg(jobs.size()).arg(job.label) : QString();
        progress(tr("Preparing audio") + suffix + QStringLiteral("\u2026"));

        const QUrl speech = work.file(QStringLiteral("speech-%1.m4a").arg(i));
        QCoro::Task<expected<void, MediaProcessorError>> exporting = m_media.exportSpeechAudio(job.sources, speech);
        const expected<void, MediaProcessorError> exported = co_await exporting;
        if (!exported)
            co_return unexpected(TranscriptionError::media(exported.error()));
        QCoro::Task<double> measuring = m_media.duration(speech);
        const double duration = co_await measuring;

        EngineRequest request{
            speech, duration, language, job.diarize, options.model, key, recording.source == RecordingSource::inPerson};
        ProgressCallback engineProgress = [progress, suffix](const QString &text) { progress(text + suffix); };
        QCoro::Task<SegmentsResult> running = engine->transcribe(std::move(request), std::move(engineProgress));
        SegmentsResult segments = co_await running;
        if (!segments)
            co_return unexpected(segments.error());

        if (job.fixedSpeaker) {
            for (TranscriptSegment &segment : *segments)
                segment.speaker = job.fixedSpeaker;
        } else if (job.diarize) {
            normalizeSpeakers(*segments);
        } else {
            for (TranscriptSegment &segment : *segments)
                segment.speaker.reset();
        }
        combined.append(*segments);
    }

    // Stable, so at equal starts the microphone pass stays ahead of the meeting audio. Sorting positions
    // rather than segments also keeps GCC 12's optimiser from warning about moved-from optionals.
    QList<qsizetype> order(combined.size());
    std::iota(order.begin(), order.end(), 0);
    std::stable_sort(order.begin(), order.end(),
                     [&combined](qsizetype a, qsizetype b) { return combined.at(a).start < combined.at(b).start; });
    Segments sorted;
    sorted.reserve(combined.size());
    for (qsizetype i : order)
        sorted.append(combined.at(i));
    Segments tidied = tidy(sorted);
    if (tidied.isEmpty())
        co_return unexpected(TranscriptionError::noSpeech());

    Transcript transcript;
    transcript.engine = shortName(provider);
    if (cloud)
        transcript.model = options.model;
    transcript.language = language;
    transcript.createdAt = QDateTime::currentDateTime();
    transcript.segments = std::move(tidied);
    co_return transcript;
}

} // namespace qm
