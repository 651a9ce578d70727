#pragma once

#include "capture/mediasample.h"
#include "library/result.h"

#include <QSize>
#include <QString>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

namespace qm::wayland {

// Pictures of one screen-cast node, read over a PipeWire connection of its own on a pw_thread_loop.
//
// The stream offers BGRx, BGRA, RGBx and RGBA in shared memory (MemFd or MemPtr) at any size and any
// frame rate from 0/1 up, since screen casts are variable-rate; it asks for the VideoCrop metadata, so that a
// window inside a larger buffer is cut out. Each process wakeup drains to the newest buffer and hands that
// one on as a packed BGRX frame (`pts` left 0). Buffers without picture data (cursor-only updates) are skipped.
//
// `picture` and `ended` run on PipeWire's thread and must not call back into the stream; `ended` runs at most
// once, when the stream errors or the producer disconnects. After the destructor returns neither runs again.
class PipeWireStream {
public:
    struct Callbacks {
        std::function<void(VideoFrame)> picture;
        std::function<void(QString)> ended; // a reason for the log
    };

    // Takes ownership of `fd` (a PipeWire connection, as from OpenPipeWireRemote) and connects to `node`.
    static expected<std::unique_ptr<PipeWireStream>, QString> connect(int fd, std::uint32_t node, Callbacks callbacks);
    ~PipeWireStream();

    PipeWireStream(const PipeWireStream &) = delete;
    PipeWireStream &operator=(const PipeWireStream &) = delete;

    // The negotiated picture size, waiting up to `time` for the negotiation; nothing if it hasn't finished.
    std::optional<QSize> negotiatedSize(std::chrono::milliseconds time);

private:
    struct Loop;
    PipeWireStream();
    std::unique_ptr<Loop> m_loop;
};

} // namespace qm::wayland
