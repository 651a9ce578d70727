#pragma once

#include <QList>
#include <QString>

namespace qm::test {

// Writes `text` spoken by espeak-ng as AAC in MPEG-4 at `path`, with `channels` channels at `sampleRate`
// (a capture track is 48 kHz). With `seconds` > 0 the speech repeats until the file is about that long;
// long files are a minute of encoded speech copied over and over, so an hour costs no more than a minute.
// False (with a warning) when a tool is missing or fails.
bool writeSpeechTrack(const QString &path, const QString &text, int channels, double seconds = 0,
                      int sampleRate = 48000);

// One sentence of placed speech: `pause` seconds of silence, then `text` in espeak-ng's `voice`. writePlacedSpeech()
// fills in when the sound starts and ends.
struct PlacedSpeech {
    double pause = 0;
    QString text;
    QString voice = QStringLiteral("en-us");
    double start = 0;
    double end = 0;
};

// Writes the pieces one after another as 16 kHz mono AAC in MPEG-4 at `path`, followed by `trailing` seconds of
// silence. espeak-ng's own silence around each piece is cut off first, so each piece sounds exactly from its
// `start` to its `end`. False (with a warning) when a tool is missing or fails.
bool writePlacedSpeech(const QString &path, QList<PlacedSpeech> &pieces, double trailing = 0);

} // namespace qm::test
