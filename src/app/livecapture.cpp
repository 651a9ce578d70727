#include "app/livecapture.h"

#include "capture/hostclock.h"
#include "capture/proc/zoomprocesses.h"
#include "capture/pulse/pulsesoundserver.h"
#include "platform/linux/gnomeprivacy.h"

namespace qm {

namespace {

const MonotonicClock &hostClock()
{
    static const MonotonicClock clock;
    return clock;
}

// The engine's services must outlive it, so they are a base constructed before it and destroyed after it.
struct LiveServices {
    LiveServices() : sound(hostClock()) {}
    PulseSoundServer sound;
    ProcZoomProcesses processes;
    platform::GnomeMicrophonePrivacy privacy;
};

class LiveCaptureEngine final : private LiveServices, public CaptureEngine {
public:
    explicit LiveCaptureEngine(ScreenSource *screens) : CaptureEngine(sound, screens, processes, hostClock(), &privacy)
    {}
};

} // namespace

std::unique_ptr<CaptureEngine> makeLiveCaptureEngine(ScreenSource *screens)
{
    return std::make_unique<LiveCaptureEngine>(screens);
}

} // namespace qm
