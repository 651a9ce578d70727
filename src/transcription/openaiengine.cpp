#include "transcription/openaiengine.h"

#include "capture/mediaprocessor.h"
#include "transcription/enginesupport.h"
#include "transcription/multipartform.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QJsonArray>

#include <cmath>

namespace qm {

namespace {

const QString kService = QStringLiteral("OpenAI");

// A part shorter than this beyond one chunk isn't worth a request of its own.
constexpr double kChunkAllowance = 60.0;

QString tr(const char *text)
{
    return QCoreApplication::translate("OpenAIEngine", text);
}

QString responseFormat(const QString &model)
{
    if (model.contains(QLatin1String("diarize")))
        return QStringLiteral("diarized_json");
    if (model.startsWith(QLatin1String("whisper")))
        return QStringLiteral("verbose_json");
    return QStringLiteral("json");
}

// Media times elsewhere in the program count in 1/600 s.
double onMediaTimescale(double seconds)
{
    return std::round(seconds * 600.0) / 600.0;
}

} // namespace

QUrl OpenAIEngine::defaultBase()
{
    return QUrl(QStringLiteral("https://api.openai.com"));
}

OpenAIEngine::OpenAIEngine(MediaProcessor &media, double chunkSeconds, QUrl base, HttpLimits limits)
    : m_media(media), m_chunkSeconds(chunkSeconds), m_base(std::move(base)), m_limits(limits)
{}

QCoro::Task<SegmentsResult> OpenAIEngine::transcribe(EngineRequest request, ProgressCallback progress)
{
    const double d = request.duration;
    const double c = m_chunkSeconds;
    if (!(c + kChunkAllowance < d)) {
        progress(tr("Transcribing with OpenAI\u2026"));
        QCoro::Task<SegmentsResult> whole = transcribeFile(request.audio, request);
        co_return co_await whole;
    }

    const int parts = std::max(1, int(std::ceil(d / c)));
    const QDir folder = QFileInfo(request.audio.toLocalFile()).absoluteDir();
    Segments result;
    for (int i = 0; i < parts; ++i) {
        progress(tr("Transcribing with OpenAI \u2013 part ") + QString::number(i + 1) + tr(" of ") +
                 QString::number(parts) + QStringLiteral("\u2026"));
        const QUrl part = QUrl::fromLocalFile(folder.filePath(QStringLiteral("part-%1.m4a").arg(i)));
        const double offset = onMediaTimescale(i * c);
        const TimeRange range{offset, onMediaTimescale(std::min(d - i * c, c))};
        QCoro::Task<expected<void, MediaProcessorError>> exporting =
            m_media.exportSpeechAudio(QList<QUrl>{request.audio}, part, range);
        const expected<void, MediaProcessorError> exported = co_await exporting;
        if (!exported)
            co_return unexpected(TranscriptionError::media(exported.error()));

        QCoro::Task<SegmentsResult> sending = transcribeFile(part, request);
        SegmentsResult segments = co_await sending;
        if (!segments)
            co_return unexpected(segments.error());
        for (TranscriptSegment &segment : *segments) {
            segment.start += offset;
            segment.end += offset;
        }
        result.append(*segments);
    }
    co_return result;
}

QCoro::Task<SegmentsResult> OpenAIEngine::transcribeFile(QUrl file, EngineRequest request)
{
    expected<QByteArray, TranscriptionError> audio = engine::readWhole(file);
    if (!audio)
        co_return unexpected(audio.error());

    const bool diarizing = request.model.contains(QLatin1String("diarize"));
    MultipartForm form = MultipartForm::withNewBoundary();
    form.add(QStringLiteral("model"), request.model);
    form.add(QStringLiteral("response_format"), responseFormat(request.model));
    if (diarizing)
        form.add(QStringLiteral("chunking_strategy"), QStringLiteral("auto"));
    if (request.language)
        form.add(QStringLiteral("language"), *request.language);
    form.addFile(QStringLiteral("file"), QFileInfo(file.toLocalFile()).fileName(), QStringLiteral("audio/mp4"), *audio);
    form.close();
    audio->clear();

    QNetworkRequest http(engine::endpoint(m_base, QStringLiteral("/v1/audio/transcriptions")));
    http.setRawHeader("Authorization", "Bearer " + request.apiKey.toUtf8());
    http.setHeader(QNetworkRequest::ContentTypeHeader, form.contentType());
    QCoro::Task<expected<QJsonValue, TranscriptionError>> sent =
        HTTP::send(http, std::move(form.data), kService, m_limits);
    const expected<QJsonValue, TranscriptionError> answer = co_await sent;
    if (!answer)
        co_return unexpected(answer.error());

    const QJsonObject body = answer->toObject();
    Segments segments;
    const QJsonValue list = body.value(QLatin1String("segments"));
    if (list.isArray()) {
        for (const QJsonValue &item : list.toArray()) {
            const QJsonObject s = item.toObject();
            const auto text = engine::string(s, QLatin1String("text"));
            const auto start = engine::number(s, QLatin1String("start"));
            const auto end = engine::number(s, QLatin1String("end"));
            if (!text || !start || !end)
                continue;
            segments.append(TranscriptSegment{QUuid::createUuid(), *start, *end,
                                              engine::string(s, QLatin1String("speaker")), *text});
        }
        co_return segments;
    }
    const QString text = engine::string(body, QLatin1String("text")).value_or(QString());
    if (text.isEmpty())
        co_return segments;
    // Without times the text spans the whole file, so a part's text ends where the part ends once shifted.
    QCoro::Task<double> measuring = m_media.duration(file);
    const double length = co_await measuring;
    segments.append(TranscriptSegment{QUuid::createUuid(), 0, length, std::nullopt, text});
    co_return segments;
}

} // namespace qm
