#pragma once

#include "capture/mediasample.h"

#include <QRect>

#include <cstddef>
#include <cstdint>
#include <optional>

namespace qm::wayland {

// The byte order of a 32-bit pixel in a shared-memory buffer: BGRx/BGRA, or RGBx/RGBA (red first).
enum class PixelOrder { bgr, rgb };

// One picture as a PipeWire buffer holds it.
struct RawPicture {
    const std::uint8_t *data = nullptr; // the first row
    std::size_t size = 0;               // bytes readable from `data`
    int width = 0;                      // the negotiated size
    int height = 0;
    int stride = 0; // bytes per row; 0 means rows follow each other without padding
    PixelOrder order = PixelOrder::bgr;
    std::optional<QRect> crop; // the part to film (a window inside a larger buffer), in buffer pixels
};

// The picture's crop (clipped to the buffer; the whole buffer without one) as a frame in the BGRX layout the
// encoder takes, rows packed. Nothing when the crop is empty or the buffer holds fewer bytes than it claims.
std::optional<VideoFrame> copyPicture(const RawPicture &picture);

} // namespace qm::wayland
