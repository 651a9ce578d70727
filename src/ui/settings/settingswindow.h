#pragma once

#include <QWidget>

class QListWidget;
class QStackedWidget;

namespace qm {
class Application;
class InputDeviceList;
} // namespace qm

namespace qm::ui {

class DrivePane;
class ModelManager;
class RecordingPane;
class TranscriptionPane;

// "Quillmoor Settings": six panes chosen from a list on the left. Every control writes its setting at once and
// follows changes made elsewhere (the tray, `quillmoor config set`, another window). There is one window; the
// shell keeps it and calls showPane() to bring it forward.
//
// The window watches the sound server's inputs for the microphone picker while it exists, and refreshes the
// permission statuses, the Drive folder and the monitors whenever it becomes active.
class SettingsWindow : public QWidget {
    Q_OBJECT

public:
    enum class Pane { general, permissions, recording, transcription, drive, about };

    explicit SettingsWindow(qm::Application &app, QWidget *parent = nullptr);
    ~SettingsWindow() override;

    // Shows, raises and activates the window with `pane` selected.
    void showPane(Pane pane = Pane::general);

protected:
    void changeEvent(QEvent *event) override;

private:
    void addPane(Pane pane, const QString &title, const QStringList &icons, QWidget *content);
    void refresh();

    qm::Application &m_app;
    InputDeviceList *m_devices = nullptr;
    ModelManager *m_models = nullptr;
    QListWidget *m_sidebar = nullptr;
    QStackedWidget *m_stack = nullptr;
    RecordingPane *m_recording = nullptr;
    TranscriptionPane *m_transcription = nullptr;
    DrivePane *m_drive = nullptr;
};

} // namespace qm::ui
