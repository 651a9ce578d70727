#pragma once

#include <QString>

namespace qm {

// Why a capture could not start or went on. Each case has the one sentence the user sees.
enum class CaptureError {
    zoomNotRunning,
    noDisplay,
    microphoneUnavailable,
    microphonePermissionDenied,
    screenPermissionDenied,
    nothingRecorded,
};

QString description(CaptureError error);

} // namespace qm
