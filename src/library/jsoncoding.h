#pragma once

#include "library/recording.h"
#include "library/result.h"
#include "library/transcript.h"

#include <QByteArray>
#include <QString>

namespace qm {

// Why a library file could not be read. The folder holding it is then left out of the library, untouched.
struct DecodeError {
    enum class Kind { notAnObject, missingKey, wrongType, unknownValue, notAPlainName };
    Kind kind = Kind::notAnObject;
    QString key; // the offending key, empty for notAnObject

    QString description() const;
};

// The one JSON form of "recording.json" and "transcript.json": pretty-printed, keys sorted, dates as
// ISO 8601 UTC with whole seconds, UUIDs upper-case, absent optional values left out.
namespace JsonCoding {

QByteArray encode(const Recording &recording);
QByteArray encode(const Transcript &transcript);

// `folder` of the decoded record is left at its default; the store sets it to where the file was found.
expected<Recording, DecodeError> decodeRecording(const QByteArray &json);
expected<Transcript, DecodeError> decodeTranscript(const QByteArray &json);

QString dateText(const QDateTime &when);
// A file name read from a library file names a file in the recording's own folder: one path component, not "."
// or "..", without separators or NUL.
bool isPlainFileName(const QString &name);
QString uuidText(const QUuid &id);

} // namespace JsonCoding

} // namespace qm
