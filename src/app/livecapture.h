#pragma once

#include "capture/captureengine.h"

#include <memory>

namespace qm {

// A capture engine on this computer's real services: the sound server, Zoom's processes in /proc, the host's
// monotonic clock and the given screen source (none: video can't be filmed).
std::unique_ptr<CaptureEngine> makeLiveCaptureEngine(ScreenSource *screens);

} // namespace qm
