#pragma once

#include <QString>

class QSettings;

namespace qm {

class SecretStore;

// One-time import from earlier installations: their settings files, their API keys, and the earlier
// product's Documents folder. Each step sets a flag in the current settings and never runs again after it
// completed. Existing values always win; old files and keyring items are left in place.
class LegacyMigration {
public:
    // `current` is this program's settings file; `configDir` holds the earlier installations' files
    // ("<bundle id>.conf"); `documentsDir` may be empty when the system has no Documents folder.
    LegacyMigration(QSettings &current, QString configDir, SecretStore &secrets, QString documentsDir);

    // Copies settings and API keys of the installation named `bundleIdentifier`.
    void migrate(const QString &bundleIdentifier);
    // Moves Documents/Harrowbrook to Documents/Quillmoor unless the latter exists, and fixes saveFolderPath.
    void moveHarrowbrookFolder();

    static constexpr const char *kEarlierBundle = "net.quillmoor.Quillmoor";
    static constexpr const char *kHarrowbrookBundle = "app.harrowbrook.Harrowbrook";

private:
    void copySettings(const QString &bundleIdentifier);
    void copyKeys(const QString &bundleIdentifier);

    QSettings &m_current;
    QString m_configDir;
    SecretStore &m_secrets;
    QString m_documentsDir;
};

} // namespace qm
