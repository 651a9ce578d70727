#pragma once

#include "capture/captureerror.h"

#include <QString>

#include <optional>

namespace qm {

// A capture that could not start or stopped by itself: one of the known capture errors, or another failure
// (a track file that can't be created, a sound server that went away) in its own words.
struct CaptureFailure {
    std::optional<CaptureError> error;
    QString message;

    static CaptureFailure of(CaptureError e) { return {e, {}}; }
    static CaptureFailure other(QString text) { return {std::nullopt, std::move(text)}; }

    QString description() const { return error ? qm::description(*error) : message; }
    bool operator==(const CaptureFailure &) const = default;
};

} // namespace qm
