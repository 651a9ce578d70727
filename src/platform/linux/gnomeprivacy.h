#pragma once

#include "capture/microphoneprivacy.h"

namespace qm::platform {

// GNOME's advisory privacy key org.gnome.desktop.privacy disable-microphone, read through GSettings (dconf in a
// GNOME session; whatever GSETTINGS_BACKEND names otherwise). Off when the schema or the key isn't installed.
class GnomeMicrophonePrivacy : public MicrophonePrivacy {
public:
    bool microphoneDisabled() const override;
};

} // namespace qm::platform
