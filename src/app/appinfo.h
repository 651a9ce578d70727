#pragma once

#include <QString>

namespace qm::AppInfo {

// The version shown in the About pane, from the build's project version.
inline QString version()
{
    return QStringLiteral(QM_VERSION);
}
// There is one build per version on Linux; the build string repeats the version.
inline QString build()
{
    return QStringLiteral(QM_VERSION);
}
inline QString website()
{
    return QStringLiteral("https://quillmoor.app");
}

} // namespace qm::AppInfo
