#include "ui/library/desktopactions.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDesktopServices>
#include <QDir>
#include <QSaveFile>
#include <QUrl>

namespace qm::ui {

QString ExportError::description() const
{
    return QCoreApplication::translate("LibraryWindow", "Couldn't write “%1”: %2").arg(path, reason);
}

expected<void, ExportError> writeTextFile(const QString &path, const QString &text)
{
    QSaveFile file(path);
    const QByteArray bytes = text.toUtf8();
    if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size() || !file.commit())
        return unexpected(ExportError{path, file.errorString()});
    return {};
}

void openFolder(const QString &folder)
{
    QDesktopServices::openUrl(QUrl::fromLocalFile(folder));
}

void showInFiles(const QString &folder)
{
    QDBusMessage call = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.FileManager1"), QStringLiteral("/org/freedesktop/FileManager1"),
        QStringLiteral("org.freedesktop.FileManager1"), QStringLiteral("ShowItems"));
    call << QStringList{QUrl::fromLocalFile(folder).toString()} << QString();
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        openFolder(folder);
        return;
    }
    auto *watcher = new QDBusPendingCallWatcher(bus.asyncCall(call, 3000));
    QObject::connect(watcher, &QDBusPendingCallWatcher::finished, watcher, [watcher, folder] {
        if (watcher->isError())
            openFolder(folder);
        watcher->deleteLater();
    });
}

} // namespace qm::ui
