#include "library/log.h"

#include <cstdio>
#include <mutex>
#include <syslog.h>

namespace qm {

void logLine(const QString &message)
{
    static std::once_flag opened;
    std::call_once(opened, [] { openlog("quillmoor", LOG_PID, LOG_USER); });

    const QByteArray line = QStringLiteral("Quillmoor: %1").arg(message).toUtf8();
    std::fprintf(stderr, "%s\n", line.constData());
    syslog(LOG_NOTICE, "%s", line.constData());
}

} // namespace qm
