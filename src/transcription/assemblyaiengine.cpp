#include "transcription/assemblyaiengine.h"

#include "transcription/enginesupport.h"
#include "transcription/wordgrouping.h"

#include <QCoreApplication>
#include <QCoroTimer>
#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QTimer>

namespace qm {

namespace {

const QString kService = QStringLiteral("AssemblyAI");

QString tr(const char *text)
{
    return QCoreApplication::translate("AssemblyAIEngine", text);
}

QByteArray createBody(const QString &uploadUrl, const EngineRequest &request)
{
    QJsonObject body{
        {QStringLiteral("audio_url"), uploadUrl},
        {QStringLiteral("speaker_labels"), request.diarize},
        {QStringLiteral("punctuate"), true},
        {QStringLiteral("format_text"), true},
    };
    if (request.language)
        body.insert(QStringLiteral("language_code"), *request.language);
    else
        body.insert(QStringLiteral("language_detection"), true);
    // The live service no longer accepts a single model field, only a list.
    if (!request.model.isEmpty())
        body.insert(QStringLiteral("speech_models"), QJsonArray{request.model});
    return QJsonDocument(body).toJson(QJsonDocument::Compact);
}

Segments fromUtterances(const QJsonArray &utterances)
{
    Segments segments;
    for (const QJsonValue &item : utterances) {
        const QJsonObject u = item.toObject();
        const auto text = engine::string(u, QLatin1String("text"));
        const auto start = engine::number(u, QLatin1String("start"));
        const auto end = engine::number(u, QLatin1String("end"));
        if (!text || !start || !end)
            continue;
        segments.append(TranscriptSegment{QUuid::createUuid(), *start / 1000.0, *end / 1000.0,
                                          engine::string(u, QLatin1String("speaker")), *text,
                                          engine::words(u.value(QLatin1String("words")).toArray(),
                                                        QLatin1String("text"), QLatin1String("text"), 1.0 / 1000.0)});
    }
    return segments;
}

Segments fromSentences(const QJsonValue &answer)
{
    QList<TimedWord> sentences;
    QList<TranscriptWord> spoken;
    for (const QJsonValue &item : answer.toObject().value(QLatin1String("sentences")).toArray()) {
        const QJsonObject s = item.toObject();
        const auto text = engine::string(s, QLatin1String("text"));
        const auto start = engine::number(s, QLatin1String("start"));
        const auto end = engine::number(s, QLatin1String("end"));
        if (text && start && end)
            sentences.append(TimedWord{*text, *start / 1000.0, *end / 1000.0, std::nullopt});
        spoken += engine::words(s.value(QLatin1String("words")).toArray(), QLatin1String("text"), QLatin1String("text"),
                                1.0 / 1000.0);
    }
    // Whole sentences are grouped; each segment then takes the words spoken within it.
    Segments segments = groupWords(sentences, QStringLiteral(" "));
    auto word = spoken.cbegin();
    for (TranscriptSegment &segment : segments) {
        segment.words.clear();
        for (; word != spoken.cend() && word->start <= segment.end; ++word)
            if (word->start >= segment.start)
                segment.words.append(*word);
    }
    return segments;
}

} // namespace

QUrl AssemblyAIEngine::defaultBase()
{
    return QUrl(QStringLiteral("https://api.assemblyai.com/v2"));
}

AssemblyAIEngine::AssemblyAIEngine(QUrl base, HttpLimits limits, std::chrono::milliseconds pollInterval)
    : m_base(std::move(base)), m_limits(limits), m_pollInterval(pollInterval)
{}

QNetworkRequest AssemblyAIEngine::authorized(const QString &path, const EngineRequest &request) const
{
    QNetworkRequest http(engine::endpoint(m_base, path));
    http.setRawHeader("authorization", request.apiKey.toUtf8());
    return http;
}

QCoro::Task<SegmentsResult> AssemblyAIEngine::transcribe(EngineRequest request, ProgressCallback progress)
{
    progress(tr("Uploading to AssemblyAI\u2026"));
    expected<QByteArray, TranscriptionError> audio = engine::readWhole(request.audio);
    if (!audio)
        co_return unexpected(audio.error());
    QNetworkRequest upload = authorized(QStringLiteral("/upload"), request);
    upload.setHeader(QNetworkRequest::ContentTypeHeader, QByteArray("application/octet-stream"));
    QCoro::Task<expected<QJsonValue, TranscriptionError>> uploading =
        HTTP::send(upload, std::move(*audio), kService, m_limits);
    const expected<QJsonValue, TranscriptionError> uploaded = co_await uploading;
    if (!uploaded)
        co_return unexpected(uploaded.error());
    const auto uploadUrl = engine::string(uploaded->toObject(), QLatin1String("upload_url"));
    if (!uploadUrl)
        co_return unexpected(TranscriptionError::badResponse(kService));

    QNetworkRequest create = authorized(QStringLiteral("/transcript"), request);
    create.setHeader(QNetworkRequest::ContentTypeHeader, QByteArray("application/json"));
    QCoro::Task<expected<QJsonValue, TranscriptionError>> creating =
        HTTP::send(create, createBody(*uploadUrl, request), kService, m_limits);
    const expected<QJsonValue, TranscriptionError> created = co_await creating;
    if (!created)
        co_return unexpected(created.error());
    const auto id = engine::string(created->toObject(), QLatin1String("id"));
    if (!id)
        co_return unexpected(TranscriptionError::badResponse(kService));

    progress(tr("AssemblyAI is transcribing\u2026"));
    const QString transcriptPath = QLatin1String("/transcript/") + *id;
    const HttpLimits pollLimits{std::min(kPollRequestLimit, m_limits.inactivity), m_limits.total};
    QElapsedTimer waiting;
    waiting.start();
    QJsonObject transcript;
    for (;;) {
        if (std::chrono::milliseconds(waiting.elapsed()) > m_limits.total)
            co_return unexpected(TranscriptionError::timedOut(kService));
        // A precise timer: a coarse one may fire up to 5 % early.
        QTimer timer;
        timer.setSingleShot(true);
        timer.setTimerType(Qt::PreciseTimer);
        timer.start(m_pollInterval);
        QCoro::Task<> pause = qCoro(timer).waitForTimeout();
        co_await pause;
        QCoro::Task<expected<QJsonValue, TranscriptionError>> polling =
            HTTP::send(authorized(transcriptPath, request), std::nullopt, kService, pollLimits);
        const expected<QJsonValue, TranscriptionError> polled = co_await polling;
        if (!polled)
            co_return unexpected(polled.error());
        transcript = polled->toObject();
        const QString status = engine::string(transcript, QLatin1String("status")).value_or(QString());
        if (status == QLatin1String("completed"))
            break;
        if (status == QLatin1String("error"))
            co_return unexpected(TranscriptionError::api(
                kService, 0,
                engine::string(transcript, QLatin1String("error")).value_or(QStringLiteral("unknown error"))));
    }

    const QJsonArray utterances = transcript.value(QLatin1String("utterances")).toArray();
    if (!utterances.isEmpty())
        co_return fromUtterances(utterances);

    QCoro::Task<expected<QJsonValue, TranscriptionError>> reading =
        HTTP::send(authorized(transcriptPath + QLatin1String("/sentences"), request), std::nullopt, kService, m_limits);
    const expected<QJsonValue, TranscriptionError> sentences = co_await reading;
    if (!sentences)
        co_return unexpected(sentences.error());
    co_return fromSentences(*sentences);
}

} // namespace qm
