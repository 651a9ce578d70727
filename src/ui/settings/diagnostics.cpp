#include "ui/settings/diagnostics.h"

#include <QFileInfo>
#include <QStringList>

namespace qm::ui {

QString diagnosticsText(const Diagnostics &facts)
{
    const auto orUnknown = [](const QString &text) { return text.isEmpty() ? QStringLiteral("unknown") : text; };
    const auto yesNo = [](bool value) { return value ? QStringLiteral("yes") : QStringLiteral("no"); };
    // A model given as a path may sit anywhere in the user's files; its name is all a report needs.
    const QString model = facts.model.contains(u'/') ? QFileInfo(facts.model).fileName() : facts.model;
    const QStringList lines{
        QStringLiteral("Quillmoor: %1 (build %2)").arg(facts.version, facts.build),
        QStringLiteral("Qt: %1").arg(facts.qtVersion),
        QStringLiteral("System: %1").arg(orUnknown(facts.system)),
        QStringLiteral("Session: %1, desktop %2").arg(orUnknown(facts.sessionType), orUnknown(facts.desktop)),
        QStringLiteral("Sound server: %1 input device(s)").arg(facts.inputDevices),
        QStringLiteral("Tray: %1").arg(facts.trayAvailable ? QStringLiteral("available") : QStringLiteral("none")),
        QStringLiteral("Keyring: %1")
            .arg(facts.keyringAvailable ? QStringLiteral("available") : QStringLiteral("not available")),
        QStringLiteral("Transcription: %1").arg(facts.provider),
        QStringLiteral("On-device model: %1 (installed: %2)").arg(model, yesNo(facts.modelInstalled)),
        QStringLiteral("Recordings in the library: %1").arg(facts.recordings),
    };
    return lines.join(u'\n') + u'\n';
}

} // namespace qm::ui
