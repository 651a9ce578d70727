#include "library/jsoncoding.h"

#include <QCoreApplication>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <cmath>

namespace qm {

QString DecodeError::description() const
{
    switch (kind) {
    case Kind::notAnObject:
        return QCoreApplication::translate("JsonCoding", "The file isn't a JSON object.");
    case Kind::missingKey:
        return QCoreApplication::translate("JsonCoding", "The file has no “%1”.").arg(key);
    case Kind::wrongType:
        return QCoreApplication::translate("JsonCoding", "The file's “%1” has the wrong type.").arg(key);
    case Kind::unknownValue:
        return QCoreApplication::translate("JsonCoding", "The file's “%1” has a value this version doesn't know.")
            .arg(key);
    case Kind::notAPlainName:
        return QCoreApplication::translate("JsonCoding",
                                           "The file's “%1” isn't the name of a file in the recording's folder.")
            .arg(key);
    }
    return {};
}

namespace JsonCoding {

namespace {

using Fail = unexpected<DecodeError>;

Fail fail(DecodeError::Kind kind, const QString &key)
{
    return Fail(DecodeError{kind, key});
}

QJsonValue number(double value)
{
    return std::isfinite(value) ? QJsonValue(value) : QJsonValue(0.0);
}

void putOptional(QJsonObject &object, const QString &key, const std::optional<QString> &value)
{
    if (value)
        object.insert(key, *value);
}

QByteArray pretty(const QJsonObject &object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Indented);
}

// Reads keys out of one object, remembering the first problem so callers can check once at the end.
class Reader {
public:
    explicit Reader(QJsonObject object) : m_object(std::move(object)) {}

    const std::optional<DecodeError> &error() const { return m_error; }

    QString string(const QString &key) { return require(key, QJsonValue::String).toString(); }
    double number(const QString &key) { return require(key, QJsonValue::Double).toDouble(); }
    bool flag(const QString &key) { return require(key, QJsonValue::Bool).toBool(); }
    QJsonArray array(const QString &key) { return require(key, QJsonValue::Array).toArray(); }
    QJsonObject object(const QString &key) { return require(key, QJsonValue::Object).toObject(); }

    std::optional<QString> optionalString(const QString &key)
    {
        const QJsonValue value = m_object.value(key);
        if (value.isUndefined() || value.isNull())
            return std::nullopt;
        if (!value.isString()) {
            note(DecodeError::Kind::wrongType, key);
            return std::nullopt;
        }
        return value.toString();
    }

    QDateTime date(const QString &key) { return parseDate(key, string(key)); }

    std::optional<QDateTime> optionalDate(const QString &key)
    {
        const std::optional<QString> text = optionalString(key);
        if (!text)
            return std::nullopt;
        return parseDate(key, *text);
    }

    QUuid uuid(const QString &key)
    {
        const QString text = string(key);
        const QUuid id = QUuid::fromString(text);
        if (id.isNull() && text.compare(uuidText(QUuid()), Qt::CaseInsensitive) != 0)
            note(DecodeError::Kind::wrongType, key);
        return id;
    }

    template <class E> E rawValue(const QString &key)
    {
        const QString text = string(key);
        const std::optional<E> value = fromRawValue<E>(text);
        if (!value) {
            note(DecodeError::Kind::unknownValue, key);
            return E{};
        }
        return *value;
    }

private:
    QJsonValue require(const QString &key, QJsonValue::Type type)
    {
        const QJsonValue value = m_object.value(key);
        if (value.isUndefined() || value.isNull())
            note(DecodeError::Kind::missingKey, key);
        else if (value.type() != type)
            note(DecodeError::Kind::wrongType, key);
        return value;
    }

    QDateTime parseDate(const QString &key, const QString &text)
    {
        QDateTime when = QDateTime::fromString(text, Qt::ISODate);
        // A date that can't be written back (outside years 1–9999 in UTC) would make the next save drop the
        // file from the library, so it is refused here instead.
        const int year = when.isValid() ? when.toUTC().date().year() : 0;
        if ((year < 1 || year > 9999) && !m_error)
            note(DecodeError::Kind::wrongType, key);
        return when;
    }

    void note(DecodeError::Kind kind, const QString &key)
    {
        if (!m_error)
            m_error = DecodeError{kind, key};
    }

    QJsonObject m_object;
    std::optional<DecodeError> m_error;
};

std::optional<QJsonObject> parseObject(const QByteArray &json)
{
    QJsonParseError parseError{};
    const QJsonDocument document = QJsonDocument::fromJson(json, &parseError);
    if (parseError.error != QJsonParseError::NoError || !document.isObject())
        return std::nullopt;
    return document.object();
}

} // namespace

QString dateText(const QDateTime &when)
{
    QDateTime utc = when.toUTC();
    utc.setTime(QTime(utc.time().hour(), utc.time().minute(), utc.time().second()));
    return utc.toString(Qt::ISODate);
}

bool isPlainFileName(const QString &name)
{
    return !name.isEmpty() && name != QLatin1String(".") && name != QLatin1String("..") && !name.contains(u'/') &&
           !name.contains(u'\\') && !name.contains(QChar(0));
}

QString uuidText(const QUuid &id)
{
    return id.toString(QUuid::WithoutBraces).toUpper();
}

QByteArray encode(const Recording &r)
{
    QJsonObject o;
    o.insert(QLatin1String("id"), uuidText(r.id));
    o.insert(QLatin1String("title"), r.title);
    o.insert(QLatin1String("source"), rawValue(r.source));
    o.insert(QLatin1String("startedAt"), dateText(r.startedAt));
    o.insert(QLatin1String("duration"), number(r.duration));
    putOptional(o, QStringLiteral("mediaFileName"), r.mediaFileName);
    o.insert(QLatin1String("hasVideo"), r.hasVideo);
    o.insert(QLatin1String("hasMicrophoneTrack"), r.hasMicrophoneTrack);
    o.insert(QLatin1String("hasMeetingTrack"), r.hasMeetingTrack);
    o.insert(QLatin1String("state"), rawValue(r.state));
    o.insert(QLatin1String("transcriptState"), rawValue(r.transcriptState));
    putOptional(o, QStringLiteral("transcriptEngine"), r.transcriptEngine);
    putOptional(o, QStringLiteral("lastError"), r.lastError);
    if (r.driveSyncedAt)
        o.insert(QLatin1String("driveSyncedAt"), dateText(*r.driveSyncedAt));
    return pretty(o);
}

QByteArray encode(const Transcript &t)
{
    QJsonObject o;
    o.insert(QLatin1String("engine"), t.engine);
    putOptional(o, QStringLiteral("model"), t.model);
    putOptional(o, QStringLiteral("language"), t.language);
    o.insert(QLatin1String("createdAt"), dateText(t.createdAt));

    QJsonArray segments;
    for (const TranscriptSegment &s : t.segments) {
        QJsonObject segment;
        segment.insert(QLatin1String("id"), uuidText(s.id));
        segment.insert(QLatin1String("start"), number(s.start));
        segment.insert(QLatin1String("end"), number(s.end));
        putOptional(segment, QStringLiteral("speaker"), s.speaker);
        segment.insert(QLatin1String("text"), s.text);
        if (!s.words.isEmpty()) {
            QJsonArray words;
            for (const TranscriptWord &w : s.words)
                words.append(QJsonObject{{QLatin1String("end"), number(w.end)},
                                         {QLatin1String("start"), number(w.start)},
                                         {QLatin1String("text"), w.text}});
            segment.insert(QLatin1String("words"), words);
        }
        segments.append(segment);
    }
    o.insert(QLatin1String("segments"), segments);

    QJsonObject names;
    for (auto it = t.speakerNames.cbegin(); it != t.speakerNames.cend(); ++it)
        names.insert(it.key(), it.value());
    o.insert(QLatin1String("speakerNames"), names);
    return pretty(o);
}

expected<Recording, DecodeError> decodeRecording(const QByteArray &json)
{
    const std::optional<QJsonObject> object = parseObject(json);
    if (!object)
        return fail(DecodeError::Kind::notAnObject, {});

    Reader in(*object);
    Recording r;
    r.id = in.uuid(QStringLiteral("id"));
    r.title = in.string(QStringLiteral("title"));
    r.source = in.rawValue<RecordingSource>(QStringLiteral("source"));
    r.startedAt = in.date(QStringLiteral("startedAt"));
    r.duration = in.number(QStringLiteral("duration"));
    r.mediaFileName = in.optionalString(QStringLiteral("mediaFileName"));
    if (r.mediaFileName && !isPlainFileName(*r.mediaFileName))
        return Fail(DecodeError{DecodeError::Kind::notAPlainName, QStringLiteral("mediaFileName")});
    r.hasVideo = in.flag(QStringLiteral("hasVideo"));
    r.hasMicrophoneTrack = in.flag(QStringLiteral("hasMicrophoneTrack"));
    r.hasMeetingTrack = in.flag(QStringLiteral("hasMeetingTrack"));
    r.state = in.rawValue<ProcessingState>(QStringLiteral("state"));
    r.transcriptState = in.rawValue<TranscriptState>(QStringLiteral("transcriptState"));
    r.transcriptEngine = in.optionalString(QStringLiteral("transcriptEngine"));
    r.lastError = in.optionalString(QStringLiteral("lastError"));
    r.driveSyncedAt = in.optionalDate(QStringLiteral("driveSyncedAt"));
    if (in.error())
        return Fail(*in.error());
    return r;
}

expected<Transcript, DecodeError> decodeTranscript(const QByteArray &json)
{
    const std::optional<QJsonObject> object = parseObject(json);
    if (!object)
        return fail(DecodeError::Kind::notAnObject, {});

    Reader in(*object);
    Transcript t;
    t.engine = in.string(QStringLiteral("engine"));
    t.model = in.optionalString(QStringLiteral("model"));
    t.language = in.optionalString(QStringLiteral("language"));
    t.createdAt = in.date(QStringLiteral("createdAt"));
    const QJsonArray segments = in.array(QStringLiteral("segments"));
    const QJsonObject names = in.object(QStringLiteral("speakerNames"));
    if (in.error())
        return Fail(*in.error());

    t.segments.reserve(segments.size());
    for (const QJsonValue &value : segments) {
        if (!value.isObject())
            return fail(DecodeError::Kind::wrongType, QStringLiteral("segments"));
        Reader s(value.toObject());
        TranscriptSegment segment;
        segment.id = s.uuid(QStringLiteral("id"));
        segment.start = s.number(QStringLiteral("start"));
        segment.end = s.number(QStringLiteral("end"));
        segment.speaker = s.optionalString(QStringLiteral("speaker"));
        segment.text = s.string(QStringLiteral("text"));
        // Word times came later than the rest of the file: files without them are complete.
        const QJsonValue words = value.toObject().value(QLatin1String("words"));
        if (!words.isUndefined() && !words.isNull() && !words.isArray())
            return fail(DecodeError::Kind::wrongType, QStringLiteral("words"));
        for (const QJsonValue &item : words.toArray()) {
            if (!item.isObject())
                return fail(DecodeError::Kind::wrongType, QStringLiteral("words"));
            Reader w(item.toObject());
            segment.words.append(TranscriptWord{w.number(QStringLiteral("start")), w.number(QStringLiteral("end")),
                                                w.string(QStringLiteral("text"))});
            if (w.error())
                return Fail(*w.error());
        }
        if (s.error())
            return Fail(*s.error());
        t.segments.append(std::move(segment));
    }
    for (auto it = names.constBegin(); it != names.constEnd(); ++it) {
        if (!it.value().isString())
            return fail(DecodeError::Kind::wrongType, QStringLiteral("speakerNames"));
        t.speakerNames.insert(it.key(), it.value().toString());
    }
    return t;
}

} // namespace JsonCoding

} // namespace qm
