#include "capture/wayland/pipewirestream.h"

#include "capture/wayland/picturecopy.h"

#include <pipewire/pipewire.h>
#include <spa/buffer/meta.h>
#include <spa/param/video/format-utils.h>
#include <spa/pod/builder.h>
#include <spa/utils/result.h>

#include <unistd.h>

#include <array>
#include <condition_variable>
#include <mutex>

namespace qm::wayland {

namespace {

struct DestroyLoop {
    void operator()(pw_thread_loop *loop) const { pw_thread_loop_destroy(loop); }
};
struct DestroyContext {
    void operator()(pw_context *context) const { pw_context_destroy(context); }
};
struct DisconnectCore {
    void operator()(pw_core *core) const { pw_core_disconnect(core); }
};
struct DestroyStream {
    void operator()(pw_stream *stream) const { pw_stream_destroy(stream); }
};

// Holds the thread loop's lock for a scope.
class Locked {
public:
    explicit Locked(pw_thread_loop *loop) : m_loop(loop) { pw_thread_loop_lock(m_loop); }
    ~Locked() { pw_thread_loop_unlock(m_loop); }
    Locked(const Locked &) = delete;
    Locked &operator=(const Locked &) = delete;

private:
    pw_thread_loop *m_loop;
};

const spa_pod *formatOffer(spa_pod_builder *builder)
{
    spa_rectangle size{1920, 1080};
    spa_rectangle smallest{1, 1};
    spa_rectangle largest{16384, 16384};
    spa_fraction rate{0, 1};
    spa_fraction slowest{0, 1};
    spa_fraction fastest{1000, 1};
    return static_cast<const spa_pod *>(spa_pod_builder_add_object(
        builder, SPA_TYPE_OBJECT_Format, SPA_PARAM_EnumFormat, SPA_FORMAT_mediaType, SPA_POD_Id(SPA_MEDIA_TYPE_video),
        SPA_FORMAT_mediaSubtype, SPA_POD_Id(SPA_MEDIA_SUBTYPE_raw), SPA_FORMAT_VIDEO_format,
        SPA_POD_CHOICE_ENUM_Id(5, SPA_VIDEO_FORMAT_BGRx, SPA_VIDEO_FORMAT_BGRx, SPA_VIDEO_FORMAT_BGRA,
                               SPA_VIDEO_FORMAT_RGBx, SPA_VIDEO_FORMAT_RGBA),
        SPA_FORMAT_VIDEO_size, SPA_POD_CHOICE_RANGE_Rectangle(&size, &smallest, &largest), SPA_FORMAT_VIDEO_framerate,
        SPA_POD_CHOICE_RANGE_Fraction(&rate, &slowest, &fastest)));
}

const spa_pod *metaRequest(spa_pod_builder *builder, spa_meta_type type, int size)
{
    return static_cast<const spa_pod *>(spa_pod_builder_add_object(builder, SPA_TYPE_OBJECT_ParamMeta, SPA_PARAM_Meta,
                                                                   SPA_PARAM_META_type, SPA_POD_Id(type),
                                                                   SPA_PARAM_META_size, SPA_POD_Int(size)));
}

} // namespace

struct PipeWireStream::Loop {
    std::unique_ptr<pw_thread_loop, DestroyLoop> loop;
    std::unique_ptr<pw_context, DestroyContext> context;
    std::unique_ptr<pw_core, DisconnectCore> core;
    std::unique_ptr<pw_stream, DestroyStream> stream;
    spa_hook coreListener{};
    spa_hook streamListener{};
    Callbacks callbacks;
    bool ended = false; // PipeWire's thread only

    std::mutex mutex;
    std::condition_variable negotiated;
    std::optional<QSize> size;
    PixelOrder order = PixelOrder::bgr;

    void end(const QString &reason)
    {
        if (ended)
            return;
        ended = true;
        if (callbacks.ended)
            callbacks.ended(reason);
    }

    void formatChanged(const spa_pod *param)
    {
        std::uint32_t mediaType = 0;
        std::uint32_t mediaSubtype = 0;
        spa_video_info_raw info{};
        if (!param || spa_format_parse(param, &mediaType, &mediaSubtype) < 0 || mediaType != SPA_MEDIA_TYPE_video ||
            mediaSubtype != SPA_MEDIA_SUBTYPE_raw || spa_format_video_raw_parse(param, &info) < 0)
            return;
        {
            const std::lock_guard lock(mutex);
            size = QSize(int(info.size.width), int(info.size.height));
            order = info.format == SPA_VIDEO_FORMAT_RGBx || info.format == SPA_VIDEO_FORMAT_RGBA ? PixelOrder::rgb
                                                                                                 : PixelOrder::bgr;
        }
        negotiated.notify_all();

        std::array<std::uint8_t, 1024> storage{};
        spa_pod_builder builder = SPA_POD_BUILDER_INIT(storage.data(), std::uint32_t(storage.size()));
        const int shared = (1 << SPA_DATA_MemFd) | (1 << SPA_DATA_MemPtr);
        const std::array<const spa_pod *, 3> params{
            static_cast<const spa_pod *>(spa_pod_builder_add_object(&builder, SPA_TYPE_OBJECT_ParamBuffers,
                                                                    SPA_PARAM_Buffers, SPA_PARAM_BUFFERS_dataType,
                                                                    SPA_POD_CHOICE_FLAGS_Int(shared))),
            metaRequest(&builder, SPA_META_Header, sizeof(spa_meta_header)),
            metaRequest(&builder, SPA_META_VideoCrop, sizeof(spa_meta_region)),
        };
        auto *list = const_cast<const spa_pod **>(params.data());
        pw_stream_update_params(stream.get(), list, std::uint32_t(params.size()));
    }

    void process()
    {
        pw_buffer *newest = nullptr;
        while (pw_buffer *next = pw_stream_dequeue_buffer(stream.get())) {
            if (newest)
                pw_stream_queue_buffer(stream.get(), newest);
            newest = next;
        }
        if (!newest)
            return;
        const spa_buffer *buffer = newest->buffer;
        const spa_data *data = buffer->n_datas > 0 ? &buffer->datas[0] : nullptr;
        if (data && data->data && data->chunk && data->chunk->size > 0 &&
            !(data->chunk->flags & SPA_CHUNK_FLAG_CORRUPTED) && data->chunk->offset < data->maxsize) {
            RawPicture picture;
            {
                const std::lock_guard lock(mutex);
                if (size) {
                    picture.width = size->width();
                    picture.height = size->height();
                }
                picture.order = order;
            }
            picture.data = static_cast<const std::uint8_t *>(data->data) + data->chunk->offset;
            picture.size = data->maxsize - data->chunk->offset;
            picture.stride = data->chunk->stride;
            const auto *crop = static_cast<const spa_meta_region *>(
                spa_buffer_find_meta_data(buffer, SPA_META_VideoCrop, sizeof(spa_meta_region)));
            if (crop && spa_meta_region_is_valid(crop))
                picture.crop = QRect(crop->region.position.x, crop->region.position.y, int(crop->region.size.width),
                                     int(crop->region.size.height));
            if (auto frame = copyPicture(picture); frame && callbacks.picture)
                callbacks.picture(std::move(*frame));
        }
        pw_stream_queue_buffer(stream.get(), newest);
    }

    static void onParamChanged(void *data, std::uint32_t id, const spa_pod *param)
    {
        if (id == SPA_PARAM_Format)
            static_cast<Loop *>(data)->formatChanged(param);
    }
    static void onProcess(void *data) { static_cast<Loop *>(data)->process(); }
    static void onStateChanged(void *data, pw_stream_state, pw_stream_state state, const char *error)
    {
        auto *self = static_cast<Loop *>(data);
        if (state == PW_STREAM_STATE_ERROR)
            self->end(QStringLiteral("the stream failed: ") + QString::fromUtf8(error ? error : "unknown error"));
        else if (state == PW_STREAM_STATE_UNCONNECTED)
            self->end(QStringLiteral("the stream was disconnected"));
    }
    static void onCoreError(void *data, std::uint32_t id, int, int result, const char *message)
    {
        if (id == PW_ID_CORE && result == -EPIPE)
            static_cast<Loop *>(data)->end(QStringLiteral("PipeWire closed the connection: ") +
                                           QString::fromUtf8(message ? message : ""));
    }
    static const pw_stream_events *streamEvents()
    {
        static const pw_stream_events events = [] {
            pw_stream_events e{};
            e.version = PW_VERSION_STREAM_EVENTS;
            e.state_changed = onStateChanged;
            e.param_changed = onParamChanged;
            e.process = onProcess;
            return e;
        }();
        return &events;
    }
    static const pw_core_events *coreEvents()
    {
        static const pw_core_events events = [] {
            pw_core_events e{};
            e.version = PW_VERSION_CORE_EVENTS;
            e.error = onCoreError;
            return e;
        }();
        return &events;
    }
};

PipeWireStream::PipeWireStream() : m_loop(std::make_unique<Loop>()) {}

PipeWireStream::~PipeWireStream()
{
    Loop &l = *m_loop;
    if (l.loop)
        pw_thread_loop_stop(l.loop.get());
    // With the loop stopped nothing runs on its thread; the listeners go first, since destroying a stream
    // reports it as disconnected.
    if (l.stream)
        spa_hook_remove(&l.streamListener);
    l.stream.reset();
    if (l.core)
        spa_hook_remove(&l.coreListener);
    l.core.reset();
    l.context.reset();
    l.loop.reset();
}

expected<std::unique_ptr<PipeWireStream>, QString> PipeWireStream::connect(int fd, std::uint32_t node,
                                                                           Callbacks callbacks)
{
    static std::once_flag initialised;
    std::call_once(initialised, [] { pw_init(nullptr, nullptr); });

    std::unique_ptr<PipeWireStream> self(new PipeWireStream);
    Loop &l = *self->m_loop;
    l.callbacks = std::move(callbacks);
    l.loop.reset(pw_thread_loop_new("quillmoor-pipewire", nullptr));
    if (!l.loop) {
        ::close(fd);
        return unexpected(QStringLiteral("no PipeWire thread loop"));
    }
    l.context.reset(pw_context_new(pw_thread_loop_get_loop(l.loop.get()), nullptr, 0));
    if (!l.context) {
        ::close(fd);
        return unexpected(QStringLiteral("no PipeWire context"));
    }
    if (pw_thread_loop_start(l.loop.get()) < 0) {
        ::close(fd);
        return unexpected(QStringLiteral("PipeWire's thread didn't start"));
    }

    const Locked locked(l.loop.get());
    l.core.reset(pw_context_connect_fd(l.context.get(), fd, nullptr, 0));
    if (!l.core)
        return unexpected(QStringLiteral("couldn't connect to PipeWire: ") + QString::fromUtf8(strerror(errno)));
        // The macro casts in C style.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wold-style-cast"
    pw_core_add_listener(l.core.get(), &l.coreListener, Loop::coreEvents(), &l);
#pragma GCC diagnostic pop

    l.stream.reset(pw_stream_new(l.core.get(), "Quillmoor screen",
                                 pw_properties_new(PW_KEY_MEDIA_TYPE, "Video", PW_KEY_MEDIA_CATEGORY, "Capture",
                                                   PW_KEY_MEDIA_ROLE, "Screen", nullptr)));
    if (!l.stream)
        return unexpected(QStringLiteral("couldn't create a PipeWire stream"));
    pw_stream_add_listener(l.stream.get(), &l.streamListener, Loop::streamEvents(), &l);

    std::array<std::uint8_t, 1024> storage{};
    spa_pod_builder builder = SPA_POD_BUILDER_INIT(storage.data(), std::uint32_t(storage.size()));
    const spa_pod *offer = formatOffer(&builder);
    const int result =
        pw_stream_connect(l.stream.get(), PW_DIRECTION_INPUT, node,
                          pw_stream_flags(PW_STREAM_FLAG_AUTOCONNECT | PW_STREAM_FLAG_MAP_BUFFERS), &offer, 1);
    if (result < 0)
        return unexpected(QStringLiteral("couldn't connect to the screen's stream: ") +
                          QString::fromUtf8(spa_strerror(result)));
    return self;
}

std::optional<QSize> PipeWireStream::negotiatedSize(std::chrono::milliseconds time)
{
    Loop &l = *m_loop;
    std::unique_lock lock(l.mutex);
    l.negotiated.wait_for(lock, time, [&] { return l.size.has_value(); });
    return l.size;
}

} // namespace qm::wayland
