#pragma once

#include <QList>
#include <QString>

#include <optional>

namespace qm::ui {

// What is known about one on-device model at a moment.
struct ModelFacts {
    QString model;    // a published name, or the path of the user's own file or folder
    qint64 bytes = 0; // its published size (or the file's size); 0 when unknown
    bool installed = false;
    qint64 partialBytes = 0;        // kept from an interrupted download
    std::optional<double> progress; // a download is running, this far along (0…1)
};

// One line of the model list, and which of the list's buttons apply to it.
struct ModelRow {
    QString model;
    QString title;  // "base.en (English only)", or a file's name
    QString size;   // "148 MB"
    QString status; // "In use", "Downloaded", "Not downloaded", "Downloading… 42%", …
    bool inUse = false;
    bool downloading = false;
    int percent = 0; // while downloading

    // The buttons: their texts are fixed except the download one ("Download" or "Resume Download").
    bool canDownload = false;
    QString downloadText;
    bool canCancel = false;
    bool canUse = false;
    bool canDelete = false;
};

// `inUse` is the model a transcription would use now; `followsLanguage` says it is the default choice (no
// model chosen), which the list says so that the user knows it changes with the language.
ModelRow modelRow(const ModelFacts &facts, bool inUse, bool followsLanguage, bool ownFile);

// A size for people: "78 MB", "1.5 GB" (decimal units, as download sizes are usually given).
QString sizeText(qint64 bytes);

} // namespace qm::ui
