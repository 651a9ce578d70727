#pragma once

#include <QString>

#include <functional>

class QWidget;

namespace qm::shots {

// The palette a scene is drawn in.
enum class Theme { light, dark };

// Runs `scenes` once per theme: applies the Fusion style with that palette, calls `scenes(theme, save)`, where
// `save(widget, name)` shows the widget, lets it lay out and paint, and writes "<outdir>/<name>-<theme>.png".
// Returns the process's exit code (1 when a PNG could not be written). The output folder is argv[1].
int run(int argc, char *argv[],
        const std::function<void(Theme, const std::function<void(QWidget *, const QString &)> &)> &scenes);

} // namespace qm::shots
