#include "support/providers/fakeassemblyai.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QUuid>

namespace qm::test {

namespace {

ScriptedResponse assemblyError(int status, const QString &message)
{
    return ScriptedResponse::json(status, jsonBytes({{QStringLiteral("error"), message}}));
}

QString letter(int speaker)
{
    return QString(QChar(u'A' + std::max(0, speaker)));
}

qint64 ms(double seconds)
{
    return qRound64(seconds * 1000);
}

QString newId()
{
    return QUuid::createUuid().toString(QUuid::Id128);
}

} // namespace

ScriptedResponse FakeAssemblyAI::refusal() const
{
    ScriptedResponse limited = assemblyError(429, QStringLiteral("Too Many Requests"));
    limited.extraHeaders.append(qMakePair(QByteArray("Retry-After"), QByteArray("30")));
    return limited;
}

ScriptedResponse FakeAssemblyAI::handle(const ReceivedRequest &request)
{
    // The header's name is lower case in the contract, and the key goes bare.
    bool exactName = false;
    for (const auto &header : request.headers)
        exactName = exactName || header.first == "authorization";
    if (!exactName)
        violations.append(QStringLiteral("authorization header name"));
    if (request.header("authorization") != key.toUtf8())
        return assemblyError(401, QStringLiteral("Authentication error, API token missing/invalid"));

    const QByteArray path = request.path;
    if (request.method == "POST" && path == "/v2/upload")
        return upload(request);
    if (request.method == "POST" && path == "/v2/transcript")
        return create(request);
    if (request.method == "GET" && path.startsWith("/v2/transcript/")) {
        const QList<QByteArray> rest = path.mid(15).split('/');
        if (rest.size() == 1)
            return poll(request, QString::fromUtf8(rest.at(0)));
        if (rest.size() == 2 && rest.at(1) == "sentences")
            return sentences(request, QString::fromUtf8(rest.at(0)));
    }
    return reject(QStringLiteral("unexpected %1 %2").arg(QString::fromUtf8(request.method), QString::fromUtf8(path)),
                  assemblyError(404, QStringLiteral("Not found")));
}

ScriptedResponse FakeAssemblyAI::upload(const ReceivedRequest &request)
{
    if (request.header("Content-Type") != "application/octet-stream")
        violations.append(QStringLiteral("upload content type"));
    const std::optional<Mp4Audio> audio = acceptAudio(request.body);
    if (!audio)
        return assemblyError(400, QStringLiteral("Upload failed: the file is not a supported media file"));
    const QString id = newId();
    m_files.insert(id, *audio);
    return scripted(json(request.path,
                         {{QStringLiteral("upload_url"), server.url(QStringLiteral("/cdn/upload/") + id).toString()}}));
}

ScriptedResponse FakeAssemblyAI::create(const ReceivedRequest &request)
{
    if (request.header("Content-Type") != "application/json")
        violations.append(QStringLiteral("create content type"));
    const QJsonObject body = QJsonDocument::fromJson(request.body).object();
    const QString fileId = body.value(QLatin1String("audio_url")).toString().section(u'/', -1);
    if (!m_files.contains(fileId))
        return reject(QStringLiteral("unknown audio_url"), assemblyError(400, QStringLiteral("Invalid audio_url")));
    if (body.contains(QLatin1String("speech_model")))
        return reject(QStringLiteral("deprecated speech_model"),
                      assemblyError(400, QStringLiteral("The speech_model parameter is deprecated. Use "
                                                        "speech_models instead.")));
    const bool languageShape =
        body.contains(QLatin1String("language_code")) != body.contains(QLatin1String("language_detection"));
    const QJsonValue models = body.value(QLatin1String("speech_models"));
    const bool modelsShape = models.isUndefined() || (models.isArray() && models.toArray().size() == 1 &&
                                                      !models.toArray().first().toString().isEmpty());
    if (!body.value(QLatin1String("speaker_labels")).isBool() || body.value(QLatin1String("punctuate")) != true ||
        body.value(QLatin1String("format_text")) != true || !languageShape || !modelsShape)
        return reject(QStringLiteral("create body ") + QString::fromUtf8(request.body),
                      assemblyError(400, QStringLiteral("Invalid request body")));

    const QString id = newId();
    const Mp4Audio audio = m_files.value(fileId);
    m_jobs.insert(id, Job{body, heardIn(audio), audio.seconds, 0});
    createdJobs.append(body);
    createdAtMs = request.receivedAtMs;
    return json(request.path, {{QStringLiteral("id"), id},
                               {QStringLiteral("status"), QStringLiteral("queued")},
                               {QStringLiteral("audio_url"), body.value(QLatin1String("audio_url"))},
                               {QStringLiteral("utterances"), QJsonValue::Null}});
}

ScriptedResponse FakeAssemblyAI::poll(const ReceivedRequest &request, const QString &id)
{
    if (!m_jobs.contains(id))
        return assemblyError(404, QStringLiteral("Transcript not found"));
    pollTimesMs.append(request.receivedAtMs);
    Job &job = m_jobs[id];
    const QString status = statuses.value(std::min<qsizetype>(job.polls++, statuses.size() - 1));
    QJsonObject body{{QStringLiteral("id"), id}, {QStringLiteral("status"), status}};
    if (status == QLatin1String("error")) {
        if (jobError)
            body.insert(QStringLiteral("error"), *jobError);
        return json(request.path, body);
    }
    if (status != QLatin1String("completed")) {
        body.insert(QStringLiteral("utterances"), QJsonValue::Null);
        return json(request.path, body);
    }
    const bool labels = job.request.value(QLatin1String("speaker_labels")).toBool();
    QJsonArray words;
    for (const HeardWord &w : wordsOf(job.heard)) {
        words.append(QJsonObject{{QStringLiteral("text"), w.text},
                                 {QStringLiteral("start"), ms(w.start)},
                                 {QStringLiteral("end"), ms(w.end)},
                                 {QStringLiteral("confidence"), 0.93},
                                 {QStringLiteral("speaker"), labels ? QJsonValue(letter(w.speaker)) : QJsonValue()}});
    }
    QJsonArray utterances;
    QStringList all;
    for (const Heard &h : job.heard) {
        all.append(h.text);
        utterances.append(QJsonObject{{QStringLiteral("speaker"), letter(h.speaker)},
                                      {QStringLiteral("start"), ms(h.start)},
                                      {QStringLiteral("end"), ms(h.end)},
                                      {QStringLiteral("text"), h.text},
                                      {QStringLiteral("confidence"), 0.91},
                                      {QStringLiteral("words"), QJsonArray()}});
    }
    body.insert(QStringLiteral("text"), all.join(u' '));
    body.insert(QStringLiteral("confidence"), 0.92);
    body.insert(QStringLiteral("audio_duration"), qRound(job.seconds));
    body.insert(QStringLiteral("language_code"),
                job.request.value(QLatin1String("language_code")).toString(QStringLiteral("en_us")));
    body.insert(QStringLiteral("words"), words);
    body.insert(QStringLiteral("utterances"), labels ? QJsonValue(utterances) : QJsonValue());
    return json(request.path, body);
}

ScriptedResponse FakeAssemblyAI::sentences(const ReceivedRequest &request, const QString &id)
{
    if (!m_jobs.contains(id))
        return assemblyError(404, QStringLiteral("Transcript not found"));
    const Job &job = m_jobs.value(id);
    QJsonArray list;
    for (const Heard &h : job.heard) {
        list.append(QJsonObject{{QStringLiteral("text"), h.text},
                                {QStringLiteral("start"), ms(h.start)},
                                {QStringLiteral("end"), ms(h.end)},
                                {QStringLiteral("confidence"), 0.9},
                                {QStringLiteral("words"), QJsonArray()},
                                {QStringLiteral("speaker"), QJsonValue::Null}});
    }
    return json(request.path, {{QStringLiteral("id"), id},
                               {QStringLiteral("confidence"), 0.9},
                               {QStringLiteral("audio_duration"), job.seconds},
                               {QStringLiteral("sentences"), list}});
}

} // namespace qm::test
