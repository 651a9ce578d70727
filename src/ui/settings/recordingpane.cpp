#include "ui/settings/recordingpane.h"

#include "app/appsettings.h"
#include "capture/inputdevices.h"
#include "capture/screensource.h"
#include "ui/settings/bindings.h"
#include "ui/settings/paneform.h"
#include "ui/settings/recordingchoices.h"

#include <QLabel>

namespace qm::ui {

namespace {

void fill(QComboBox *combo, const QList<Choice> &choices, const QVariant &current)
{
    const QSignalBlocker quiet(combo);
    combo->clear();
    for (const Choice &choice : choices)
        combo->addItem(choice.text, choice.value);
    combo->setCurrentIndex(qMax(0, indexOf(choices, current)));
}

} // namespace

RecordingPane::RecordingPane(AppSettings &settings, InputDeviceList &devices, ScreenSource *screens, QWidget *parent)
    : QWidget(parent), m_settings(settings), m_devices(devices), m_screens(screens)
{
    PaneForm form(this, tr("Recording"));

    auto *format = new QComboBox;
    format->setObjectName(QStringLiteral("captureFormat"));
    bind::choice(format, &settings, &AppSettings::captureFormat, &AppSettings::setCaptureFormat,
                 &AppSettings::captureFormatChanged);
    form.row(tr("&Format:"), format);

    auto *quality = new QComboBox;
    quality->setObjectName(QStringLiteral("audioQuality"));
    bind::choice(quality, &settings, &AppSettings::audioQuality, &AppSettings::setAudioQuality,
                 &AppSettings::audioQualityChanged);
    form.row(tr("Audio &quality:"), quality);
    form.gap();

    m_microphone = new QComboBox;
    m_microphone->setObjectName(QStringLiteral("microphoneID"));
    m_microphone->setSizeAdjustPolicy(QComboBox::AdjustToContents);
    showMicrophones();
    connect(m_microphone, &QComboBox::activated, &settings,
            [this](int index) { m_settings.setMicrophoneID(m_microphone->itemData(index).toString()); });
    connect(&devices, &InputDeviceList::devicesChanged, this, &RecordingPane::showMicrophones);
    connect(&settings, &AppSettings::microphoneIDChanged, this, &RecordingPane::showMicrophones);
    form.row(tr("&Microphone:"), m_microphone);

    auto *include = bind::checkBox(tr("Record my microphone beside the meeting's sound"), "includeMicrophone",
                                   &settings, &AppSettings::includeMicrophone, &AppSettings::setIncludeMicrophone,
                                   &AppSettings::includeMicrophoneChanged);
    form.row(include);

    auto *follow = bind::checkBox(tr("Silence my microphone while I'm muted in Zoom"), "followZoomMute", &settings,
                                  &AppSettings::followZoomMute, &AppSettings::setFollowZoomMute,
                                  &AppSettings::followZoomMuteChanged);
    form.row(follow);
    form.gap();

    m_frameRate = new QComboBox;
    m_frameRate->setObjectName(QStringLiteral("videoFrameRate"));
    showFrameRates();
    connect(m_frameRate, &QComboBox::activated, &settings,
            [this](int index) { m_settings.setVideoFrameRate(m_frameRate->itemData(index).toInt()); });
    connect(&settings, &AppSettings::videoFrameRateChanged, this, &RecordingPane::showFrameRates);
    form.row(tr("Frame &rate:"), m_frameRate);

    m_display = new QComboBox;
    m_display->setObjectName(QStringLiteral("videoDisplayID"));
    m_display->setSizeAdjustPolicy(QComboBox::AdjustToContents);
    showDisplays();
    connect(m_display, &QComboBox::activated, &settings,
            [this](int index) { m_settings.setVideoDisplayID(m_display->itemData(index).toInt()); });
    connect(&settings, &AppSettings::videoDisplayIDChanged, this, &RecordingPane::showDisplays);
    form.row(tr("&Display:"), m_display);
    QLabel *videoNote = form.note(tr("Frame rate and display apply to recordings with screen video."));

    // The video choices stay editable but look inactive while recordings have no video.
    const auto showVideo = [this, videoNote] {
        const bool video = m_settings.captureFormat() == CaptureFormat::video;
        m_frameRate->setEnabled(video);
        m_display->setEnabled(video);
        videoNote->setVisible(!video);
    };
    showVideo();
    connect(&settings, &AppSettings::captureFormatChanged, this, showVideo);
    form.finish();
}

void RecordingPane::refreshDisplays()
{
    showDisplays();
}

void RecordingPane::showMicrophones()
{
    fill(m_microphone, microphoneChoices(m_devices.devices(), m_settings.microphoneID()), m_settings.microphoneID());
}

void RecordingPane::showFrameRates()
{
    fill(m_frameRate, frameRateChoices(m_settings.videoFrameRate()), m_settings.videoFrameRate());
}

void RecordingPane::showDisplays()
{
    const QList<DisplayInfo> displays = m_screens ? m_screens->displays() : QList<DisplayInfo>();
    fill(m_display, displayChoices(displays, m_settings.videoDisplayID()), m_settings.videoDisplayID());
}

} // namespace qm::ui
