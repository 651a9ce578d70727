#pragma once

#include <QStringList>

namespace qm::cli {

// Exit codes of the command line.
inline constexpr int kSuccess = 0;
inline constexpr int kFailure = 1; // the command ran and failed: nothing recorded, transcription failed, …
inline constexpr int kUsage = 2;   // the command line itself was wrong

// Runs one command (arguments as the process got them, program name first) to its end and returns the exit
// code. Needs a QCoreApplication and runs its own event loop until the command, and any finishing work it
// started or found unfinished from an earlier run, is done. Main thread only.
int run(const QStringList &arguments);

} // namespace qm::cli
