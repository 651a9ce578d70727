#pragma once

#include <QList>
#include <QObject>
#include <QString>

namespace qm {

// A sound input the user can record from. Monitors of outputs are never inputs.
struct InputDevice {
    QString name;        // the sound server's name for it: what the microphoneID setting stores
    QString description; // what the user sees ("Built-in Audio Analog Stereo")
    bool operator==(const InputDevice &) const = default;
};

// The inputs present now, kept current while devices come and go. Lives on the main thread; devicesChanged is
// emitted there whenever the list differs from the one before.
class InputDeviceList : public QObject {
    Q_OBJECT

public:
    using QObject::QObject;
    virtual QList<InputDevice> devices() const = 0;

Q_SIGNALS:
    void devicesChanged();
};

} // namespace qm
