#include "ui/tray/symbols.h"

#include <QApplication>
#include <QFile>
#include <QPainter>
#include <QStyle>

namespace qm::ui::symbols {

namespace {

QIcon ours(const QString &name)
{
    const QString path = QStringLiteral(":/icons/") + name + QStringLiteral(".svg");
    return QFile::exists(path) ? QIcon(path) : QIcon();
}

QIcon themed(const char *name, QStyle::StandardPixmap fallback)
{
    return QIcon::fromTheme(QLatin1String(name), QApplication::style()->standardIcon(fallback));
}

} // namespace

void useFallbackTheme()
{
    QIcon::setFallbackThemeName(QStringLiteral("Adwaita"));
}

QIcon tinted(const QIcon &icon, const QColor &color)
{
    QIcon result;
    for (int size : {16, 22, 24, 32}) {
        for (qreal ratio : {1.0, 2.0}) {
            QPixmap pixmap = icon.pixmap(QSize(size, size), ratio);
            if (pixmap.isNull())
                continue;
            QPainter painter(&pixmap);
            painter.setCompositionMode(QPainter::CompositionMode_SourceIn);
            painter.fillRect(pixmap.rect(), color);
            painter.end();
            result.addPixmap(pixmap);
        }
    }
    return result;
}

QString literal(QString text)
{
    return text.replace(u'&', QStringLiteral("&&"));
}

QColor warningColor()
{
    return {0xe5, 0xa5, 0x0a};
}

QIcon tray(TrayViewModel::IconState state)
{
    static const char *const names[] = {"idle", "processing", "recording", "paused"};
    const QString name =
        QStringLiteral("app.quillmoor.Quillmoor-") + QLatin1String(names[int(state)]) + QStringLiteral("-symbolic");
    QIcon fallback = ours(name);
    if (fallback.isNull())
        fallback = QApplication::style()->standardIcon(
            state == TrayViewModel::IconState::recording ? QStyle::SP_MediaPlay : QStyle::SP_ComputerIcon);
    return QIcon::fromTheme(name, fallback);
}

QIcon application()
{
    QIcon fallback = ours(QStringLiteral("app.quillmoor.Quillmoor"));
    return QIcon::fromTheme(QStringLiteral("app.quillmoor.Quillmoor"),
                            fallback.isNull() ? tray(TrayViewModel::IconState::idle) : fallback);
}

QIcon source(RecordingSource source)
{
    switch (source) {
    case RecordingSource::zoom:
        return themed("camera-video-symbolic", QStyle::SP_MediaPlay);
    case RecordingSource::systemAudio:
        return themed("computer-symbolic", QStyle::SP_ComputerIcon);
    case RecordingSource::inPerson:
        return themed("system-users-symbolic", QStyle::SP_DirHomeIcon);
    }
    return {};
}

QIcon meetingAudio()
{
    return themed("audio-volume-high-symbolic", QStyle::SP_MediaVolume);
}

QIcon microphone()
{
    return themed("audio-input-microphone-symbolic", QStyle::SP_MediaVolume);
}

QIcon microphoneMuted()
{
    return themed("microphone-sensitivity-muted-symbolic", QStyle::SP_MediaVolumeMuted);
}

QIcon settings()
{
    return themed("emblem-system-symbolic", QStyle::SP_FileDialogDetailedView);
}

QIcon warning()
{
    return themed("dialog-warning-symbolic", QStyle::SP_MessageBoxWarning);
}

QIcon transcript()
{
    return themed("format-justify-left-symbolic", QStyle::SP_FileDialogContentsView);
}

QIcon close()
{
    return themed("window-close-symbolic", QStyle::SP_TitleBarCloseButton);
}

QIcon trash()
{
    return themed("user-trash-symbolic", QStyle::SP_TrashIcon);
}

} // namespace qm::ui::symbols
