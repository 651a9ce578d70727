#pragma once

#include "library/recording.h"
#include "library/transcript.h"

#include <QString>

#include <array>

namespace qm {

// The files a transcript can be exported as, in the order menus list them.
enum class TranscriptFormat { text, markdown, subRip, webVTT, json };

inline constexpr std::array<TranscriptFormat, 5> kTranscriptFormats{TranscriptFormat::text, TranscriptFormat::markdown,
                                                                    TranscriptFormat::subRip, TranscriptFormat::webVTT,
                                                                    TranscriptFormat::json};

// "txt", "md", "srt", "vtt", "json".
QString extension(TranscriptFormat format);
// The transcript in that format: plain text with timestamps, Markdown, SubRip, WebVTT, or the stored JSON with
// each segment's speaker replaced by its display name.
QString render(TranscriptFormat format, const Transcript &transcript, const Recording &recording);

// WebVTT cues, one per segment, speakers as voice spans; cues last at least half a second, as in srt().
QString webVTT(const Transcript &transcript);

} // namespace qm
