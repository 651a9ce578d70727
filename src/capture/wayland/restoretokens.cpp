#include "capture/wayland/restoretokens.h"

#include <QDir>
#include <QFileInfo>
#include <QSettings>
#include <QStandardPaths>

namespace qm::wayland {

namespace {

QString keyOf(SourceType type)
{
    return type == SourceType::window ? QStringLiteral("window") : QStringLiteral("monitor");
}

const QString declinedKey = QStringLiteral("declined");

template <class Change> expected<void, QString> write(const QString &path, Change change)
{
    if (!QDir().mkpath(QFileInfo(path).absolutePath()))
        return unexpected(QStringLiteral("couldn't create the folder of ") + path);
    QSettings file(path, QSettings::IniFormat);
    change(file);
    file.sync();
    if (file.status() != QSettings::NoError)
        return unexpected(QStringLiteral("couldn't write ") + path);
    return {};
}

} // namespace

RestoreTokens::RestoreTokens(QString path) : m_path(std::move(path))
{
    if (m_path.isEmpty())
        m_path = QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation) +
                 QStringLiteral("/Quillmoor/screencast.ini");
}

QString RestoreTokens::token(SourceType type) const
{
    return QSettings(m_path, QSettings::IniFormat).value(keyOf(type)).toString();
}

expected<void, QString> RestoreTokens::store(SourceType type, const QString &token)
{
    return write(m_path, [&](QSettings &file) {
        if (token.isEmpty())
            file.remove(keyOf(type));
        else
            file.setValue(keyOf(type), token);
        file.remove(declinedKey);
    });
}

expected<void, QString> RestoreTokens::forget(SourceType type)
{
    return write(m_path, [&](QSettings &file) { file.remove(keyOf(type)); });
}

expected<void, QString> RestoreTokens::markDeclined()
{
    return write(m_path, [](QSettings &file) { file.setValue(declinedKey, true); });
}

ShareConsent RestoreTokens::consent() const
{
    const QSettings file(m_path, QSettings::IniFormat);
    if (file.value(declinedKey).toBool())
        return ShareConsent::declined;
    for (SourceType type : {SourceType::monitor, SourceType::window}) {
        if (!file.value(keyOf(type)).toString().isEmpty())
            return ShareConsent::granted;
    }
    return ShareConsent::notAsked;
}

} // namespace qm::wayland
