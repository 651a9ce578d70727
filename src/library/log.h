#pragma once

#include <QString>

namespace qm {

// Writes one diagnostic line, "Quillmoor: " + message, to standard error and to the system log.
// Safe to call from any thread. Never pass API keys or response bodies.
void logLine(const QString &message);

} // namespace qm
