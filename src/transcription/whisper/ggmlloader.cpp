#include "transcription/whisper/kernels.h"
#include "transcription/whisper/whispermodel.h"

#include <QFile>

#include <algorithm>
#include <cstring>
#include <limits>

namespace qm::whisper {

namespace {

constexpr std::uint32_t kMagic = 0x67676d6c;
constexpr int kBlock = 32;

enum TensorType : std::int32_t { f32 = 0, f16 = 1, q4_0 = 2, q4_1 = 3, q5_0 = 6, q5_1 = 7, q8_0 = 8 };

ModelError failure(const QString &path, const QString &why)
{
    return ModelError{QStringLiteral("The model file %1 can't be used: %2").arg(path, why)};
}

// Reads little-endian values from the mapped file, never past its end.
class Cursor {
public:
    Cursor(const uchar *data, std::size_t size) : m_data(data), m_size(size) {}

    std::size_t remaining() const { return m_size - m_offset; }
    bool atEnd() const { return m_offset == m_size; }

    bool take(void *out, std::size_t bytes)
    {
        if (bytes > remaining())
            return false;
        if (bytes > 0)
            std::memcpy(out, m_data + m_offset, bytes);
        m_offset += bytes;
        return true;
    }
    bool int32(std::int32_t &out) { return take(&out, sizeof out); }
    const uchar *skip(std::size_t bytes)
    {
        if (bytes > remaining())
            return nullptr;
        const uchar *at = m_data + m_offset;
        m_offset += bytes;
        return at;
    }

private:
    const uchar *m_data;
    std::size_t m_size;
    std::size_t m_offset = 0;
};

std::uint16_t half(const uchar *p)
{
    return std::uint16_t(p[0] | (p[1] << 8));
}

// Bytes one block of 32 weights occupies, or 0 for a type this reader doesn't know.
std::size_t blockBytes(std::int32_t type)
{
    switch (type) {
    case q4_0:
        return 2 + 16;
    case q4_1:
        return 4 + 16;
    case q5_0:
        return 2 + 4 + 16;
    case q5_1:
        return 4 + 4 + 16;
    case q8_0:
        return 2 + 32;
    default:
        return 0;
    }
}

// One block of 32 quantized weights to floats. The 4-bit and 5-bit forms keep the low nibble of byte j for
// weight j and the high nibble for weight j + 16; the 5-bit forms take the fifth bit from a 32-bit mask.
void dequantizeBlock(std::int32_t type, const uchar *block, float *out)
{
    const float scale = kernels::halfToFloat(half(block));
    switch (type) {
    case q8_0:
        for (int j = 0; j < kBlock; ++j)
            out[j] = scale * float(static_cast<std::int8_t>(block[2 + j]));
        return;
    case q4_0:
    case q4_1: {
        const bool offset = type == q4_1;
        const float minimum = offset ? kernels::halfToFloat(half(block + 2)) : 0.0f;
        const uchar *q = block + (offset ? 4 : 2);
        for (int j = 0; j < 16; ++j) {
            const int low = q[j] & 0x0f, high = q[j] >> 4;
            out[j] = offset ? float(low) * scale + minimum : float(low - 8) * scale;
            out[j + 16] = offset ? float(high) * scale + minimum : float(high - 8) * scale;
        }
        return;
    }
    case q5_0:
    case q5_1: {
        const bool offset = type == q5_1;
        const float minimum = offset ? kernels::halfToFloat(half(block + 2)) : 0.0f;
        const uchar *maskBytes = block + (offset ? 4 : 2);
        const std::uint32_t mask = std::uint32_t(maskBytes[0]) | std::uint32_t(maskBytes[1]) << 8 |
                                   std::uint32_t(maskBytes[2]) << 16 | std::uint32_t(maskBytes[3]) << 24;
        const uchar *q = maskBytes + 4;
        for (int j = 0; j < 16; ++j) {
            const int low = (q[j] & 0x0f) | int((mask >> j) & 1u) << 4;
            const int high = (q[j] >> 4) | int((mask >> (j + 16)) & 1u) << 4;
            out[j] = offset ? float(low) * scale + minimum : float(low - 16) * scale;
            out[j + 16] = offset ? float(high) * scale + minimum : float(high - 16) * scale;
        }
        return;
    }
    default:
        return;
    }
}

bool plausible(const Hyperparameters &h)
{
    auto within = [](int value, int most) { return value > 0 && value <= most; };
    return within(h.vocabularySize, 1 << 20) && within(h.audioContext, 1 << 16) && within(h.audioWidth, 1 << 14) &&
           within(h.audioHeads, 256) && within(h.audioLayers, 256) && within(h.textContext, 1 << 16) &&
           within(h.textWidth, 1 << 14) && within(h.textHeads, 256) && within(h.textLayers, 256) &&
           within(h.melBins, 1024) && h.audioWidth % h.audioHeads == 0 && h.textWidth % h.textHeads == 0;
}

} // namespace

expected<Model, ModelError> loadGgmlModel(const QString &filePath)
{
    QFile file(filePath);
    if (!file.open(QIODevice::ReadOnly))
        return unexpected(failure(filePath, file.errorString()));
    const qint64 size = file.size();
    const uchar *data = size > 0 ? file.map(0, size) : nullptr;
    if (!data)
        return unexpected(failure(filePath, QStringLiteral("it is empty or can't be read.")));
    Cursor in(data, std::size_t(size));
    const auto truncated = [&] { return unexpected(failure(filePath, QStringLiteral("it is cut short."))); };

    std::uint32_t magic = 0;
    if (!in.take(&magic, sizeof magic) || magic != kMagic)
        return unexpected(failure(filePath, QStringLiteral("it isn't a speech model in the ggml format.")));

    Model model;
    std::int32_t header[11] = {};
    if (!in.take(header, sizeof header))
        return truncated();
    Hyperparameters &h = model.hparams;
    h = Hyperparameters{header[0], header[1], header[2], header[3], header[4],
                        header[5], header[6], header[7], header[8], header[9]};
    if (!plausible(h))
        return unexpected(failure(filePath, QStringLiteral("its sizes are not those of a speech model.")));

    std::int32_t filterRows = 0, filterColumns = 0;
    if (!in.int32(filterRows) || !in.int32(filterColumns))
        return truncated();
    if (filterRows < 0 || filterColumns < 0 || (filterRows > 0 && (filterRows != h.melBins || filterColumns != 201)))
        return unexpected(failure(filePath, QStringLiteral("its mel filters have the wrong size.")));
    const std::size_t filterCount = std::size_t(filterRows) * std::size_t(filterColumns);
    if (filterCount * sizeof(float) > in.remaining())
        return truncated();
    model.melFilters.resize(filterCount);
    in.take(model.melFilters.data(), filterCount * sizeof(float));

    std::int32_t tokenCount = 0;
    if (!in.int32(tokenCount))
        return truncated();
    if (tokenCount < 0 || tokenCount > h.vocabularySize)
        return unexpected(failure(filePath, QStringLiteral("its vocabulary is damaged.")));
    if (std::size_t(tokenCount) * 4 > in.remaining())
        return truncated();
    model.vocabulary.reserve(std::size_t(tokenCount));
    for (std::int32_t t = 0; t < tokenCount; ++t) {
        std::uint32_t length = 0;
        if (!in.take(&length, sizeof length))
            return truncated();
        const uchar *bytes = in.skip(length);
        if (!bytes)
            return truncated();
        model.vocabulary.emplace_back(reinterpret_cast<const char *>(bytes), length);
    }

    while (!in.atEnd()) {
        std::int32_t dimensions = 0, nameLength = 0, type = 0;
        if (!in.int32(dimensions) || !in.int32(nameLength) || !in.int32(type))
            return truncated();
        if (dimensions < 1 || dimensions > 4 || nameLength < 1 || nameLength > 256)
            return unexpected(failure(filePath, QStringLiteral("a weight's header is damaged.")));
        std::int64_t extents[4] = {1, 1, 1, 1};
        std::uint64_t count = 1;
        for (int d = 0; d < dimensions; ++d) {
            std::int32_t extent = 0;
            if (!in.int32(extent))
                return truncated();
            // Every weight is stored in full, so no honest count exceeds the file's own size: a larger one is a
            // damaged header or a file that lost its end, and is refused before anything is allocated.
            if (extent < 1)
                return unexpected(failure(filePath, QStringLiteral("a weight's size is damaged.")));
            if (count * std::uint64_t(extent) > std::uint64_t(size))
                return unexpected(failure(filePath, QStringLiteral("it is cut short or damaged.")));
            extents[d] = extent;
            count *= std::uint64_t(extent);
        }
        const uchar *nameBytes = in.skip(std::size_t(nameLength));
        if (!nameBytes)
            return truncated();
        std::string name(reinterpret_cast<const char *>(nameBytes), std::size_t(nameLength));

        std::uint64_t bytes = 0;
        if (type == f32 || type == f16) {
            bytes = count * (type == f32 ? 4 : 2);
        } else if (const std::size_t perBlock = blockBytes(type)) {
            if (extents[0] % kBlock != 0)
                return unexpected(failure(filePath, QStringLiteral("a quantized weight has a partial block.")));
            bytes = count / kBlock * perBlock;
        } else {
            return unexpected(
                failure(filePath, QStringLiteral("it uses a weight type (%1) this version can't read.").arg(type)));
        }
        const uchar *raw = in.skip(std::size_t(bytes));
        if (!raw)
            return truncated();

        Tensor tensor;
        for (int d = dimensions - 1; d >= 0; --d)
            tensor.shape.push_back(extents[d]);
        // The convolution biases are stored as {d, 1}; the network wants a plain vector.
        if (tensor.shape.size() == 2 && tensor.shape[1] == 1 && name.find("conv") != std::string::npos)
            tensor.shape.pop_back();
        tensor.values.resize(count);
        float *out = tensor.values.data();
        if (type == f32) {
            std::memcpy(out, raw, std::size_t(bytes));
        } else if (type == f16) {
            for (std::uint64_t i = 0; i < count; ++i)
                out[i] = kernels::halfToFloat(half(raw + 2 * i));
        } else {
            const std::size_t perBlock = blockBytes(type);
            for (std::uint64_t b = 0; b < count / kBlock; ++b)
                dequantizeBlock(type, raw + b * perBlock, out + b * kBlock);
        }
        model.tensors.insert_or_assign(std::move(name), std::move(tensor));
    }
    if (model.tensors.empty())
        return unexpected(failure(filePath, QStringLiteral("it holds no weights.")));
    return model;
}

} // namespace qm::whisper
