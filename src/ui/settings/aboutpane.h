#pragma once

#include <QWidget>

class QLabel;
class QPushButton;

namespace qm {
class AppSettings;
class InputDeviceList;
class RecordingStore;
class Updater;
namespace whisper {
class ModelLibrary;
}
} // namespace qm

namespace qm::ui {

class ModelManager;

// The program's name, version and website, the update check, where its files live, and a diagnostics report
// to copy into a bug report.
class AboutPane : public QWidget {
    Q_OBJECT

public:
    struct Parts {
        AppSettings &settings;
        Updater &updater;
        RecordingStore &store;
        whisper::ModelLibrary &library;
        ModelManager &models;
        InputDeviceList &devices;
    };
    explicit AboutPane(Parts parts, QWidget *parent = nullptr);

    // The text "Copy Diagnostics" puts on the clipboard.
    QString diagnostics() const;

private:
    Parts m_parts;
    QLabel *m_updateAnswer = nullptr;
    QLabel *m_copied = nullptr;
    QPushButton *m_check = nullptr;
};

} // namespace qm::ui
