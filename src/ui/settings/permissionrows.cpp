#include "ui/settings/permissionrows.h"

#include <QCoreApplication>

namespace qm::ui {

namespace {

QString tr(const char *text)
{
    return QCoreApplication::translate("qm::ui::PermissionRows", text);
}

struct Texts {
    QString title;
    QString granted;
    QString denied;
    QString notAsked;
    QString button; // offered whenever the status is not granted
    QString note;
};

Texts textsFor(PermissionKind kind)
{
    switch (kind) {
    case PermissionKind::microphone:
        return {tr("Microphone"),
                tr("Ready. The sound server has an input device."),
                tr("Not available. No input device is connected, or the sound server refused access."),
                tr("Not asked yet. Your desktop asks the first time Quillmoor records."),
                tr("Open Sound Settings"),
                {}};
    case PermissionKind::screenRecording:
        return {tr("Screen & system audio"),
                tr("Allowed. Quillmoor can record the computer's sound and screen."),
                tr("Declined. Screen sharing was refused; allow it when your desktop asks."),
                tr("Not set up yet. Your desktop asks the first time Quillmoor records the screen."),
                tr("Open Settings"),
                {}};
    case PermissionKind::accessibility:
        return {tr("Accessibility"),
                tr("On. Quillmoor can follow Zoom's mute button."),
                tr("Off. Quillmoor can't tell whether you're muted in Zoom."),
                tr("Off."),
                tr("Turn On"),
                tr("Zoom notices this only when it starts: restart Zoom after turning it on.")};
    case PermissionKind::speechModel:
        return {tr("Speech model"),
                tr("Installed. On-device transcription is ready."),
                tr("Unavailable. The on-device speech model can't be used."),
                tr("Not downloaded yet. It is downloaded once, the first time you transcribe on this computer."),
                tr("Download Now"),
                {}};
    case PermissionKind::notifications:
        return {tr("Notifications"),
                tr("On. Quillmoor tells you when a recording is saved or something fails."),
                tr("Off. No notification service answers on this desktop."),
                tr("Checking…"),
                tr("Open Notification Settings"),
                {}};
    }
    return {};
}

} // namespace

PermissionRow permissionRow(PermissionKind kind, PermissionStatus status)
{
    const Texts texts = textsFor(kind);
    PermissionRow row{kind, status, texts.title, {}, {}, texts.note};
    switch (status) {
    case PermissionStatus::granted:
        row.state = texts.granted;
        break;
    case PermissionStatus::denied:
        row.state = texts.denied;
        row.buttonText = texts.button;
        break;
    case PermissionStatus::notAsked:
        row.state = texts.notAsked;
        // The notification status is still on its way; there is nothing to ask until it arrives.
        if (kind != PermissionKind::notifications)
            row.buttonText = texts.button;
        break;
    }
    return row;
}

QList<PermissionRow> permissionRows(const Permissions &permissions)
{
    return {
        permissionRow(PermissionKind::microphone, permissions.microphone()),
        permissionRow(PermissionKind::screenRecording, permissions.screenRecording()),
        permissionRow(PermissionKind::accessibility, permissions.accessibility()),
        permissionRow(PermissionKind::speechModel, permissions.speechRecognition()),
        permissionRow(PermissionKind::notifications, permissions.notifications()),
    };
}

} // namespace qm::ui
