#pragma once

#include <QString>
#include <QStringList>

namespace qm::bench {

// Runs ffmpeg's command line quietly, overwriting outputs; true when it exited cleanly.
bool ffmpeg(const QStringList &arguments);

// Makes a fixture once and keeps it between runs: ffmpeg with `arguments` writes a partial file that is renamed
// to `path` only when complete.
bool ensureFixture(const QString &path, const QStringList &arguments);

} // namespace qm::bench
