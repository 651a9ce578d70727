#include "capture/pulse/pulsesoundserver.h"

#include "capture/pulse/pulseintrospection.h"
#include "capture/streammixer.h"
#include "library/log.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QScopeGuard>

#include <pulse/pulseaudio.h>

#include <cstring>
#include <set>
#include <thread>

namespace qm {

namespace {

constexpr std::uint32_t kRate = 48000;

QString tr(const char *text)
{
    return QCoreApplication::translate("PulseSoundServer", text);
}

struct LoopFree {
    void operator()(pa_threaded_mainloop *loop) const { pa_threaded_mainloop_free(loop); }
};
struct ContextFree {
    void operator()(pa_context *context) const
    {
        pa_context_disconnect(context);
        pa_context_unref(context);
    }
};

bool isZoomStream(const pulse::SinkInputInfo &input, const QList<int> &zoomProcesses)
{
    return input.binary == QLatin1String("zoom") || input.binary == QLatin1String("zoom.real") ||
           input.binary == QLatin1String("ZoomLauncher") || input.appName == QLatin1String("ZOOM VoiceEngine") ||
           (input.pid > 0 && zoomProcesses.contains(input.pid));
}

} // namespace

struct PulseSoundServer::Connection {
    enum class Role { microphone, outputMonitor, zoomStream };

    struct Stream {
        Connection *owner = nullptr;
        pa_stream *handle = nullptr;
        Role role = Role::microphone;
        std::uint32_t sinkInput = PA_INVALID_INDEX;
        int channels = 1;
        int mixerId = 0;
        bool stamped = false;
        Nanoseconds next = 0;
        std::vector<char> partial; // bytes of a frame split between two reads
    };

    explicit Connection(const HostClock &hostClock) : clock(hostClock) {}

    const HostClock &clock;
    std::unique_ptr<pa_threaded_mainloop, LoopFree> loop;
    std::unique_ptr<pa_context, ContextFree> context;
    std::vector<std::unique_ptr<Stream>> streams;
    Callbacks meeting;
    Callbacks microphone;
    std::optional<RecordingSource> meetingSource;
    QList<int> zoomProcesses;
    QString followedSink;
    StreamMixer mixer{int(kRate), 2};
    int nextMixerId = 1;
    std::set<std::uint32_t> attaching; // Zoom streams whose device is still being looked up
    bool failureReported = false;

    // --- used from the controlling thread, with the loop locked ---

    // Polls with the lock released in between, so the loop's thread can answer. False on time-out.
    template <class Done> bool waitFor(Done done)
    {
        QElapsedTimer timer;
        timer.start();
        while (!done()) {
            if (timer.elapsed() > kRequestTimeoutMs)
                return false;
            pa_threaded_mainloop_unlock(loop.get());
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
            pa_threaded_mainloop_lock(loop.get());
        }
        return true;
    }

    // Runs an asynchronous query and waits for its answer.
    template <class Info, class Request> std::optional<Info> ask(Request request)
    {
        auto answer = std::make_shared<std::pair<bool, std::optional<Info>>>();
        request([answer](std::optional<Info> info) { *answer = {true, std::move(info)}; });
        if (!waitFor([&] { return answer->first; }))
            return std::nullopt;
        return answer->second;
    }

    expected<void, QString> connect()
    {
        loop.reset(pa_threaded_mainloop_new());
        pa_threaded_mainloop_set_name(loop.get(), "app.quillmoor.pulse");
        context.reset(pa_context_new(pa_threaded_mainloop_get_api(loop.get()), "Quillmoor"));
        pa_context_set_state_callback(context.get(), &Connection::contextChanged, this);
        pa_context_set_subscribe_callback(context.get(), &Connection::serverChanged, this);
        if (pa_context_connect(context.get(), nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0 ||
            pa_threaded_mainloop_start(loop.get()) < 0)
            return unexpected(QString::fromUtf8(pa_strerror(pa_context_errno(context.get()))));
        pa_threaded_mainloop_lock(loop.get());
        const bool answered = waitFor([this] {
            const pa_context_state_t state = pa_context_get_state(context.get());
            return state == PA_CONTEXT_READY || !PA_CONTEXT_IS_GOOD(state);
        });
        const bool ready = answered && pa_context_get_state(context.get()) == PA_CONTEXT_READY;
        if (ready) {
            pa_operation *subscribed = pa_context_subscribe(
                context.get(), pa_subscription_mask_t(PA_SUBSCRIPTION_MASK_SERVER | PA_SUBSCRIPTION_MASK_SINK_INPUT),
                nullptr, nullptr);
            if (subscribed)
                pa_operation_unref(subscribed);
        }
        const int error = pa_context_errno(context.get());
        pa_threaded_mainloop_unlock(loop.get());
        if (!ready)
            return unexpected(error == PA_ERR_ACCESS ? QStringLiteral("access")
                                                     : QString::fromUtf8(pa_strerror(error)));
        return {};
    }

    // Waits for a new stream to start flowing; on failure the stream is removed and the server's reason returned.
    expected<void, int> waitUntilFlowing(Stream *stream)
    {
        const bool answered = waitFor([stream] {
            const pa_stream_state_t state = pa_stream_get_state(stream->handle);
            return state == PA_STREAM_READY || !PA_STREAM_IS_GOOD(state);
        });
        if (answered && pa_stream_get_state(stream->handle) == PA_STREAM_READY)
            return {};
        const int error = answered ? pa_context_errno(context.get()) : PA_ERR_TIMEOUT;
        close(stream);
        return unexpected(error);
    }

    // --- used with the loop locked, from either thread; never waits ---

    Stream *open(Role role, const QString &source, int channels, std::uint32_t sinkInput = PA_INVALID_INDEX)
    {
        const pa_sample_spec spec{PA_SAMPLE_FLOAT32LE, kRate, std::uint8_t(channels)};
        const char *title = role == Role::microphone ? "Quillmoor microphone" : "Quillmoor meeting";
        pa_stream *handle = pa_stream_new(context.get(), title, &spec, nullptr);
        if (!handle)
            return nullptr;
        auto stream =
            std::make_unique<Stream>(Stream{this, handle, role, sinkInput, channels, nextMixerId++, false, 0, {}});
        if (sinkInput != PA_INVALID_INDEX)
            pa_stream_set_monitor_stream(handle, sinkInput);
        pa_stream_set_read_callback(handle, &Connection::readable, stream.get());
        pa_stream_set_state_callback(handle, &Connection::streamChanged, stream.get());
        pa_buffer_attr buffer{};
        buffer.maxlength = std::uint32_t(-1);
        buffer.tlength = buffer.prebuf = buffer.minreq = std::uint32_t(-1);
        buffer.fragsize = std::uint32_t(pa_usec_to_bytes(20000, &spec)); // 20 ms chunks
        // Without DONT_MOVE a stream whose device or application went away would quietly fall back to
        // recording something else.
        const auto flags = pa_stream_flags_t(PA_STREAM_ADJUST_LATENCY | PA_STREAM_INTERPOLATE_TIMING |
                                             PA_STREAM_AUTO_TIMING_UPDATE | PA_STREAM_DONT_MOVE);
        if (pa_stream_connect_record(handle, source.toUtf8().constData(), &buffer, flags) < 0) {
            pa_stream_unref(handle);
            return nullptr;
        }
        streams.push_back(std::move(stream));
        return streams.back().get();
    }

    void close(Stream *stream)
    {
        pa_stream_set_read_callback(stream->handle, nullptr, nullptr);
        pa_stream_set_state_callback(stream->handle, nullptr, nullptr);
        pa_stream_disconnect(stream->handle);
        pa_stream_unref(stream->handle);
        if (stream->role == Role::zoomStream)
            mixer.remove(stream->mixerId);
        std::erase_if(streams, [stream](const auto &owned) { return owned.get() == stream; });
    }

    void deliver(Stream &stream, AudioChunk chunk)
    {
        switch (stream.role) {
        case Role::microphone:
            if (microphone.deliver)
                microphone.deliver(std::move(chunk));
            break;
        case Role::outputMonitor:
            if (meeting.deliver)
                meeting.deliver(std::move(chunk));
            break;
        case Role::zoomStream:
            mixer.add(stream.mixerId, chunk);
            flushMixer(false);
            break;
        }
    }

    void flushMixer(bool everything)
    {
        for (AudioChunk &mixed : mixer.take(everything)) {
            if (meeting.deliver)
                meeting.deliver(std::move(mixed));
        }
    }

    void fail(const Callbacks &callbacks, const QString &reason)
    {
        logLine(reason);
        if (callbacks.failed)
            callbacks.failed(reason);
    }

    // The default output changed: record its monitor from now on, and let go of the old one.
    void followDefaultOutput()
    {
        pulse::requestServerInfo(context.get(), [this](std::optional<pulse::ServerInfo> server) {
            if (!server || server->defaultSink == followedSink)
                return;
            pulse::requestSink(context.get(), server->defaultSink, [this](std::optional<pulse::SinkInfo> sink) {
                if (!sink || sink->name == followedSink)
                    return;
                std::vector<Stream *> old;
                for (const auto &stream : streams) {
                    if (stream->role == Role::outputMonitor)
                        old.push_back(stream.get());
                }
                if (!open(Role::outputMonitor, sink->monitorSource, 2)) {
                    fail(meeting, tr("The computer's sound output can't be recorded any more."));
                    return;
                }
                followedSink = sink->name;
                for (Stream *stream : old)
                    close(stream);
            });
        });
    }

    void attachZoomStream(const pulse::SinkInputInfo &input)
    {
        if (!isZoomStream(input, zoomProcesses))
            return;
        // Zoom's stream changes (volume, corking) arrive while it is being attached: attach it once.
        if (attaching.contains(input.index))
            return;
        for (const auto &stream : streams) {
            if (stream->role == Role::zoomStream && stream->sinkInput == input.index)
                return;
        }
        attaching.insert(input.index);
        pulse::requestSink(context.get(), input.sink, [this, index = input.index](std::optional<pulse::SinkInfo> sink) {
            attaching.erase(index);
            if (sink && meetingSource == RecordingSource::zoom)
                open(Role::zoomStream, sink->monitorSource, 2, index);
        });
    }

    // --- libpulse callbacks, on the loop's thread ---

    static void contextChanged(pa_context *context, void *data)
    {
        auto *self = static_cast<Connection *>(data);
        pa_threaded_mainloop_signal(self->loop.get(), 0);
        const pa_context_state_t state = pa_context_get_state(context);
        if ((state == PA_CONTEXT_FAILED || state == PA_CONTEXT_TERMINATED) && !self->streams.empty() &&
            !self->failureReported) {
            self->failureReported = true;
            const QString reason = tr("The sound server stopped, so nothing more can be recorded.");
            self->fail(self->meeting.failed ? self->meeting : self->microphone, reason);
        }
    }

    static void serverChanged(pa_context *, pa_subscription_event_type_t event, std::uint32_t index, void *data)
    {
        auto *self = static_cast<Connection *>(data);
        const auto facility = event & PA_SUBSCRIPTION_EVENT_FACILITY_MASK;
        const auto type = event & PA_SUBSCRIPTION_EVENT_TYPE_MASK;
        if (facility == PA_SUBSCRIPTION_EVENT_SERVER && self->meetingSource == RecordingSource::systemAudio) {
            self->followDefaultOutput();
        } else if (facility == PA_SUBSCRIPTION_EVENT_SINK_INPUT && self->meetingSource == RecordingSource::zoom) {
            if (type == PA_SUBSCRIPTION_EVENT_REMOVE) {
                for (const auto &stream : self->streams) {
                    if (stream->role == Role::zoomStream && stream->sinkInput == index) {
                        self->close(stream.get());
                        break;
                    }
                }
            } else {
                pulse::requestSinkInput(self->context.get(), index, [self](std::optional<pulse::SinkInputInfo> input) {
                    if (input)
                        self->attachZoomStream(*input);
                });
            }
        }
    }

    static void streamChanged(pa_stream *handle, void *data)
    {
        auto *stream = static_cast<Stream *>(data);
        Connection *self = stream->owner;
        pa_threaded_mainloop_signal(self->loop.get(), 0);
        const pa_stream_state_t state = pa_stream_get_state(handle);
        if (state != PA_STREAM_FAILED && state != PA_STREAM_TERMINATED)
            return;
        // Only flowing streams are handled here; one that never started is reported by whoever opened it.
        if (!stream->stamped)
            return;
        // Every stream fails when the server itself goes away; that is said once, by contextChanged, and not
        // mistaken for an unplugged microphone.
        if (const pa_context_state_t server = pa_context_get_state(self->context.get()); server != PA_CONTEXT_READY) {
            contextChanged(self->context.get(), self);
            return;
        }
        const Role role = stream->role;
        self->close(stream);
        if (role == Role::microphone)
            self->fail(self->microphone, tr("The microphone stopped sending sound. Was it unplugged?"));
        else if (role == Role::outputMonitor)
            self->followDefaultOutput();
        // A Zoom stream that ends is simply no longer heard.
    }

    static void readable(pa_stream *handle, std::size_t, void *data)
    {
        auto *stream = static_cast<Stream *>(data);
        Connection *self = stream->owner;
        const std::size_t frameBytes = sizeof(float) * std::size_t(stream->channels);
        for (;;) {
            const void *bytes = nullptr;
            std::size_t size = 0;
            if (pa_stream_peek(handle, &bytes, &size) < 0 || size == 0)
                return;
            if (!stream->stamped) {
                // The first chunk was heard `latency` ago; every later one follows on by its length.
                pa_usec_t latency = 0;
                int negative = 0;
                Nanoseconds delay = 0;
                if (pa_stream_get_latency(handle, &latency, &negative) == 0)
                    delay = Nanoseconds(latency) * 1000 * (negative ? -1 : 1);
                stream->next = self->clock.now() - delay;
                stream->stamped = true;
            }
            // libpulse doesn't promise whole frames per peek: whole frames go on and the rest waits for the
            // next read. A hole the server reports is silence of its length.
            std::vector<char> &buffer = stream->partial;
            if (bytes)
                buffer.insert(buffer.end(), static_cast<const char *>(bytes), static_cast<const char *>(bytes) + size);
            else
                buffer.insert(buffer.end(), size, 0);
            pa_stream_drop(handle);

            const std::size_t whole = buffer.size() / frameBytes * frameBytes;
            if (whole == 0)
                continue;
            AudioChunk chunk;
            chunk.sampleRate = int(kRate);
            chunk.channels = stream->channels;
            chunk.pts = stream->next;
            chunk.samples.resize(whole / sizeof(float));
            std::memcpy(chunk.samples.data(), buffer.data(), whole);
            buffer.erase(buffer.begin(), buffer.begin() + std::ptrdiff_t(whole));
            stream->next += chunk.duration();
            self->deliver(*stream, std::move(chunk));
        }
    }
};

PulseSoundServer::PulseSoundServer(const HostClock &clock) : m_clock(clock) {}

PulseSoundServer::~PulseSoundServer()
{
    stop();
}

namespace {

CaptureFailure connectionFailure(const QString &reason, CaptureError denied)
{
    if (reason == QLatin1String("access"))
        return CaptureFailure::of(denied);
    return CaptureFailure::other(
        QCoreApplication::translate("PulseSoundServer", "Quillmoor can't reach the sound server: %1").arg(reason));
}

} // namespace

expected<void, CaptureFailure> PulseSoundServer::connect(CaptureError denied)
{
    if (m_connection)
        return {};
    auto connection = std::make_unique<Connection>(m_clock);
    if (auto connected = connection->connect(); !connected)
        return unexpected(connectionFailure(connected.error(), denied));
    m_connection = std::move(connection);
    return {};
}

expected<void, CaptureFailure> PulseSoundServer::startMicrophone(std::optional<QString> name, Callbacks callbacks)
{
    if (auto connected = connect(CaptureError::microphonePermissionDenied); !connected)
        return connected;
    Connection &c = *m_connection;
    pa_threaded_mainloop_lock(c.loop.get());
    auto unlock = qScopeGuard([&c] { pa_threaded_mainloop_unlock(c.loop.get()); });

    auto usable = [&c](const QString &source) -> std::optional<QString> {
        if (source.isEmpty())
            return std::nullopt;
        const auto info = c.ask<pulse::SourceInfo>(
            [&](auto then) { pulse::requestSource(c.context.get(), source, std::move(then)); });
        // With no real input, the server's default source is a monitor: that is not a microphone.
        if (!info || info->isMonitor)
            return std::nullopt;
        return info->name;
    };
    std::optional<QString> source = name ? usable(*name) : std::nullopt;
    if (!source) {
        const auto server =
            c.ask<pulse::ServerInfo>([&](auto then) { pulse::requestServerInfo(c.context.get(), std::move(then)); });
        if (server)
            source = usable(server->defaultSource);
    }
    if (!source)
        return unexpected(CaptureFailure::of(CaptureError::microphoneUnavailable));

    c.microphone = std::move(callbacks);
    Connection::Stream *stream = c.open(Connection::Role::microphone, *source, 1);
    if (!stream)
        return unexpected(CaptureFailure::of(CaptureError::microphoneUnavailable));
    if (auto flowing = c.waitUntilFlowing(stream); !flowing)
        return unexpected(CaptureFailure::of(flowing.error() == PA_ERR_ACCESS ? CaptureError::microphonePermissionDenied
                                                                              : CaptureError::microphoneUnavailable));
    return {};
}

expected<void, CaptureFailure> PulseSoundServer::startMeeting(RecordingSource source, QList<int> zoomProcesses,
                                                              Callbacks callbacks)
{
    if (auto connected = connect(CaptureError::screenPermissionDenied); !connected)
        return connected;
    Connection &c = *m_connection;
    pa_threaded_mainloop_lock(c.loop.get());
    auto unlock = qScopeGuard([&c] { pa_threaded_mainloop_unlock(c.loop.get()); });
    c.meeting = std::move(callbacks);
    c.zoomProcesses = zoomProcesses;

    if (source == RecordingSource::zoom) {
        const auto inputs = c.ask<std::vector<pulse::SinkInputInfo>>([&](auto then) {
            pulse::requestSinkInputs(c.context.get(), [then](auto list) { then(std::move(list)); });
        });
        c.meetingSource = source;
        for (const pulse::SinkInputInfo &input : inputs.value_or(std::vector<pulse::SinkInputInfo>{}))
            c.attachZoomStream(input);
        // Streams Zoom opens from now on are attached as they appear.
        return {};
    }

    const auto server =
        c.ask<pulse::ServerInfo>([&](auto then) { pulse::requestServerInfo(c.context.get(), std::move(then)); });
    const auto sink = server ? c.ask<pulse::SinkInfo>([&](auto then) {
        pulse::requestSink(c.context.get(), server->defaultSink, std::move(then));
    })
                             : std::nullopt;
    if (!sink)
        return unexpected(CaptureFailure::other(tr("No sound output was found to record the meeting from.")));
    Connection::Stream *stream = c.open(Connection::Role::outputMonitor, sink->monitorSource, 2);
    if (!stream)
        return unexpected(CaptureFailure::of(CaptureError::screenPermissionDenied));
    if (auto flowing = c.waitUntilFlowing(stream); !flowing)
        return unexpected(flowing.error() == PA_ERR_ACCESS
                              ? CaptureFailure::of(CaptureError::screenPermissionDenied)
                              : CaptureFailure::other(tr("The computer's sound output can't be recorded: %1")
                                                          .arg(QString::fromUtf8(pa_strerror(flowing.error())))));
    c.followedSink = sink->name;
    c.meetingSource = source;
    return {};
}

void PulseSoundServer::stop()
{
    if (!m_connection)
        return;
    Connection &c = *m_connection;
    pa_threaded_mainloop_lock(c.loop.get());
    c.meetingSource.reset();
    while (!c.streams.empty())
        c.close(c.streams.back().get());
    c.flushMixer(true);
    c.meeting = {};
    c.microphone = {};
    pa_threaded_mainloop_unlock(c.loop.get());
    // After this the loop's thread has ended: no callback can run any more.
    pa_threaded_mainloop_stop(c.loop.get());
    pa_context_set_state_callback(c.context.get(), nullptr, nullptr);
    pa_context_set_subscribe_callback(c.context.get(), nullptr, nullptr);
    c.context.reset();
    c.loop.reset();
    m_connection.reset();
}

} // namespace qm
