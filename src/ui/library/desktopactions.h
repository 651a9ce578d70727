#pragma once

#include "library/result.h"

#include <QString>

namespace qm::ui {

// Why an export could not be written.
struct ExportError {
    QString path;
    QString reason; // the file system's own words

    QString description() const;
};

// Writes `text` to `path` as UTF-8, replacing the file only once it is complete.
expected<void, ExportError> writeTextFile(const QString &path, const QString &text);

// Shows `folder` selected in the file manager (org.freedesktop.FileManager1), else opens the folder itself. Returns
// at once; the file manager answers later.
void showInFiles(const QString &folder);
// Opens `folder` in the file manager.
void openFolder(const QString &folder);

} // namespace qm::ui
