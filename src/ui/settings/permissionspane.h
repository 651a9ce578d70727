#pragma once

#include "ui/settings/permissionrows.h"

#include <QWidget>

class QGridLayout;
class QLabel;
class QPushButton;

namespace qm {
class Permissions;
}

namespace qm::ui {

// The five statuses, each in plain words with the button that asks or opens the desktop's settings page.
// The window refreshes the statuses whenever it becomes active.
class PermissionsPane : public QWidget {
    Q_OBJECT

public:
    explicit PermissionsPane(Permissions &permissions, QWidget *parent = nullptr);

private:
    struct Line {
        QLabel *light = nullptr;
        QLabel *state = nullptr;
        QPushButton *button = nullptr;
    };
    void display(const QList<PermissionRow> &rows);
    void act(PermissionKind kind);

    Permissions &m_permissions;
    QList<Line> m_lines;
    QLabel *m_instruction = nullptr;
};

} // namespace qm::ui
