#include "support/providers/mp4probe.h"

#include <QList>
#include <QtEndian>

namespace qm::test {

namespace {

struct Box {
    QByteArray type;
    qsizetype payload = 0; // offset of the payload in the file
    qsizetype end = 0;
};

quint32 u32(const QByteArray &data, qsizetype at)
{
    return qFromBigEndian<quint32>(data.constData() + at);
}
quint64 u64(const QByteArray &data, qsizetype at)
{
    return qFromBigEndian<quint64>(data.constData() + at);
}

// The boxes directly inside [from, to).
QList<Box> children(const QByteArray &data, qsizetype from, qsizetype to)
{
    QList<Box> boxes;
    qsizetype at = from;
    while (at + 8 <= to) {
        quint64 size = u32(data, at);
        qsizetype header = 8;
        if (size == 1) {
            if (at + 16 > to)
                return {};
            size = u64(data, at + 8);
            header = 16;
        } else if (size == 0) {
            size = quint64(to - at);
        }
        if (size < quint64(header) || at + qsizetype(size) > to)
            return {};
        boxes.append({data.mid(at + 4, 4), at + header, at + qsizetype(size)});
        at += qsizetype(size);
    }
    return at == to ? boxes : QList<Box>{};
}

std::optional<Box> child(const QByteArray &data, const Box &parent, const char *type, qsizetype skip = 0)
{
    for (const Box &box : children(data, parent.payload + skip, parent.end)) {
        if (box.type == type)
            return box;
    }
    return std::nullopt;
}

// An MPEG-4 descriptor's length: up to four bytes of seven bits each.
qsizetype descriptorLength(const QByteArray &data, qsizetype &at)
{
    qsizetype length = 0;
    for (int i = 0; i < 4 && at < data.size(); ++i) {
        const auto byte = quint8(data.at(at++));
        length = (length << 7) | (byte & 0x7f);
        if (!(byte & 0x80))
            break;
    }
    return length;
}

// Reads the elementary stream descriptor: the object type, and the AAC configuration's channels and rate
// (the sample entry's own fields are fixed placeholders in MPEG-4 files).
void readEsds(const QByteArray &data, const Box &esds, Mp4Audio &audio)
{
    qsizetype at = esds.payload + 4; // version and flags
    if (at >= esds.end || quint8(data.at(at++)) != 0x03)
        return;
    descriptorLength(data, at);
    at += 2; // ES_ID
    const auto flags = quint8(data.at(at++));
    if (flags & 0x80)
        at += 2;
    if (flags & 0x40)
        at += 1 + quint8(data.at(at));
    if (flags & 0x20)
        at += 2;
    if (at + 2 >= esds.end || quint8(data.at(at++)) != 0x04)
        return;
    descriptorLength(data, at);
    audio.objectType = quint8(data.at(at));
    at += 13; // object type, stream type, buffer size, maximum and average bit rates
    if (at + 3 >= esds.end || quint8(data.at(at++)) != 0x05)
        return;
    descriptorLength(data, at);
    const auto b0 = quint8(data.at(at));
    const auto b1 = quint8(data.at(at + 1));
    static constexpr int rates[] = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                    22050, 16000, 12000, 11025, 8000,  7350};
    const int rateIndex = ((b0 & 0x07) << 1) | (b1 >> 7);
    if (rateIndex < 13)
        audio.sampleRate = rates[rateIndex];
    audio.channels = (b1 >> 3) & 0x0f;
}

} // namespace

std::optional<Mp4Audio> probeMp4Audio(const QByteArray &file)
{
    const Box whole{"file", 0, file.size()};
    const QList<Box> top = children(file, 0, file.size());
    if (top.isEmpty() || top.first().type != "ftyp")
        return std::nullopt;
    const auto moov = child(file, whole, "moov");
    const auto mdat = child(file, whole, "mdat");
    if (!moov || !mdat)
        return std::nullopt;
    for (const Box &trak : children(file, moov->payload, moov->end)) {
        if (trak.type != "trak")
            continue;
        const auto mdia = child(file, trak, "mdia");
        const auto hdlr = mdia ? child(file, *mdia, "hdlr") : std::nullopt;
        if (!hdlr || hdlr->payload + 12 > hdlr->end || file.mid(hdlr->payload + 8, 4) != "soun")
            continue;
        const auto mdhd = child(file, *mdia, "mdhd");
        const auto minf = child(file, *mdia, "minf");
        const auto stbl = minf ? child(file, *minf, "stbl") : std::nullopt;
        const auto stsd = stbl ? child(file, *stbl, "stsd") : std::nullopt;
        if (!mdhd || !stsd)
            return std::nullopt;

        Mp4Audio audio;
        const bool v1 = file.at(mdhd->payload) == 1;
        const quint32 timescale = u32(file, mdhd->payload + (v1 ? 20 : 12));
        const quint64 duration = v1 ? u64(file, mdhd->payload + 24) : u32(file, mdhd->payload + 16);
        audio.seconds = timescale ? double(duration) / timescale : 0;

        // stsd: version/flags, entry count, then the first sample entry box.
        const QList<Box> entries = children(file, stsd->payload + 8, stsd->end);
        if (entries.isEmpty())
            return std::nullopt;
        const Box &entry = entries.first();
        audio.sampleEntry = entry.type;
        if (const auto esds = child(file, entry, "esds", 28))
            readEsds(file, *esds, audio);
        audio.mediaBytes = mdat->end - mdat->payload;
        return audio;
    }
    return std::nullopt;
}

bool plausibleSpeech(const Mp4Audio &audio)
{
    if (audio.sampleEntry != "mp4a" || audio.objectType != 0x40 || audio.seconds <= 0)
        return false;
    const double bytesPerSecond = double(audio.mediaBytes) / audio.seconds;
    return bytesPerSecond >= 2000 && bytesPerSecond <= 40000;
}

} // namespace qm::test
