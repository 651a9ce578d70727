#pragma once

#include "transcription/whisper/tokens.h"

#include <span>
#include <string>
#include <vector>

namespace qm::whisper {

constexpr double kSecondsPerTimestamp = 0.02;
constexpr int kMaxInitialTimestamp = 50; // the first timestamp is at most 1.00 s
constexpr double kCompressionRatioLimit = 2.4;
constexpr double kLogProbabilityLimit = -1.0;
constexpr double kNoSpeechLimit = 0.6;

// Everything the rules need to know about the tokens sampled so far in a window.
struct RuleInput {
    const SpecialTokens &specials;
    std::span<const int> suppressed; // never produced (non-speech symbols and the task tokens)
    std::span<const int> sampled;    // tokens chosen so far after the initial sequence
};

// Sets the logits of tokens that may not come next to −∞, in this order: blank and end of text at the first
// step; the suppressed tokens; then the timestamp rules: timestamps come in pairs (after a lone timestamp,
// only another timestamp or the end; after a pair, no timestamp), never decrease and never repeat a closed
// segment's end, the first token is a timestamp of at most 1.00 s, and when the timestamps together are more
// probable than the best text token, a timestamp must come.
void applyRules(std::span<float> logits, const RuleInput &input);

// The outcome of decoding one window at one temperature.
struct WindowResult {
    std::vector<int> tokens;          // sampled, without the end of text
    double averageLogProbability = 0; // Σ log p over tokens and end of text, divided by (tokens + 1)
    double noSpeechProbability = 0;
    double compressionRatio = 0; // text's UTF-8 length over its zlib-compressed length
    double temperature = 0;
};

double compressionRatio(const QString &text);
// A result too repetitive or too improbable to keep: decode again at the next temperature. Not for a
// window the model judges silent.
bool needsFallback(const WindowResult &result);
// The model judges the window silent and was not confident in what it wrote.
bool isSilence(const WindowResult &result);

// Text between two timestamps, in seconds from the start of the recording.
struct TimedTokens {
    double start = 0;
    double end = 0;
    std::vector<int> tokens; // the timestamps included
};

struct WindowSegments {
    std::vector<TimedTokens> segments;
    int advance = 0; // frames to move the window by
};

// Splits a window's tokens at consecutive timestamp pairs. When the tokens end on a lone timestamp (or have no
// pairs), the whole window is consumed; otherwise the next window starts at the last closed segment's end.
// `offset` is the window's start in seconds, `frames` how many of its frames carry audio.
WindowSegments splitWindow(std::span<const int> tokens, const SpecialTokens &specials, double offset, int frames);

} // namespace qm::whisper
