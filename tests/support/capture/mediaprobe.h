#pragma once

#include <QString>
#include <QVector>

namespace qm::test {

// Facts about a media file read with the ffmpeg command line, for checking what capture and processing wrote.
double mediaSeconds(const QString &path);
QString codecName(const QString &path, const char *streamType = "a");
// Loudness (RMS) of each stretch of `window` seconds of the file, mixed to mono.
QVector<double> loudness(const QString &path, double window);
// When the file first gets louder than `threshold` (linear), or -1.
double onset(const QString &path, float threshold = 0.1f);

} // namespace qm::test
