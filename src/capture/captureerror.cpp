#include "capture/captureerror.h"

#include <QCoreApplication>

namespace qm {

QString description(CaptureError error)
{
    const auto tr = [](const char *text) { return QCoreApplication::translate("CaptureError", text); };
    switch (error) {
    case CaptureError::zoomNotRunning:
        return tr("Zoom isn't running. Join your meeting in Zoom first, or use “Record System Audio”.");
    case CaptureError::noDisplay:
        return tr("No display was found to capture from.");
    case CaptureError::microphoneUnavailable:
        return tr("The selected microphone isn't available.");
    case CaptureError::microphonePermissionDenied:
        return tr("Quillmoor can't use the microphone. Check that an input device is connected and allowed in "
                  "your system's sound settings.");
    case CaptureError::screenPermissionDenied:
        return tr("Quillmoor can't hear the meeting: the sound server refused to share the computer's audio, or "
                  "screen sharing was declined. Allow it when your desktop asks, then try again.");
    case CaptureError::nothingRecorded:
        return tr("No audio was captured.");
    }
    return {};
}

} // namespace qm
