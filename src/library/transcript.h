#pragma once

#include <QDateTime>
#include <QList>
#include <QMap>
#include <QString>
#include <QStringList>
#include <QUuid>

#include <optional>

namespace qm {

struct Recording;

// One spoken word with its times, for subtitles cut at word boundaries and for following playback word by word.
struct TranscriptWord {
    double start = 0; // seconds from the start of the recording
    double end = 0;
    QString text; // without surrounding spaces; punctuation stays with its word

    bool operator==(const TranscriptWord &) const = default;
};

struct TranscriptSegment {
    QUuid id = QUuid::createUuid();
    double start = 0; // seconds from the start of the recording
    double end = 0;
    std::optional<QString> speaker; // the engine's label; absent when speakers were not detected
    QString text;
    QList<TranscriptWord> words = {}; // in time order; empty when the engine reported no word times

    bool operator==(const TranscriptSegment &) const = default;
};

// A recording's transcript. Speakers are renamed only through `speakerNames`, never by editing segments,
// so every export can be rebuilt from this value alone.
struct Transcript {
    QString engine;
    std::optional<QString> model;
    std::optional<QString> language;
    QDateTime createdAt;
    QList<TranscriptSegment> segments;
    QMap<QString, QString> speakerNames;

    // Distinct speaker labels in order of first appearance.
    QStringList speakers() const;
    // The display name for a label: the user's name for it when that is not blank, else the label.
    std::optional<QString> nameFor(const std::optional<QString> &label) const;

    QString plainText(bool timestamps) const;
    QString markdown(const Recording &recording) const;
    // One cue per segment; a segment with words is cut at word boundaries into cues of at most 7 s and two
    // lines of 42 characters.
    QString srt() const;

    bool operator==(const Transcript &) const = default;
};

inline constexpr const char *kTranscriptFileName = "transcript.json";
inline constexpr const char *kTranscriptMarkdownFileName = "Transcript.md";
inline constexpr const char *kTranscriptTextFileName = "Transcript.txt";

// True when the first strong character is from a right-to-left script (Hebrew, Arabic and related).
bool isRightToLeft(const QString &text);

} // namespace qm
