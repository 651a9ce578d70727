#include "support/providers/fakeopenai.h"

#include "support/providers/multipartreader.h"

#include <QJsonArray>

namespace qm::test {

namespace {

ScriptedResponse openAIError(int status, const QString &message, const QString &type, const QString &code)
{
    return ScriptedResponse::json(
        status, jsonBytes({{QStringLiteral("error"), QJsonObject{{QStringLiteral("message"), message},
                                                                 {QStringLiteral("type"), type},
                                                                 {QStringLiteral("param"), QJsonValue::Null},
                                                                 {QStringLiteral("code"), code}}}}));
}

ScriptedResponse invalid(const QString &message)
{
    return openAIError(400, message, QStringLiteral("invalid_request_error"), QStringLiteral("invalid_value"));
}

QString speakerLetter(int speaker)
{
    return QString(QChar(u'A' + speaker));
}

} // namespace

ScriptedResponse FakeOpenAI::refusal() const
{
    return openAIError(429,
                       QStringLiteral("You exceeded your current quota, please check your plan and billing details."),
                       QStringLiteral("insufficient_quota"), QStringLiteral("insufficient_quota"));
}

ScriptedResponse FakeOpenAI::handle(const ReceivedRequest &request)
{
    if (request.method != "POST" || request.path != "/v1/audio/transcriptions")
        return reject(QStringLiteral("unexpected path"),
                      openAIError(404, QStringLiteral("Invalid URL"), QStringLiteral("invalid_request_error"), {}));
    if (request.header("Authorization") != "Bearer " + key.toUtf8())
        return openAIError(401, QStringLiteral("Incorrect API key provided."), QStringLiteral("invalid_request_error"),
                           QStringLiteral("invalid_api_key"));
    if (request.body.size() > 26214400)
        return openAIError(413, QStringLiteral("Maximum content size limit (26214400) exceeded."),
                           QStringLiteral("server_error"), {});

    const std::optional<QList<FormPart>> form = readForm(request.body, request.header("Content-Type"));
    if (!form)
        return reject(QStringLiteral("malformed multipart body"),
                      invalid(QStringLiteral("Could not parse multipart form")));
    QByteArrayList names;
    for (const FormPart &part : *form)
        names.append(part.name);
    const QString model = QString::fromUtf8(form->value(0).data);
    const QByteArray format = form->value(1).data;
    const bool diarizeModel = model.contains(QLatin1String("diarize"));
    QByteArrayList expected{"model", "response_format"};
    if (names.contains("chunking_strategy"))
        expected.append("chunking_strategy");
    if (names.contains("language"))
        expected.append("language");
    expected.append("file");
    if (names != expected)
        return reject(QStringLiteral("form fields ") + QString::fromUtf8(names.join(',')),
                      invalid(QStringLiteral("Unexpected form fields")));

    if (names.contains("chunking_strategy") && (!diarizeModel || form->value(2).data != "auto"))
        violations.append(QStringLiteral("chunking_strategy sent to ") + model);
    const bool gpt4o = model.startsWith(QLatin1String("gpt-4o"));
    const bool formatOk = model == QLatin1String("whisper-1")
                              ? QByteArrayList{"json", "verbose_json", "text", "srt", "vtt"}.contains(format)
                          : diarizeModel ? QByteArrayList{"json", "text", "diarized_json"}.contains(format)
                          : gpt4o        ? format == "json" || format == "text"
                                         : false;
    if (!formatOk)
        return reject(QStringLiteral("response_format ") + QString::fromUtf8(format) + QStringLiteral(" for ") + model,
                      invalid(QStringLiteral("response_format '%1' is not compatible with model '%2'.")
                                  .arg(QString::fromUtf8(format), model)));

    const FormPart &file = form->last();
    if (!file.fileName || !file.fileName->contains('.') || file.contentType != "audio/mp4")
        return reject(QStringLiteral("file part"), invalid(QStringLiteral("Unrecognized file format.")));
    recordForm(*form);
    const std::optional<Mp4Audio> audio = acceptAudio(file.data);
    if (!audio)
        return invalid(QStringLiteral("Audio file might be corrupted or unsupported"));
    if (audio->seconds < 0.1)
        return invalid(QStringLiteral("Audio file is too short. Minimum audio length is 0.1 seconds."));
    if (gpt4o && audio->seconds > 1400)
        return reject(QStringLiteral("audio longer than 1400 s"),
                      invalid(QStringLiteral("audio duration %1 seconds is longer than 1400 seconds which is the "
                                             "maximum for this model")
                                  .arg(audio->seconds)));
    if (diarizeModel && audio->seconds > 30 && !names.contains("chunking_strategy"))
        return reject(QStringLiteral("no chunking strategy"),
                      invalid(QStringLiteral("chunking_strategy is required for diarization models when the input "
                                             "audio is longer than 30 seconds")));

    const QList<Heard> heard = heardIn(*audio);
    QStringList all;
    for (const Heard &h : heard)
        all.append(h.text);
    QJsonObject body{{QStringLiteral("text"), all.join(u' ')}};
    if (format == "verbose_json") {
        QJsonArray segments;
        for (qsizetype i = 0; i < heard.size(); ++i) {
            segments.append(QJsonObject{{QStringLiteral("id"), int(i)},
                                        {QStringLiteral("seek"), 0},
                                        {QStringLiteral("start"), heard.at(i).start},
                                        {QStringLiteral("end"), heard.at(i).end},
                                        {QStringLiteral("text"), QString(u' ' + heard.at(i).text)},
                                        {QStringLiteral("tokens"), QJsonArray{50364, 2425}},
                                        {QStringLiteral("temperature"), 0.0},
                                        {QStringLiteral("avg_logprob"), -0.21},
                                        {QStringLiteral("compression_ratio"), 1.3},
                                        {QStringLiteral("no_speech_prob"), 0.01}});
        }
        body.insert(QStringLiteral("task"), QStringLiteral("transcribe"));
        body.insert(QStringLiteral("language"), QStringLiteral("english"));
        body.insert(QStringLiteral("duration"), audio->seconds);
        body.insert(QStringLiteral("segments"), segments);
    } else if (format == "diarized_json") {
        QJsonArray segments;
        for (qsizetype i = 0; i < heard.size(); ++i) {
            segments.append(QJsonObject{{QStringLiteral("type"), QStringLiteral("transcript.text.segment")},
                                        {QStringLiteral("id"), QStringLiteral("seg_%1").arg(i)},
                                        {QStringLiteral("start"), heard.at(i).start},
                                        {QStringLiteral("end"), heard.at(i).end},
                                        {QStringLiteral("text"), heard.at(i).text},
                                        {QStringLiteral("speaker"), speakerLetter(std::max(0, heard.at(i).speaker))}});
        }
        body.insert(QStringLiteral("task"), QStringLiteral("transcribe"));
        body.insert(QStringLiteral("duration"), audio->seconds);
        body.insert(QStringLiteral("segments"), segments);
        body.insert(QStringLiteral("usage"), QJsonObject{{QStringLiteral("type"), QStringLiteral("duration")},
                                                         {QStringLiteral("seconds"), qRound(audio->seconds)}});
    } else {
        body.insert(QStringLiteral("usage"), QJsonObject{{QStringLiteral("type"), QStringLiteral("tokens")},
                                                         {QStringLiteral("total_tokens"), 120}});
    }
    return scripted(json(request.path, body));
}

} // namespace qm::test
