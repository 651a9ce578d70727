#include "app/application.h"
#include "app/appsettings.h"
#include "library/log.h"
#include "library/recordingstore.h"

#include <QApplication>

#include <csignal>

int main(int argc, char *argv[])
{
    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Quillmoor"));
    QApplication::setApplicationVersion(QStringLiteral(QM_VERSION));
    QApplication::setDesktopFileName(QStringLiteral("app.quillmoor.Quillmoor"));
    QApplication::setQuitOnLastWindowClosed(false);

    qm::Application quillmoor;
    qm::logLine(QStringLiteral("started; library at %1 with %2 recordings")
                    .arg(quillmoor.store().rootPath())
                    .arg(quillmoor.store().count()));
    if (!quillmoor.settings().keyringAvailable())
        qm::logLine(QStringLiteral("no keyring answered; API keys can't be saved until one is available"));

    return QApplication::exec();
}
