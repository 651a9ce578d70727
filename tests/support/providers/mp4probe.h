#pragma once

#include <QByteArray>

#include <optional>

namespace qm::test {

// What a provider would learn from an uploaded MPEG-4 audio file.
struct Mp4Audio {
    QByteArray sampleEntry; // "mp4a" for AAC
    int objectType = 0;     // 0x40: MPEG-4 audio (AAC)
    int channels = 0;
    int sampleRate = 0;
    double seconds = 0;
    qsizetype mediaBytes = 0; // size of the media data box
};

// Walks the box structure of a whole (not fragmented) MPEG-4 file and reads its first sound track.
// Nothing when the bytes are not such a file or have no sound track.
std::optional<Mp4Audio> probeMp4Audio(const QByteArray &file);

// True when `audio` is AAC in MPEG-4 with a bit rate a speech encoding could have (2 to 40 kB per second).
bool plausibleSpeech(const Mp4Audio &audio);

} // namespace qm::test
