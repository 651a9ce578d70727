#include "platform/linux/pulsesnapshot.h"

#include <pulse/pulseaudio.h>

#include <memory>

namespace qm::platform {

namespace {

struct LoopFree {
    void operator()(pa_mainloop *loop) const { pa_mainloop_free(loop); }
};
struct ContextFree {
    void operator()(pa_context *context) const
    {
        pa_context_disconnect(context);
        pa_context_unref(context);
    }
};

QString property(pa_proplist *list, const char *key)
{
    const char *value = list ? pa_proplist_gets(list, key) : nullptr;
    return value ? QString::fromUtf8(value) : QString();
}

struct Reading {
    PulseSnapshot snapshot;
    int pending = 0;
    bool failed = false;
};

void sourceCallback(pa_context *, const pa_source_info *raw, int eol, void *data)
{
    auto *reading = static_cast<Reading *>(data);
    if (eol != 0) {
        reading->failed |= eol < 0;
        --reading->pending;
        return;
    }
    if (raw)
        reading->snapshot.sources.append(
            {raw->index, QString::fromUtf8(raw->name), raw->monitor_of_sink != PA_INVALID_INDEX});
}

void outputCallback(pa_context *, const pa_source_output_info *raw, int eol, void *data)
{
    auto *reading = static_cast<Reading *>(data);
    if (eol != 0) {
        reading->failed |= eol < 0;
        --reading->pending;
        return;
    }
    if (!raw)
        return;
    SourceOutput output{raw->source, raw->corked != 0, 0, property(raw->proplist, PA_PROP_APPLICATION_PROCESS_BINARY),
                        property(raw->proplist, PA_PROP_APPLICATION_NAME)};
    output.pid = property(raw->proplist, PA_PROP_APPLICATION_PROCESS_ID).toInt();
    reading->snapshot.outputs.append(output);
}

// Runs the loop until `done` or the deadline; false on timeout or loop failure.
template <class Done> bool runUntil(pa_mainloop *loop, std::chrono::steady_clock::time_point deadline, Done done)
{
    while (!done()) {
        const auto left =
            std::chrono::duration_cast<std::chrono::microseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0)
            return false;
        if (pa_mainloop_prepare(loop, int(left.count())) < 0 || pa_mainloop_poll(loop) < 0 ||
            pa_mainloop_dispatch(loop) < 0)
            return false;
    }
    return true;
}

} // namespace

std::optional<PulseSnapshot> readPulseSnapshot(std::chrono::milliseconds timeout)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    std::unique_ptr<pa_mainloop, LoopFree> loop(pa_mainloop_new());
    if (!loop)
        return std::nullopt;
    std::unique_ptr<pa_context, ContextFree> context(pa_context_new(pa_mainloop_get_api(loop.get()), "Quillmoor"));
    if (!context || pa_context_connect(context.get(), nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0)
        return std::nullopt;

    pa_context *c = context.get();
    const bool ready = runUntil(loop.get(), deadline, [c] {
        const pa_context_state_t state = pa_context_get_state(c);
        return state == PA_CONTEXT_READY || !PA_CONTEXT_IS_GOOD(state);
    });
    if (!ready || pa_context_get_state(c) != PA_CONTEXT_READY)
        return std::nullopt;

    Reading reading;
    reading.pending = 2;
    pa_operation *sources = pa_context_get_source_info_list(c, sourceCallback, &reading);
    pa_operation *outputs = pa_context_get_source_output_info_list(c, outputCallback, &reading);
    bool complete = sources && outputs;
    if (complete)
        complete = runUntil(loop.get(), deadline, [&reading] { return reading.pending <= 0; });
    // Cancelled operations never call back, so `reading` may go out of scope safely.
    for (pa_operation *operation : {sources, outputs}) {
        if (operation) {
            pa_operation_cancel(operation);
            pa_operation_unref(operation);
        }
    }
    if (!complete || reading.failed)
        return std::nullopt;
    return reading.snapshot;
}

bool zoomIsRecording(const PulseSnapshot &snapshot)
{
    for (const SourceOutput &output : snapshot.outputs) {
        if (output.corked)
            continue;
        if (output.binary != QLatin1String("zoom") && output.appName != QLatin1String("ZOOM VoiceEngine"))
            continue;
        bool onMonitor = true; // a stream whose source is unknown is not counted
        for (const PulseSource &source : snapshot.sources) {
            if (source.index == output.source) {
                onMonitor = source.isMonitor;
                break;
            }
        }
        if (!onMonitor)
            return true;
    }
    return false;
}

} // namespace qm::platform
