#pragma once

#include <QJsonObject>
#include <QString>
#include <QVector>

namespace qm::test {

// Facts about a media file read with the ffmpeg command line, for checking what capture and processing wrote.
double mediaSeconds(const QString &path);
// The first stream of a type ("a", "v") as ffprobe describes it, plus "format_duration" in seconds.
QJsonObject streamInfo(const QString &path, const char *streamType = "a");
// The file decoded to mono 32-bit float samples at `rate`.
QByteArray monoPcm(const QString &path, int rate);
QString codecName(const QString &path, const char *streamType = "a");
// Loudness (RMS) of each stretch of `window` seconds of the file, mixed to mono.
QVector<double> loudness(const QString &path, double window);
// When the file first gets louder than `threshold` (linear), or -1.
double onset(const QString &path, float threshold = 0.1f);

} // namespace qm::test
