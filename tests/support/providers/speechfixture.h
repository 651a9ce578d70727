#pragma once

#include <QString>

namespace qm::test {

// Writes `text` spoken by espeak-ng as AAC in MPEG-4 at `path`, with `channels` channels at `sampleRate`
// (a capture track is 48 kHz). With `seconds` > 0 the speech repeats until the file is about that long;
// long files are a minute of encoded speech copied over and over, so an hour costs no more than a minute.
// False (with a warning) when a tool is missing or fails.
bool writeSpeechTrack(const QString &path, const QString &text, int channels, double seconds = 0,
                      int sampleRate = 48000);

} // namespace qm::test
