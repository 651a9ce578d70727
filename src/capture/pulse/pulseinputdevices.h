#pragma once

#include "capture/inputdevices.h"

#include <memory>

namespace qm {

// The sound server's input sources, monitors left out, followed through its change events on a main loop of
// its own ("app.quillmoor.devices"). Without a reachable server the list is empty; the connection is tried
// again every few seconds, so a server that starts later (or restarts) is picked up.
class PulseInputDevices final : public InputDeviceList {
    Q_OBJECT

public:
    explicit PulseInputDevices(QObject *parent = nullptr);
    ~PulseInputDevices() override;

    QList<InputDevice> devices() const override { return m_devices; }

    static constexpr int kRetryMs = 3000;

private:
    struct Watch;
    void connectToServer();
    void publish(const QList<InputDevice> &devices);
    void lost();

    std::unique_ptr<Watch> m_watch;
    QList<InputDevice> m_devices;
    bool m_retrying = false;
};

} // namespace qm
