#pragma once

namespace qm {

// The desktop's own "no application may use the microphone" switch, apart from whatever the sound server
// allows. A capture that would record the microphone doesn't start while it is on.
class MicrophonePrivacy {
public:
    virtual ~MicrophonePrivacy() = default;
    // Read afresh on every call, from any thread; returns promptly. A switch that can't be read is off.
    virtual bool microphoneDisabled() const = 0;
};

} // namespace qm
