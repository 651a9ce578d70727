#pragma once

#include "transcription/whisper/whispermodel.h"

#include <QString>

#include <cstdint>
#include <span>
#include <string>
#include <utility>
#include <vector>

// When each word was spoken, from where the decoder looked in the audio: the cross-attention of a few heads that
// follow the speech (the model's alignment heads) is normalised, smoothed and averaged into one text × time matrix,
// and the cheapest monotonic path through it (dynamic time warping) says which audio each token covers.
namespace qm::whisper {

constexpr double kSecondsPerPosition = 0.02; // one encoder position: two spectrogram frames

// The published alignment heads of the model with these sizes (tiny to large-v3-turbo, English-only or not). An
// unknown shape gets every head of the upper half of the decoder's layers. Large-v1 and -v2 share a shape; the
// second's heads are given.
std::vector<AlignmentHead> publishedAlignmentHeads(const Hyperparameters &hparams);

// Median of each run of 7 values along a row, the row's ends mirrored (without repeating the end value); rows
// of 3 values or fewer stay as they are. In place.
void medianOfSeven(float *row, std::size_t count);

// The cheapest path from the top-left to the bottom-right of `cost` ({rows, columns}, row-major), moving right,
// down or diagonally: each step's row and column, in order.
std::vector<std::pair<int, int>> warpingPath(std::span<const float> cost, int rows, int columns);

// A word as the tokenizer forms it: its raw text (a leading space included) and how many tokens it spans.
struct TokenWord {
    std::string text;
    int tokens = 0;
};

// Text tokens (no specials) cut into words: at complete UTF-8 characters, then, unless `spaceless` (languages
// written without spaces between words), joined until a token that starts with a space or is punctuation.
std::vector<TokenWord> splitWords(const std::vector<std::string> &vocabulary, std::span<const int> tokens,
                                  bool spaceless);

struct WordTiming {
    QString text; // trimmed
    double start = 0;
    double end = 0;
    int tokens = 0;          // text tokens it stands for, punctuation joined to it included
    bool heardStart = false; // the start is where the sound begins (fitToSound)
    bool heardEnd = false;
};

struct WindowWords {
    std::vector<WordTiming> words;
    double medianLength = 0; // of the words as aligned, at most 0.7 s
};

// Word times within a window, in seconds from its start. `weights` are {heads, rows, keys}: each alignment head's
// attention (a softmax over all `keys`) for the decoder's rows over [start sequence…, no timestamps, text…, end of
// text], the text starting at row `firstText`. Only the first `positions` keys hold audio. Punctuation is joined
// to its word; a word at a sentence's edge that fills a pause is cut back to twice the median word length.
WindowWords wordTimes(std::span<const float> weights, int heads, int rows, int keys, int positions, int firstText,
                      const std::vector<TokenWord> &words);

// One segment of a window: its times (from its timestamps, in seconds of the recording) and text tokens.
struct TimedSegment {
    double start = 0;
    double end = 0;
    int tokens = 0;
    std::vector<WordTiming> words;
};

// Sound, from the loudest sample of each 10-ms frame (LogMel::peaks).
//
// The level from which a frame counts as heard: twice that of the recording's quietest frames (its 5th
// percentile), and never below −60 dBFS.
float hearingLevel(std::span<const float> peaks);
// The first frame at or after `from` that starts 30 ms of heard frames; peaks.size() when there is none.
std::int64_t firstHeard(std::span<const float> peaks, std::int64_t from, float level);
// Fits words (in time order, between `after` and `before` seconds) to the stretch of sound each overlaps most:
// an edge that lies in a pause moves to the sound (the word took the pause for itself); an edge within the sound
// moves out to where it ends when that is at most half a second away and no neighbouring word is in between.
// Marks the edges so found. A word that overlaps no sound takes the nearest stretch between its neighbours that no
// word has, else shares the span of its nearer neighbour with sound. Stretches of sound are heard frames joined
// across gaps shorter than 0.15 s.
void fitToSound(std::vector<WordTiming> &words, std::span<const float> peaks, float level, double after, double before);

// Hands a window's words (times already in seconds of the recording) to its segments in token order and trims
// each segment to its first and last word. Where the sound didn't show a segment's edge, a first word that reaches
// far back into a pause after `lastSpeech` (the end of the speech before) is cut to twice the median word length,
// and the segment's timestamps win over a first or last word that overshoots them by half a second. Answers the
// end of the last word, or `lastSpeech` when there are none.
double placeWords(std::vector<TimedSegment> &segments, const WindowWords &window, double lastSpeech);

} // namespace qm::whisper
