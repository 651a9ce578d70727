#pragma once

#include "library/result.h"

#include <QString>
#include <QStringList>

namespace qm {
class AppSettings;
}

namespace qm::cli {

// The settings the command line reads and writes, under the keys of the settings file ("autoTranscribe",
// "driveRootPath", "models/deepgram", …). Values are shown and accepted as the file stores them: true/false,
// whole numbers, texts, and the raw values of the enumerations ("onDevice", "automatic", "auto").
QStringList settingKeys();

// The value of `key`, or the sentence saying the key is unknown.
expected<QString, QString> settingValue(const AppSettings &settings, const QString &key);

// Changes `key` through the settings object (so it is written to the file at once), or says why it can't.
expected<void, QString> setSetting(AppSettings &settings, const QString &key, const QString &value);

} // namespace qm::cli
