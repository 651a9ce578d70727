#include "capture/wayland/picturecopy.h"

#include <cstring>

namespace qm::wayland {

std::optional<VideoFrame> copyPicture(const RawPicture &picture)
{
    const QRect whole(0, 0, picture.width, picture.height);
    const QRect area = picture.crop && picture.crop->isValid() ? (*picture.crop & whole) : whole;
    if (!picture.data || area.isEmpty())
        return std::nullopt;
    const std::size_t stride = picture.stride > 0 ? std::size_t(picture.stride) : std::size_t(picture.width) * 4;
    const std::size_t rowBytes = std::size_t(area.width()) * 4;
    const std::size_t first = std::size_t(area.y()) * stride + std::size_t(area.x()) * 4;
    // The last row need not be padded to the full stride.
    const std::size_t needed = first + std::size_t(area.height() - 1) * stride + rowBytes;
    if (stride < std::size_t(picture.width) * 4 || needed > picture.size)
        return std::nullopt;

    auto pixels = std::make_shared<std::vector<std::uint8_t>>(rowBytes * std::size_t(area.height()));
    std::uint8_t *out = pixels->data();
    const std::uint8_t *in = picture.data + first;
    for (int row = 0; row < area.height(); ++row, in += stride, out += rowBytes) {
        if (picture.order == PixelOrder::bgr) {
            std::memcpy(out, in, rowBytes);
            continue;
        }
        for (std::size_t i = 0; i < rowBytes; i += 4) {
            out[i] = in[i + 2];
            out[i + 1] = in[i + 1];
            out[i + 2] = in[i];
            out[i + 3] = in[i + 3];
        }
    }
    return VideoFrame{0, area.width(), area.height(), int(rowBytes), std::move(pixels), true};
}

} // namespace qm::wayland
