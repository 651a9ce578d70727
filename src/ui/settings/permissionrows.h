#pragma once

#include "meeting/permissions.h"

#include <QList>
#include <QString>

namespace qm::ui {

// The five things the Permissions pane reports, in the order it shows them.
enum class PermissionKind { microphone, screenRecording, accessibility, speechModel, notifications };

// What one line of the Permissions pane says about a status, and what its button does.
struct PermissionRow {
    PermissionKind kind = PermissionKind::microphone;
    PermissionStatus status = PermissionStatus::notAsked;
    QString title;
    QString state;      // the status in plain words
    QString buttonText; // empty: no button, nothing to do here
    QString note;       // shown whatever the status (empty for most)
};

PermissionRow permissionRow(PermissionKind kind, PermissionStatus status);
// Every row, read from the model's current statuses.
QList<PermissionRow> permissionRows(const Permissions &permissions);

} // namespace qm::ui
