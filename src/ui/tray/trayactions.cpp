#include "ui/tray/trayactions.h"

#include <QCoreApplication>
#include <QMessageBox>
#include <QPushButton>

namespace qm::ui {

bool confirmDiscard(QWidget *parent)
{
    QMessageBox box(parent);
    box.setIcon(QMessageBox::Warning);
    box.setWindowTitle(QCoreApplication::translate("TrayActions", "Discard this recording?"));
    box.setText(QCoreApplication::translate("TrayActions", "Discard this recording?"));
    box.setInformativeText(QCoreApplication::translate(
        "TrayActions", "Recording stops and nothing is saved, transcribed or uploaded. The files go to the Trash."));
    QPushButton *keep =
        box.addButton(QCoreApplication::translate("TrayActions", "Keep Recording"), QMessageBox::RejectRole);
    QPushButton *discard =
        box.addButton(QCoreApplication::translate("TrayActions", "Discard"), QMessageBox::DestructiveRole);
    // The safe choice is the one Enter and Escape take.
    box.setDefaultButton(keep);
    box.setEscapeButton(keep);
    box.exec();
    return box.clickedButton() == discard;
}

} // namespace qm::ui
