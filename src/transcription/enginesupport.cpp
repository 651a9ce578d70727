#include "transcription/enginesupport.h"

#include <QFile>
#include <QFileInfo>

namespace qm::engine {

expected<QByteArray, TranscriptionError> readWhole(const QUrl &file)
{
    QFile in(file.toLocalFile());
    if (!in.open(QIODevice::ReadOnly))
        return unexpected(TranscriptionError::file(QFileInfo(in).fileName(), in.errorString()));
    QByteArray bytes = in.readAll();
    if (in.error() != QFileDevice::NoError)
        return unexpected(TranscriptionError::file(QFileInfo(in).fileName(), in.errorString()));
    return bytes;
}

QUrl endpoint(const QUrl &base, const QString &path)
{
    QUrl url = base;
    QString joined = url.path();
    if (joined.endsWith(u'/'))
        joined.chop(1);
    url.setPath(joined + path);
    return url;
}

std::optional<QString> string(const QJsonObject &object, QLatin1String key)
{
    const QJsonValue value = object.value(key);
    if (value.isString())
        return value.toString();
    return std::nullopt;
}

std::optional<double> number(const QJsonObject &object, QLatin1String key)
{
    const QJsonValue value = object.value(key);
    if (value.isDouble())
        return value.toDouble();
    return std::nullopt;
}

QList<TranscriptWord> words(const QJsonArray &list, QLatin1String textKey, QLatin1String fallbackKey,
                            double secondsPerUnit)
{
    QList<TranscriptWord> out;
    for (const QJsonValue &item : list) {
        const QJsonObject w = item.toObject();
        const QString text = string(w, textKey).value_or(string(w, fallbackKey).value_or(QString())).trimmed();
        const auto start = number(w, QLatin1String("start"));
        const auto end = number(w, QLatin1String("end"));
        if (!text.isEmpty() && start && end)
            out.append(TranscriptWord{*start * secondsPerUnit, *end * secondsPerUnit, text});
    }
    return out;
}

} // namespace qm::engine
