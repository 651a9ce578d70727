#include "support/providers/fakeelevenlabs.h"

#include "support/providers/multipartreader.h"

#include <QJsonArray>

namespace qm::test {

namespace {

ScriptedResponse detailError(int status, const QString &state, const QString &message)
{
    return ScriptedResponse::json(
        status, jsonBytes({{QStringLiteral("detail"),
                            QJsonObject{{QStringLiteral("status"), state}, {QStringLiteral("message"), message}}}}));
}

// FastAPI's validation answer: a list, which carries no single message.
ScriptedResponse validationError(const QString &field)
{
    return ScriptedResponse::json(
        422, jsonBytes({{QStringLiteral("detail"),
                         QJsonArray{QJsonObject{{QStringLiteral("loc"), QJsonArray{QStringLiteral("body"), field}},
                                                {QStringLiteral("msg"), QStringLiteral("field required")},
                                                {QStringLiteral("type"), QStringLiteral("value_error.missing")}}}}}));
}

} // namespace

ScriptedResponse FakeElevenLabs::refusal() const
{
    return validationError(QStringLiteral("file"));
}

ScriptedResponse FakeElevenLabs::handle(const ReceivedRequest &request)
{
    if (request.method != "POST" || request.path != "/v1/speech-to-text")
        return reject(
            QStringLiteral("unexpected path"),
            ScriptedResponse::json(404, jsonBytes({{QStringLiteral("detail"), QStringLiteral("Not Found")}})));
    if (request.header("xi-api-key") != key.toUtf8())
        return detailError(401, QStringLiteral("invalid_api_key"), QStringLiteral("Invalid API key"));

    const std::optional<QList<FormPart>> form = readForm(request.body, request.header("Content-Type"));
    if (!form)
        return reject(QStringLiteral("malformed multipart body"), validationError(QStringLiteral("file")));
    QByteArrayList names;
    QMap<QByteArray, QByteArray> values;
    for (const FormPart &part : *form) {
        names.append(part.name);
        if (!part.fileName)
            values.insert(part.name, part.data);
    }
    QByteArrayList expected{"model_id", "diarize", "timestamps_granularity", "tag_audio_events"};
    if (names.contains("language_code"))
        expected.append("language_code");
    expected.append("file");
    const bool valuesOk = QByteArrayList{"scribe_v1", "scribe_v2"}.contains(values.value("model_id")) &&
                          QByteArrayList{"true", "false"}.contains(values.value("diarize")) &&
                          values.value("timestamps_granularity") == "word" &&
                          values.value("tag_audio_events") == "false";
    if (names != expected || !valuesOk)
        return reject(QStringLiteral("form ") + QString::fromUtf8(names.join(',')),
                      detailError(400, QStringLiteral("invalid_parameters"), QStringLiteral("Invalid form fields")));
    const FormPart &file = form->last();
    if (!file.fileName || file.fileName->isEmpty() || file.contentType != "audio/mp4")
        violations.append(QStringLiteral("file part header"));
    recordForm(*form);

    const std::optional<Mp4Audio> audio = acceptAudio(file.data);
    if (!audio)
        return detailError(400, QStringLiteral("invalid_content"), QStringLiteral("The uploaded file is not audio."));

    const bool diarize = values.value("diarize") == "true";
    const QList<Heard> heard = heardIn(*audio);
    QJsonArray words;
    QStringList all;
    double last = 0;
    for (const HeardWord &w : wordsOf(heard)) {
        QJsonObject word{{QStringLiteral("text"), w.text},
                         {QStringLiteral("start"), w.start},
                         {QStringLiteral("end"), w.end},
                         {QStringLiteral("type"), QStringLiteral("word")},
                         {QStringLiteral("logprob"), -0.05}};
        QJsonObject spacing{{QStringLiteral("text"), QStringLiteral(" ")},
                            {QStringLiteral("start"), last},
                            {QStringLiteral("end"), w.start},
                            {QStringLiteral("type"), QStringLiteral("spacing")},
                            {QStringLiteral("logprob"), 0.0}};
        if (diarize) {
            const QString id = QStringLiteral("speaker_%1").arg(std::max(0, w.speaker));
            word.insert(QStringLiteral("speaker_id"), id);
            spacing.insert(QStringLiteral("speaker_id"), id);
        }
        if (!words.isEmpty())
            words.append(spacing);
        words.append(word);
        all.append(w.text);
        last = w.end;
    }
    const QString language = QString::fromUtf8(values.value("language_code", "en"));
    return scripted(
        json(request.path,
             {{QStringLiteral("language_code"), language == QLatin1String("en") ? QStringLiteral("eng") : language},
              {QStringLiteral("language_probability"), 0.98},
              {QStringLiteral("text"), all.join(u' ')},
              {QStringLiteral("words"), words},
              {QStringLiteral("transcription_id"), QStringLiteral("tx_%1").arg(uploads.size())},
              {QStringLiteral("audio_duration_secs"), audio->seconds}}));
}

} // namespace qm::test
