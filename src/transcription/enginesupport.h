#pragma once

#include "library/result.h"
#include "library/transcript.h"
#include "transcription/transcriptionerror.h"

#include <QByteArray>
#include <QJsonArray>
#include <QJsonObject>
#include <QString>
#include <QUrl>

#include <optional>

// Small pieces the cloud engines share: reading the speech file, forming addresses, reading JSON fields
// that may be missing or of another type.
namespace qm::engine {

// The whole file; a file error names the file and carries the system's reason.
expected<QByteArray, TranscriptionError> readWhole(const QUrl &file);

// `base` with `path` appended to whatever path it already has ("https://host/v2" + "/upload").
QUrl endpoint(const QUrl &base, const QString &path);

std::optional<QString> string(const QJsonObject &object, QLatin1String key);
std::optional<double> number(const QJsonObject &object, QLatin1String key);

// A provider's timed words: the text from `textKey`, or from `fallbackKey` where that is missing, trimmed; times
// from "start" and "end" in units of `secondsPerUnit`. Entries without text or times are left out.
QList<TranscriptWord> words(const QJsonArray &list, QLatin1String textKey, QLatin1String fallbackKey,
                            double secondsPerUnit);

} // namespace qm::engine
