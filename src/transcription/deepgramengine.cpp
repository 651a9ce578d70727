#include "transcription/deepgramengine.h"

#include "transcription/enginesupport.h"

#include <QCoreApplication>
#include <QJsonArray>
#include <QUrlQuery>

namespace qm {

namespace {

const QString kService = QStringLiteral("Deepgram");

QUrl listenAddress(QUrl base, const EngineRequest &request)
{
    QUrl url = engine::endpoint(base, QStringLiteral("/v1/listen"));
    const QString yes = QStringLiteral("true");
    QUrlQuery query;
    query.addQueryItem(QStringLiteral("model"), request.model);
    query.addQueryItem(QStringLiteral("smart_format"), yes);
    query.addQueryItem(QStringLiteral("punctuate"), yes);
    query.addQueryItem(QStringLiteral("utterances"), yes);
    query.addQueryItem(QStringLiteral("diarize"), request.diarize ? yes : QStringLiteral("false"));
    if (request.language)
        query.addQueryItem(QStringLiteral("language"), *request.language);
    else
        query.addQueryItem(QStringLiteral("detect_language"), yes);
    url.setQuery(query);
    return url;
}

// An answer of an unexpected shape yields no segments rather than an error; the service then says that no
// speech was found.
Segments parse(const QJsonValue &answer, const EngineRequest &request)
{
    const QJsonObject results = answer.toObject().value(QLatin1String("results")).toObject();
    const QJsonArray utterances = results.value(QLatin1String("utterances")).toArray();
    Segments segments;
    if (!utterances.isEmpty()) {
        for (const QJsonValue &item : utterances) {
            const QJsonObject u = item.toObject();
            const auto text = engine::string(u, QLatin1String("transcript"));
            const auto start = engine::number(u, QLatin1String("start"));
            const auto end = engine::number(u, QLatin1String("end"));
            if (!text || !start || !end)
                continue;
            std::optional<QString> speaker;
            const auto raw = engine::number(u, QLatin1String("speaker"));
            if (request.diarize && raw)
                speaker = QString::number(qint64(*raw));
            segments.append(
                TranscriptSegment{QUuid::createUuid(), *start, *end, speaker, *text,
                                  engine::words(u.value(QLatin1String("words")).toArray(),
                                                QLatin1String("punctuated_word"), QLatin1String("word"), 1.0)});
        }
        return segments;
    }
    const QString whole = results.value(QLatin1String("channels"))
                              .toArray()
                              .first()
                              .toObject()
                              .value(QLatin1String("alternatives"))
                              .toArray()
                              .first()
                              .toObject()
                              .value(QLatin1String("transcript"))
                              .toString();
    if (!whole.isEmpty())
        segments.append(TranscriptSegment{QUuid::createUuid(), 0, request.duration, std::nullopt, whole});
    return segments;
}

} // namespace

QUrl DeepgramEngine::defaultBase()
{
    return QUrl(QStringLiteral("https://api.deepgram.com"));
}

DeepgramEngine::DeepgramEngine(QUrl base, HttpLimits limits) : m_base(std::move(base)), m_limits(limits) {}

QCoro::Task<SegmentsResult> DeepgramEngine::transcribe(EngineRequest request, ProgressCallback progress)
{
    QNetworkRequest http(listenAddress(m_base, request));
    http.setRawHeader("Authorization", "Token " + request.apiKey.toUtf8());
    http.setHeader(QNetworkRequest::ContentTypeHeader, QByteArray("audio/mp4"));

    progress(QCoreApplication::translate("DeepgramEngine", "Uploading to Deepgram & transcribing\u2026"));
    expected<QByteArray, TranscriptionError> audio = engine::readWhole(request.audio);
    if (!audio)
        co_return unexpected(audio.error());

    QCoro::Task<expected<QJsonValue, TranscriptionError>> sent =
        HTTP::send(http, std::move(*audio), kService, m_limits);
    const expected<QJsonValue, TranscriptionError> answer = co_await sent;
    if (!answer)
        co_return unexpected(answer.error());
    co_return parse(*answer, request);
}

} // namespace qm
