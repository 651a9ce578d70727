#include "meeting/zoomprobes.h"

#include <array>

namespace qm {

bool isMeetingWindowTitle(const QString &title)
{
    static const std::array<QString, 4> titles{QStringLiteral("Zoom Meeting"), QStringLiteral("Zoom Webinar"),
                                               QStringLiteral("Meeting"), QStringLiteral("Zoom Workplace Meeting")};
    for (const QString &candidate : titles) {
        if (title.compare(candidate, Qt::CaseInsensitive) == 0)
            return true;
    }
    return false;
}

} // namespace qm
