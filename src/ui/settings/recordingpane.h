#pragma once

#include <QWidget>

class QComboBox;

namespace qm {
class AppSettings;
class InputDeviceList;
class ScreenSource;
} // namespace qm

namespace qm::ui {

// Format and quality, the microphone (live as devices come and go), and the screen video's frame rate and
// display.
class RecordingPane : public QWidget {
    Q_OBJECT

public:
    // `screens` lists the monitors; without one only "Automatic" is offered.
    RecordingPane(AppSettings &settings, InputDeviceList &devices, ScreenSource *screens, QWidget *parent = nullptr);

    // Reads the monitors again (they are not announced when they change).
    void refreshDisplays();

private:
    void showMicrophones();
    void showFrameRates();
    void showDisplays();

    AppSettings &m_settings;
    InputDeviceList &m_devices;
    ScreenSource *m_screens;
    QComboBox *m_microphone = nullptr;
    QComboBox *m_frameRate = nullptr;
    QComboBox *m_display = nullptr;
};

} // namespace qm::ui
