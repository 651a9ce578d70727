#include "transcription/elevenlabsengine.h"

#include "transcription/enginesupport.h"
#include "transcription/multipartform.h"
#include "transcription/wordgrouping.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QJsonArray>

namespace qm {

namespace {

const QString kService = QStringLiteral("ElevenLabs");

Segments parse(const QJsonValue &answer, const EngineRequest &request)
{
    const QJsonObject body = answer.toObject();
    QList<TimedWord> words;
    for (const QJsonValue &item : body.value(QLatin1String("words")).toArray()) {
        const QJsonObject w = item.toObject();
        // Spacing and audio events come interleaved with the words; the joiner stands in for spacing.
        const auto type = engine::string(w, QLatin1String("type"));
        if (type && *type != QLatin1String("word"))
            continue;
        const auto text = engine::string(w, QLatin1String("text"));
        const auto start = engine::number(w, QLatin1String("start"));
        const auto end = engine::number(w, QLatin1String("end"));
        if (!text || !start || !end)
            continue;
        words.append(TimedWord{*text, *start, *end, engine::string(w, QLatin1String("speaker_id"))});
    }
    if (!words.isEmpty())
        return groupWords(words, QStringLiteral(" "));

    const QString text = engine::string(body, QLatin1String("text")).value_or(QString());
    if (text.isEmpty())
        return {};
    return {TranscriptSegment{QUuid::createUuid(), 0, request.duration, std::nullopt, text}};
}

} // namespace

QUrl ElevenLabsEngine::defaultBase()
{
    return QUrl(QStringLiteral("https://api.elevenlabs.io"));
}

ElevenLabsEngine::ElevenLabsEngine(QUrl base, HttpLimits limits) : m_base(std::move(base)), m_limits(limits) {}

QCoro::Task<SegmentsResult> ElevenLabsEngine::transcribe(EngineRequest request, ProgressCallback progress)
{
    progress(QCoreApplication::translate("ElevenLabsEngine", "Uploading to ElevenLabs & transcribing\u2026"));
    expected<QByteArray, TranscriptionError> audio = engine::readWhole(request.audio);
    if (!audio)
        co_return unexpected(audio.error());

    MultipartForm form = MultipartForm::withNewBoundary();
    form.add(QStringLiteral("model_id"), request.model);
    form.add(QStringLiteral("diarize"), request.diarize ? QStringLiteral("true") : QStringLiteral("false"));
    form.add(QStringLiteral("timestamps_granularity"), QStringLiteral("word"));
    form.add(QStringLiteral("tag_audio_events"), QStringLiteral("false"));
    if (request.language)
        form.add(QStringLiteral("language_code"), *request.language);
    form.addFile(QStringLiteral("file"), QFileInfo(request.audio.toLocalFile()).fileName(), QStringLiteral("audio/mp4"),
                 *audio);
    form.close();
    audio->clear();

    QNetworkRequest http(engine::endpoint(m_base, QStringLiteral("/v1/speech-to-text")));
    http.setRawHeader("xi-api-key", request.apiKey.toUtf8());
    http.setHeader(QNetworkRequest::ContentTypeHeader, form.contentType());
    QCoro::Task<expected<QJsonValue, TranscriptionError>> sent =
        HTTP::send(http, std::move(form.data), kService, m_limits);
    const expected<QJsonValue, TranscriptionError> answer = co_await sent;
    if (!answer)
        co_return unexpected(answer.error());
    co_return parse(*answer, request);
}

} // namespace qm
