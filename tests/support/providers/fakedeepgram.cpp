#include "support/providers/fakedeepgram.h"

#include <QJsonArray>
#include <QUrlQuery>
#include <QUuid>

namespace qm::test {

namespace {

QByteArray legacyError(const QByteArray &code, const QByteArray &message)
{
    return jsonBytes({{QStringLiteral("err_code"), QString::fromUtf8(code)},
                      {QStringLiteral("err_msg"), QString::fromUtf8(message)},
                      {QStringLiteral("request_id"), QUuid::createUuid().toString(QUuid::WithoutBraces)}});
}

QString requestId()
{
    return QUuid::createUuid().toString(QUuid::WithoutBraces);
}

} // namespace

ScriptedResponse FakeDeepgram::refusal() const
{
    return ScriptedResponse::json(
        402, legacyError("ASR_PAYMENT_REQUIRED", "Project does not have enough credits for an ASR request."));
}

ScriptedResponse FakeDeepgram::handle(const ReceivedRequest &request)
{
    if (request.method != "POST" || request.path != "/v1/listen")
        return reject(
            QStringLiteral("unexpected %1 %2").arg(QString::fromUtf8(request.method), QString::fromUtf8(request.path)),
            ScriptedResponse::json(404, legacyError("NOT_FOUND", "Not Found")));
    if (request.header("Authorization") != "Token " + key.toUtf8())
        return ScriptedResponse::json(401, legacyError("INVALID_AUTH", "Invalid credentials."));

    const QList<QPair<QString, QString>> items = QUrlQuery(QString::fromUtf8(request.query)).queryItems();
    QStringList names;
    for (const auto &item : items)
        names.append(item.first);
    const QStringList fixed{QStringLiteral("model"), QStringLiteral("smart_format"), QStringLiteral("punctuate"),
                            QStringLiteral("utterances"), QStringLiteral("diarize")};
    const bool detect = names.value(5) == QLatin1String("detect_language");
    const bool shapeOk =
        names.size() == 6 && names.mid(0, 5) == fixed && (detect || names.value(5) == QLatin1String("language"));
    const bool valuesOk =
        shapeOk && !items.at(0).second.isEmpty() && items.at(1).second == QLatin1String("true") &&
        items.at(2).second == QLatin1String("true") && items.at(3).second == QLatin1String("true") &&
        (items.at(4).second == QLatin1String("true") || items.at(4).second == QLatin1String("false")) &&
        (!detect || items.at(5).second == QLatin1String("true"));
    if (!valuesOk)
        return reject(QStringLiteral("query: ") + QString::fromUtf8(request.query),
                      ScriptedResponse::json(
                          400, jsonBytes({{QStringLiteral("category"), QStringLiteral("INVALID_QUERY_PARAMETER")},
                                          {QStringLiteral("message"), QStringLiteral("Invalid query string.")},
                                          {QStringLiteral("request_id"), requestId()}})));
    if (request.header("Content-Type") != "audio/mp4")
        violations.append(QStringLiteral("content type ") + QString::fromUtf8(request.header("Content-Type")));

    const std::optional<Mp4Audio> audio = acceptAudio(request.body);
    if (!audio)
        return ScriptedResponse::json(
            400, legacyError("Bad Request", "Bad Request: failed to process audio: corrupt or unsupported data"));
    return scripted(json(request.path, success(heardIn(*audio), *audio, detect)));
}

QJsonObject FakeDeepgram::success(const QList<Heard> &stretches, const Mp4Audio &audio, bool detectLanguage) const
{
    QJsonArray words;
    QStringList all;
    for (const HeardWord &w : wordsOf(stretches)) {
        words.append(QJsonObject{{QStringLiteral("word"), w.text.toLower()},
                                 {QStringLiteral("start"), w.start},
                                 {QStringLiteral("end"), w.end},
                                 {QStringLiteral("confidence"), 0.97},
                                 {QStringLiteral("punctuated_word"), w.text},
                                 {QStringLiteral("speaker"), std::max(0, w.speaker)},
                                 {QStringLiteral("speaker_confidence"), 0.8}});
    }
    QJsonArray utterances;
    for (const Heard &h : stretches) {
        all.append(h.text);
        if (channelOnly)
            continue;
        utterances.append(QJsonObject{{QStringLiteral("id"), QUuid::createUuid().toString(QUuid::WithoutBraces)},
                                      {QStringLiteral("start"), h.start},
                                      {QStringLiteral("end"), h.end},
                                      {QStringLiteral("confidence"), 0.95},
                                      {QStringLiteral("channel"), 0},
                                      {QStringLiteral("speaker"), std::max(0, h.speaker)},
                                      {QStringLiteral("transcript"), h.text},
                                      {QStringLiteral("words"), QJsonArray()}});
    }
    QJsonObject channel{
        {QStringLiteral("alternatives"), QJsonArray{QJsonObject{{QStringLiteral("transcript"), all.join(u' ')},
                                                                {QStringLiteral("confidence"), 0.96},
                                                                {QStringLiteral("words"), words}}}}};
    if (detectLanguage)
        channel.insert(QStringLiteral("detected_language"), QStringLiteral("en"));
    return {
        {QStringLiteral("metadata"),
         QJsonObject{{QStringLiteral("request_id"), requestId()},
                     {QStringLiteral("sha256"), QStringLiteral("0f3c")},
                     {QStringLiteral("created"), QStringLiteral("2026-11-02T10:00:00.000Z")},
                     {QStringLiteral("duration"), audio.seconds},
                     {QStringLiteral("channels"), 1},
                     {QStringLiteral("models"), QJsonArray{QUuid::createUuid().toString(QUuid::WithoutBraces)}}}},
        {QStringLiteral("results"),
         QJsonObject{{QStringLiteral("channels"), QJsonArray{channel}}, {QStringLiteral("utterances"), utterances}}},
    };
}

} // namespace qm::test
