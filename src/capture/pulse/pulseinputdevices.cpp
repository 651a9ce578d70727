#include "capture/pulse/pulseinputdevices.h"

#include <QTimer>

#include <pulse/pulseaudio.h>

namespace qm {

// Lives on the main thread; its callbacks run on the loop's thread and reach the owner only through queued
// calls, which Qt drops once the owner is gone. The destructor stops the loop before anything it uses is freed.
struct PulseInputDevices::Watch {
    explicit Watch(PulseInputDevices *receiver) : owner(receiver) {}

    ~Watch()
    {
        if (loop)
            pa_threaded_mainloop_stop(loop);
        if (context) {
            pa_context_disconnect(context);
            pa_context_unref(context);
        }
        if (loop)
            pa_threaded_mainloop_free(loop);
    }

    bool start()
    {
        loop = pa_threaded_mainloop_new();
        if (!loop)
            return false;
        pa_threaded_mainloop_set_name(loop, "app.quillmoor.devices");
        context = pa_context_new(pa_threaded_mainloop_get_api(loop), "Quillmoor");
        if (!context)
            return false;
        pa_context_set_state_callback(context, &Watch::stateChanged, this);
        pa_context_set_subscribe_callback(context, &Watch::serverChanged, this);
        return pa_context_connect(context, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) >= 0 &&
               pa_threaded_mainloop_start(loop) >= 0;
    }

    // --- on the loop's thread ---

    static void stateChanged(pa_context *context, void *data)
    {
        auto *self = static_cast<Watch *>(data);
        switch (pa_context_get_state(context)) {
        case PA_CONTEXT_READY:
            if (pa_operation *subscribed = pa_context_subscribe(context, PA_SUBSCRIPTION_MASK_SOURCE, nullptr, nullptr))
                pa_operation_unref(subscribed);
            self->list();
            break;
        case PA_CONTEXT_FAILED:
        case PA_CONTEXT_TERMINATED:
            QMetaObject::invokeMethod(self->owner, &PulseInputDevices::lost, Qt::QueuedConnection);
            break;
        default:
            break;
        }
    }

    static void serverChanged(pa_context *, pa_subscription_event_type_t, std::uint32_t, void *data)
    {
        // Any source added, removed or changed: the whole list is small, so it is simply read again.
        static_cast<Watch *>(data)->list();
    }

    void list()
    {
        // Each listing collects into its own list: a change event may ask for a new one before the last answers.
        struct Listing {
            PulseInputDevices *owner;
            QList<InputDevice> devices;
        };
        auto *listing = new Listing{owner, {}};
        pa_operation *operation = pa_context_get_source_info_list(
            context,
            [](pa_context *, const pa_source_info *info, int eol, void *data) {
                auto *current = static_cast<Listing *>(data);
                if (eol == 0 && info) {
                    if (info->monitor_of_sink == PA_INVALID_INDEX)
                        current->devices.append({QString::fromUtf8(info->name), QString::fromUtf8(info->description)});
                    return;
                }
                const std::unique_ptr<Listing> done(current);
                // A failed listing (eol < 0) publishes nothing rather than an empty list.
                if (eol > 0) {
                    QMetaObject::invokeMethod(
                        done->owner, [owner = done->owner, devices = done->devices] { owner->publish(devices); },
                        Qt::QueuedConnection);
                }
            },
            listing);
        if (!operation) {
            delete listing;
            return;
        }
        pa_operation_unref(operation);
    }

    PulseInputDevices *owner;
    pa_threaded_mainloop *loop = nullptr;
    pa_context *context = nullptr;
};

PulseInputDevices::PulseInputDevices(QObject *parent) : InputDeviceList(parent)
{
    connectToServer();
}

PulseInputDevices::~PulseInputDevices() = default;

void PulseInputDevices::connectToServer()
{
    m_watch = std::make_unique<Watch>(this);
    if (!m_watch->start())
        lost();
}

void PulseInputDevices::publish(const QList<InputDevice> &devices)
{
    if (devices == m_devices)
        return;
    m_devices = devices;
    Q_EMIT devicesChanged();
}

void PulseInputDevices::lost()
{
    publish({});
    if (m_retrying)
        return;
    m_retrying = true;
    QTimer::singleShot(kRetryMs, this, [this] {
        m_retrying = false;
        m_watch.reset();
        connectToServer();
    });
}

} // namespace qm
