#include "support/providers/fakeprovider.h"

#include "support/providers/multipartreader.h"

#include <QJsonDocument>

namespace qm::test {

QList<HeardWord> wordsOf(const QList<Heard> &heard)
{
    QList<HeardWord> words;
    for (const Heard &stretch : heard) {
        const QStringList parts = stretch.text.split(u' ', Qt::SkipEmptyParts);
        const double each = (stretch.end - stretch.start) / std::max<qsizetype>(1, parts.size());
        for (qsizetype i = 0; i < parts.size(); ++i)
            words.append({parts.at(i), stretch.start + i * each, stretch.start + (i + 1) * each, stretch.speaker});
    }
    return words;
}

QByteArray jsonBytes(const QJsonObject &object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

FakeProvider::FakeProvider() : server([this](const ReceivedRequest &request) { return handle(request); }) {}

ScriptedResponse FakeProvider::reject(const QString &why, ScriptedResponse answer)
{
    violations.append(why);
    return answer;
}

std::optional<Mp4Audio> FakeProvider::acceptAudio(const QByteArray &bytes)
{
    std::optional<Mp4Audio> audio = probeMp4Audio(bytes);
    if (!audio || !plausibleSpeech(*audio)) {
        violations.append(QStringLiteral("upload is not AAC speech in MPEG-4"));
        return std::nullopt;
    }
    uploads.append(*audio);
    return audio;
}

ScriptedResponse FakeProvider::scripted(ScriptedResponse success) const
{
    switch (outcome) {
    case Outcome::success:
        return success;
    case Outcome::refused:
        return refusal();
    case Outcome::slow:
        success.delay = slowDelay;
        return success;
    }
    return success;
}

QList<Heard> FakeProvider::heardIn(const Mp4Audio &audio)
{
    return hearing ? hearing(audio, int(uploads.size()) - 1) : script;
}

ScriptedResponse FakeProvider::json(const QByteArray &path, QJsonObject body) const
{
    if (tamper)
        tamper(path, body);
    return ScriptedResponse::json(200, jsonBytes(body));
}

void FakeProvider::recordForm(const QList<FormPart> &parts)
{
    QByteArrayList fields;
    for (const FormPart &part : parts)
        fields.append(
            part.name + '=' +
            (part.fileName ? '@' + *part.fileName + ';' + part.contentType.value_or(QByteArray()) : part.data));
    forms.append(fields);
}

} // namespace qm::test
