#pragma once

#include <QList>
#include <QString>

#include <chrono>
#include <cstdint>
#include <optional>

namespace qm::platform {

// A recording stream of the sound server, as its properties describe it.
struct SourceOutput {
    std::uint32_t source = 0;
    bool corked = false;
    int pid = 0;     // application.process.id
    QString binary;  // application.process.binary
    QString appName; // application.name
};

struct PulseSource {
    std::uint32_t index = 0;
    QString name;
    bool isMonitor = false;
};

// The sound server's sources and recording streams at one moment.
struct PulseSnapshot {
    QList<PulseSource> sources;
    QList<SourceOutput> outputs;
};

// Connects to the sound server, reads its sources and recording streams and disconnects, all on the calling
// thread and within `timeout`. Nothing when the server can't be reached, refuses, or is too slow.
std::optional<PulseSnapshot> readPulseSnapshot(std::chrono::milliseconds timeout);

// Whether Zoom is recording from an input: a stream that runs (not corked), reads from a source that isn't the
// monitor of an output, and belongs to a program named "zoom" or to Zoom's voice engine.
bool zoomIsRecording(const PulseSnapshot &snapshot);

} // namespace qm::platform
