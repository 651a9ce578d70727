#pragma once

#include "library/settingsvalues.h"

#include <QString>

#include <chrono>
#include <optional>

namespace qm {

// The disk a recording is written to must hold what it captures. These are the rules the controller applies
// before a capture starts and while it runs.
namespace DiskSpace {

// A new capture needs room for this much recording at the chosen quality.
inline constexpr std::chrono::minutes kStartReserve{10};
// A running capture stops and saves when less than this much recording, or kFloorBytes, would still fit.
inline constexpr std::chrono::minutes kStopReserve{2};
inline constexpr qint64 kFloorBytes = 200LL * 1024 * 1024;

// The most a second of recording takes: both audio tracks at `quality`, plus H.264 at `frameRate` for a 1080p
// screen when `video` is on.
qint64 bytesPerSecond(AudioQuality quality, bool video, int frameRate);
// Bytes free for this user on the file system that holds `path` (or its nearest existing parent); nothing when
// that can't be told.
std::optional<qint64> freeBytes(const QString &path);
// "1.2 GB"
QString sizeText(qint64 bytes);

} // namespace DiskSpace
} // namespace qm
