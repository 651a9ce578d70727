#pragma once

#include <pulse/pulseaudio.h>

#include <QString>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

namespace qm::pulse {

// What capture needs to know about the server's devices and streams, copied out of libpulse's callbacks.
struct ServerInfo {
    QString defaultSink;
    QString defaultSource;
};
struct SourceInfo {
    QString name;
    bool isMonitor = false;
};
struct SinkInfo {
    std::uint32_t index = PA_INVALID_INDEX;
    QString name;
    QString monitorSource;
};
struct SinkInputInfo {
    std::uint32_t index = PA_INVALID_INDEX;
    std::uint32_t sink = PA_INVALID_INDEX;
    QString binary;  // application.process.binary
    int pid = 0;     // application.process.id
    QString appName; // application.name
};

// Asynchronous queries: each `then` runs on the main loop's thread with the answer, or with nothing when the
// object doesn't exist or the query failed. Call with the main loop locked (or from one of its callbacks).
void requestServerInfo(pa_context *context, std::function<void(std::optional<ServerInfo>)> then);
void requestSource(pa_context *context, const QString &name, std::function<void(std::optional<SourceInfo>)> then);
void requestSink(pa_context *context, const QString &name, std::function<void(std::optional<SinkInfo>)> then);
void requestSink(pa_context *context, std::uint32_t index, std::function<void(std::optional<SinkInfo>)> then);
void requestSinkInput(pa_context *context, std::uint32_t index, std::function<void(std::optional<SinkInputInfo>)> then);
void requestSinkInputs(pa_context *context, std::function<void(std::vector<SinkInputInfo>)> then);

} // namespace qm::pulse
