#include "library/legacymigration.h"

#include "library/log.h"
#include "library/secretstore.h"
#include "library/settingsvalues.h"

#include <QDir>
#include <QFileInfo>
#include <QSettings>

#include <filesystem>

namespace qm {

namespace {

bool flagSet(const QSettings &settings, const QString &key)
{
    return settings.value(key).toString() == QLatin1String("true");
}

} // namespace

LegacyMigration::LegacyMigration(QSettings &current, QString configDir, SecretStore &secrets, QString documentsDir)
    : m_current(current), m_configDir(std::move(configDir)), m_secrets(secrets), m_documentsDir(std::move(documentsDir))
{}

void LegacyMigration::migrate(const QString &bundleIdentifier)
{
    const QString flag = QLatin1String("migrated:") + bundleIdentifier;
    if (flagSet(m_current, flag))
        return;
    copySettings(bundleIdentifier);
    copyKeys(bundleIdentifier);
    m_current.setValue(flag, true);
    m_current.sync();
}

void LegacyMigration::copySettings(const QString &bundleIdentifier)
{
    const QString path = QDir(m_configDir).filePath(bundleIdentifier + QLatin1String(".conf"));
    if (!QFileInfo(path).isFile())
        return;
    const QSettings old(path, QSettings::IniFormat);

    // A group ("models") is one value: it is copied whole or not at all, never merged into the current one.
    const QStringList currentGroups = m_current.childGroups();
    for (const QString &key : old.childKeys()) {
        if (!key.startsWith(QLatin1String("migrated")) && !m_current.contains(key))
            m_current.setValue(key, old.value(key));
    }
    for (const QString &group : old.childGroups()) {
        if (group.startsWith(QLatin1String("migrated")) || currentGroups.contains(group))
            continue;
        const QString prefix = group + u'/';
        for (const QString &key : old.allKeys()) {
            if (key.startsWith(prefix))
                m_current.setValue(key, old.value(key));
        }
    }
}

void LegacyMigration::copyKeys(const QString &bundleIdentifier)
{
    const QString service = QLatin1String(kKeyringService);
    for (const TranscriptionProvider provider : kCloudProviders) {
        const QString account = apiKeyAccount(provider);
        if (m_secrets.get(account, service))
            continue;
        if (const std::optional<QString> old = m_secrets.get(account, bundleIdentifier))
            m_secrets.set(*old, account);
    }
}

void LegacyMigration::moveHarrowbrookFolder()
{
    const QString flag = QStringLiteral("migratedFromHarrowbrook");
    if (flagSet(m_current, flag))
        return;

    if (!m_documentsDir.isEmpty()) {
        const QDir documents(m_documentsDir);
        const QString oldPath = documents.filePath(QStringLiteral("Harrowbrook"));
        const QString newPath = documents.filePath(QStringLiteral("Quillmoor"));
        const QString key = QStringLiteral("saveFolderPath");
        if (m_current.value(key).toString() == oldPath)
            m_current.setValue(key, newPath);

        // Two folders are never merged: an existing new folder means the old one stays where it is.
        if (QFileInfo::exists(oldPath) && !QFileInfo::exists(newPath)) {
            std::error_code error;
            std::filesystem::rename(oldPath.toStdString(), newPath.toStdString(), error);
            if (error) {
                logLine(QStringLiteral("couldn't move %1: %2").arg(oldPath, QString::fromLocal8Bit(error.message())));
                m_current.setValue(key, oldPath);
            }
        }
    }
    m_current.setValue(flag, true);
    m_current.sync();
}

} // namespace qm
