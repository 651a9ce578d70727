#include "transcription/whisper/wordtiming.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <optional>
#include <string_view>
#include <tuple>
#include <utility>

namespace qm::whisper {

namespace {

constexpr std::size_t kMedianWidth = 7;
constexpr double kLongestMedian = 0.7;
constexpr float kQuietestHeard = 1e-3f;   // −60 dBFS
constexpr std::int64_t kHeardRun = 3;     // frames: longer than a click, shorter than any sound of speech
constexpr std::int64_t kPauseFrames = 15; // 0.15 s unheard: longer than the silences inside words
constexpr double kLongestReach = 0.5;     // seconds a word may grow by towards sound just beside it
constexpr double kFramesPerSecond = 100;

// Punctuation that belongs to the word after it, and to the word before it.
constexpr std::string_view kLeadingMarks = "\"'\u201C\u00BF([{-";
constexpr std::string_view kTrailingMarks = "\"'.\u3002,\uFF0C!\uFF01?\uFF1F:\uFF1A\u201D)]}\u3001";
constexpr std::string_view kSentenceEnds = ".\u3002!\uFF01?\uFF1F";
constexpr std::string_view kAsciiPunctuation = "!\"#$%&'()*+,-./:;<=>?@[\\]^_`{|}~";

// The tokenizer's tests are "is one of these marks" written as "is part of this text", so a run such as "?!"
// counts and an empty text always does.
bool within(std::string_view marks, std::string_view text)
{
    return marks.find(text) != std::string_view::npos;
}

std::string_view stripped(std::string_view text)
{
    const auto space = [](char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; };
    while (!text.empty() && space(text.front()))
        text.remove_prefix(1);
    while (!text.empty() && space(text.back()))
        text.remove_suffix(1);
    return text;
}

// The bytes end on a whole character, or on a byte that can't start one (which no later byte would complete).
bool endsOnCharacter(const std::string &bytes)
{
    std::size_t lead = bytes.size();
    while (lead > 0 && bytes.size() - lead < 4 && (static_cast<unsigned char>(bytes[lead - 1]) & 0xC0) == 0x80)
        --lead;
    if (lead == 0)
        return true;
    const auto first = static_cast<unsigned char>(bytes[lead - 1]);
    const std::size_t length = first < 0x80                    ? 1
                               : first >= 0xF0 && first < 0xF8 ? 4
                               : first >= 0xE0                 ? 3
                               : first >= 0xC0                 ? 2
                                                               : 0;
    return length == 0 || bytes.size() - (lead - 1) >= length;
}

double median(std::vector<double> values)
{
    if (values.empty())
        return 0;
    const std::size_t middle = values.size() / 2;
    std::nth_element(values.begin(), values.begin() + std::ptrdiff_t(middle), values.end());
    if (values.size() % 2 == 1)
        return values[middle];
    return (values[middle] + *std::max_element(values.begin(), values.begin() + std::ptrdiff_t(middle))) / 2;
}

struct RawWord {
    std::string text;
    double start = 0;
    double end = 0;
    int tokens = 0;
};

// Leading marks go to the word after them, trailing marks to the word before; each keeps its own word's times.
void joinPunctuation(std::vector<RawWord> &words)
{
    if (words.size() < 2)
        return;
    for (std::size_t i = words.size() - 1, j = words.size() - 1; i-- > 0;) {
        RawWord &before = words[i];
        if (!before.text.empty() && before.text.front() == ' ' && within(kLeadingMarks, stripped(before.text))) {
            words[j].text = before.text + words[j].text;
            words[j].tokens += before.tokens;
            before.text.clear();
            before.tokens = 0;
        } else {
            j = i;
        }
    }
    for (std::size_t i = 0, j = 1; j < words.size(); ++j) {
        RawWord &after = words[j];
        if ((words[i].text.empty() || words[i].text.back() != ' ') && within(kTrailingMarks, after.text)) {
            words[i].text += after.text;
            words[i].tokens += after.tokens;
            after.text.clear();
            after.tokens = 0;
        } else {
            i = j;
        }
    }
}

} // namespace

std::vector<AlignmentHead> publishedAlignmentHeads(const Hyperparameters &h)
{
    struct Published {
        int textLayers;
        int textWidth;
        bool multilingual;
        std::vector<AlignmentHead> heads;
    };
    // The heads the models' publisher found to follow the speech best.
    // clang-format off
    static const std::vector<Published> published{
        {4, 384, false, {{1, 0}, {2, 0}, {2, 5}, {3, 0}, {3, 1}, {3, 2}, {3, 3}, {3, 4}}},
        {4, 384, true, {{2, 2}, {3, 0}, {3, 2}, {3, 3}, {3, 4}, {3, 5}}},
        {6, 512, false, {{3, 3}, {4, 7}, {5, 1}, {5, 5}, {5, 7}}},
        {6, 512, true, {{3, 1}, {4, 2}, {4, 3}, {4, 7}, {5, 1}, {5, 2}, {5, 4}, {5, 6}}},
        {12, 768, false, {{6, 6}, {7, 0}, {7, 3}, {7, 8}, {8, 2}, {8, 5}, {8, 7}, {9, 0}, {9, 4}, {9, 8}, {9, 10},
                          {10, 0}, {10, 1}, {10, 2}, {10, 3}, {10, 6}, {10, 11}, {11, 2}, {11, 4}}},
        {12, 768, true, {{5, 3}, {5, 9}, {8, 0}, {8, 4}, {8, 7}, {8, 8}, {9, 0}, {9, 7}, {9, 9}, {10, 5}}},
        {24, 1024, false, {{11, 4}, {14, 1}, {14, 12}, {14, 14}, {15, 4}, {16, 0}, {16, 4}, {16, 9}, {17, 12},
                           {17, 14}, {18, 7}, {18, 10}, {18, 15}, {20, 0}, {20, 3}, {20, 9}, {20, 14}, {21, 12}}},
        {24, 1024, true, {{13, 15}, {15, 4}, {15, 15}, {16, 1}, {20, 0}, {23, 4}}},
        {4, 1280, true, {{2, 4}, {2, 11}, {3, 3}, {3, 6}, {3, 11}, {3, 14}}},
    };
    // clang-format on
    for (const Published &model : published)
        if (model.textLayers == h.textLayers && model.textWidth == h.textWidth &&
            model.multilingual == h.multilingual())
            return model.heads;
    if (h.textLayers == 32 && h.textWidth == 1280 && h.melBins == 128)
        return {{7, 0}, {10, 17}, {12, 18}, {13, 12}, {16, 1}, {17, 14}, {19, 11}, {21, 4}, {24, 1}, {25, 6}};
    if (h.textLayers == 32 && h.textWidth == 1280)
        return {{10, 12}, {13, 17}, {16, 11}, {16, 12}, {16, 13}, {17, 15}, {17, 16}, {18, 4},
                {18, 11}, {18, 19}, {19, 11}, {21, 2},  {21, 3},  {22, 3},  {22, 9},  {22, 12},
                {23, 5},  {23, 7},  {23, 13}, {25, 5},  {26, 1},  {26, 12}, {27, 15}};
    std::vector<AlignmentHead> upperHalf;
    for (int layer = h.textLayers / 2; layer < h.textLayers; ++layer)
        for (int head = 0; head < h.textHeads; ++head)
            upperHalf.push_back({layer, head});
    return upperHalf;
}

void medianOfSeven(float *row, std::size_t count)
{
    constexpr std::size_t pad = kMedianWidth / 2;
    if (count <= pad || count > std::size_t(1) << 30)
        return;
    std::vector<float> padded(count + 2 * pad);
    for (std::size_t i = 0; i < count; ++i)
        padded[pad + i] = row[i];
    for (std::size_t k = 0; k < pad; ++k) {
        padded[k] = row[pad - k];
        padded[count + pad + k] = row[count - 2 - k];
    }
    // A sorting network of seven, without branches, so the loop runs on vectors.
    for (std::size_t i = 0; i < count; ++i) {
        float v[kMedianWidth];
        for (std::size_t k = 0; k < kMedianWidth; ++k)
            v[k] = padded[i + k];
        constexpr int network[16][2] = {{0, 6}, {2, 3}, {4, 5}, {0, 2}, {1, 4}, {3, 6}, {0, 1}, {2, 5},
                                        {3, 4}, {1, 2}, {4, 6}, {2, 3}, {4, 5}, {1, 2}, {3, 4}, {5, 6}};
        for (const auto &[a, b] : network) {
            const float low = std::min(v[a], v[b]), high = std::max(v[a], v[b]);
            v[a] = low;
            v[b] = high;
        }
        row[i] = v[pad];
    }
}

std::vector<std::pair<int, int>> warpingPath(std::span<const float> cost, int rows, int columns)
{
    if (rows <= 0 || columns <= 0)
        return {};
    const std::size_t width = std::size_t(columns) + 1;
    const auto at = [width](int i, int j) { return std::size_t(i) * width + std::size_t(j); };
    std::vector<float> total(std::size_t(rows + 1) * width, std::numeric_limits<float>::infinity());
    // 0: from the diagonal, 1: from above, 2: from the left.
    std::vector<std::uint8_t> from(total.size(), 2);
    total[0] = 0;
    for (int j = 1; j <= columns; ++j)
        for (int i = 1; i <= rows; ++i) {
            const float diagonal = total[at(i - 1, j - 1)], above = total[at(i - 1, j)], left = total[at(i, j - 1)];
            float best = left;
            std::uint8_t step = 2;
            if (diagonal < above && diagonal < left) {
                best = diagonal;
                step = 0;
            } else if (above < diagonal && above < left) {
                best = above;
                step = 1;
            }
            total[at(i, j)] = cost[std::size_t(i - 1) * std::size_t(columns) + std::size_t(j - 1)] + best;
            from[at(i, j)] = step;
        }
    for (int i = 1; i <= rows; ++i)
        from[at(i, 0)] = 1;

    std::vector<std::pair<int, int>> path;
    for (int i = rows, j = columns; i > 0 || j > 0;) {
        path.emplace_back(i - 1, j - 1);
        const std::uint8_t step = i == 0 ? 2 : from[at(i, j)];
        i -= step == 2 ? 0 : 1;
        j -= step == 1 ? 0 : 1;
    }
    std::reverse(path.begin(), path.end());
    return path;
}

std::vector<TokenWord> splitWords(const std::vector<std::string> &vocabulary, std::span<const int> tokens,
                                  bool spaceless)
{
    std::vector<TokenWord> pieces;
    TokenWord piece;
    for (int token : tokens) {
        if (token >= 0 && std::size_t(token) < vocabulary.size())
            piece.text += vocabulary[std::size_t(token)];
        ++piece.tokens;
        if (endsOnCharacter(piece.text)) {
            pieces.push_back(std::move(piece));
            piece = {};
        }
    }
    if (piece.tokens > 0)
        pieces.push_back(std::move(piece));
    if (spaceless)
        return pieces;

    std::vector<TokenWord> words;
    for (TokenWord &p : pieces) {
        if (words.empty() || p.text.starts_with(' ') || within(kAsciiPunctuation, stripped(p.text))) {
            words.push_back(std::move(p));
        } else {
            words.back().text += p.text;
            words.back().tokens += p.tokens;
        }
    }
    return words;
}

WindowWords wordTimes(std::span<const float> weights, int heads, int rows, int keys, int positions, int firstText,
                      const std::vector<TokenWord> &words)
{
    int textTokens = 0;
    for (const TokenWord &word : words)
        textTokens += word.tokens;
    // Rows firstText − 1 (no timestamps, which places the first text token) to the last text token.
    const int first = firstText - 1, count = textTokens + 1;
    positions = std::min(positions, keys);
    if (words.empty() || heads <= 0 || positions <= 0 || first < 0 || first + count + 1 != rows ||
        weights.size() < std::size_t(heads) * std::size_t(rows) * std::size_t(keys))
        return {};

    const std::size_t p = std::size_t(positions);
    std::vector<float> matrix(std::size_t(count) * p, 0.0f), head(std::size_t(rows) * p);
    std::vector<double> mean(p), spread(p);
    for (int h = 0; h < heads; ++h) {
        // Each row's attention over the audio alone, then each position's weights as deviations across the rows.
        for (int r = 0; r < rows; ++r) {
            const float *in =
                weights.data() + (std::size_t(h) * std::size_t(rows) + std::size_t(r)) * std::size_t(keys);
            float *out = head.data() + std::size_t(r) * p;
            double sum = 0;
            for (std::size_t j = 0; j < p; ++j)
                sum += in[j];
            const float scale = sum > 0 ? float(1.0 / sum) : 0.0f;
            for (std::size_t j = 0; j < p; ++j)
                out[j] = in[j] * scale;
        }
        std::fill(mean.begin(), mean.end(), 0.0);
        std::fill(spread.begin(), spread.end(), 0.0);
        for (int r = 0; r < rows; ++r)
            for (std::size_t j = 0; j < p; ++j)
                mean[j] += head[std::size_t(r) * p + j];
        for (std::size_t j = 0; j < p; ++j)
            mean[j] /= rows;
        for (int r = 0; r < rows; ++r)
            for (std::size_t j = 0; j < p; ++j) {
                const double d = head[std::size_t(r) * p + j] - mean[j];
                spread[j] += d * d;
            }
        for (std::size_t j = 0; j < p; ++j)
            spread[j] = std::sqrt(spread[j] / rows);
        for (int r = 0; r < count; ++r) {
            float *row = head.data() + std::size_t(first + r) * p;
            for (std::size_t j = 0; j < p; ++j)
                row[j] = spread[j] > 0 ? float((row[j] - mean[j]) / spread[j]) : 0.0f;
            medianOfSeven(row, p);
            float *sum = matrix.data() + std::size_t(r) * p;
            for (std::size_t j = 0; j < p; ++j)
                sum[j] -= row[j] / float(heads); // the path looks for the least cost: the most attention
        }
    }

    // The position at which the path first reaches each token's row.
    std::vector<double> reached(std::size_t(count), 0.0);
    int row = -1;
    for (const auto &[i, j] : warpingPath(matrix, count, positions))
        if (i != row) {
            row = i;
            reached[std::size_t(i)] = j * kSecondsPerPosition;
        }

    std::vector<RawWord> raw;
    std::vector<double> lengths;
    for (int at = 0; const TokenWord &word : words) {
        raw.push_back(
            RawWord{word.text, reached[std::size_t(at)], reached[std::size_t(at + word.tokens)], word.tokens});
        at += word.tokens;
        if (raw.back().end > raw.back().start)
            lengths.push_back(raw.back().end - raw.back().start);
    }
    WindowWords out;
    out.medianLength = std::min(kLongestMedian, median(lengths));
    const double longest = 2 * out.medianLength;
    // A pause is often taken by the mark that ends a sentence or by the word that starts the next one.
    if (!lengths.empty())
        for (std::size_t i = 1; i < raw.size(); ++i) {
            if (raw[i].end - raw[i].start <= longest)
                continue;
            if (within(kSentenceEnds, raw[i].text))
                raw[i].end = raw[i].start + longest;
            else if (within(kSentenceEnds, raw[i - 1].text))
                raw[i].start = raw[i].end - longest;
        }
    joinPunctuation(raw);
    for (const RawWord &word : raw)
        if (!word.text.empty())
            out.words.push_back(WordTiming{QString::fromUtf8(word.text.data(), qsizetype(word.text.size())).trimmed(),
                                           word.start, word.end, word.tokens});
    return out;
}

float hearingLevel(std::span<const float> peaks)
{
    if (peaks.empty())
        return kQuietestHeard;
    std::vector<float> sorted(peaks.begin(), peaks.end());
    const auto quiet = sorted.begin() + std::ptrdiff_t(sorted.size() / 20);
    std::nth_element(sorted.begin(), quiet, sorted.end());
    return std::max(kQuietestHeard, 2 * *quiet);
}

std::int64_t firstHeard(std::span<const float> peaks, std::int64_t from, float level)
{
    const auto count = std::int64_t(peaks.size());
    std::int64_t run = 0;
    for (std::int64_t f = std::max<std::int64_t>(from, 0); f < count; ++f) {
        run = peaks[std::size_t(f)] >= level ? run + 1 : 0;
        if (run == kHeardRun)
            return f - (kHeardRun - 1);
    }
    return count;
}

void fitToSound(std::vector<WordTiming> &words, std::span<const float> peaks, float level, double after, double before)
{
    const auto count = std::int64_t(peaks.size());
    const auto frame = [&](double seconds) {
        return std::clamp<std::int64_t>(std::llround(seconds * kFramesPerSecond), 0, count);
    };
    // Heard stretches between `after` and `before`: runs of heard frames, joined across gaps shorter than any pause.
    std::vector<std::pair<double, double>> stretches;
    for (std::int64_t f = firstHeard(peaks, frame(after), level), last = frame(before); f < last;) {
        std::int64_t end = f, quiet = 0;
        for (; end < count && quiet < kPauseFrames; ++end)
            quiet = peaks[std::size_t(end)] >= level ? 0 : quiet + 1;
        stretches.emplace_back(double(f) / kFramesPerSecond, double(end - quiet) / kFramesPerSecond);
        f = firstHeard(peaks, end, level);
    }

    double previousEnd = after;
    std::vector<char> sounded(words.size(), 0), used(stretches.size(), 0);
    for (std::size_t i = 0; i < words.size(); ++i) {
        WordTiming &word = words[i];
        const double nextStart = i + 1 < words.size() ? words[i + 1].start : before;
        // The stretch the word overlaps most; for a word without length, the one it lies in.
        const std::pair<double, double> *sound = nullptr;
        double most = -1;
        for (const auto &stretch : stretches) {
            const double overlap = std::min(word.end, stretch.second) - std::max(word.start, stretch.first);
            if (overlap > most && (overlap > 0 || (word.start >= stretch.first && word.start <= stretch.second))) {
                most = overlap;
                sound = &stretch;
            }
        }
        if (sound) {
            sounded[i] = 1;
            used[std::size_t(sound - stretches.data())] = 1;
            // Into a pause the word moves to its sound; out of a pause at most a little, and never past a neighbour.
            if (sound->first > word.start ||
                (word.start - sound->first <= kLongestReach && sound->first >= previousEnd)) {
                word.start = sound->first;
                word.heardStart = true;
            }
            if (sound->second < word.end || (sound->second - word.end <= kLongestReach && sound->second <= nextStart)) {
                word.end = std::max(word.start, sound->second);
                word.heardEnd = true;
            }
        }
        previousEnd = word.end;
    }
    // A word left in a pause was misplaced: it takes the nearest sound that no word has, between its neighbours;
    // failing that, it shares the span of its nearer neighbour with sound, in proportion to their lengths.
    for (std::size_t i = 0; i < words.size(); ++i) {
        if (sounded[i])
            continue;
        WordTiming &word = words[i];
        const double inf = std::numeric_limits<double>::infinity();
        const double low = i > 0 ? words[i - 1].end : after;
        double high = before;
        for (std::size_t j = i + 1; j < words.size(); ++j)
            if (sounded[j]) {
                high = words[j].start;
                break;
            }
        std::optional<std::size_t> nearest;
        const auto distance = [&](std::size_t k) {
            return std::max({0.0, stretches[k].first - word.end, word.start - stretches[k].second});
        };
        for (std::size_t k = 0; k < stretches.size(); ++k)
            if (!used[k] && stretches[k].first >= low && stretches[k].second <= high &&
                (!nearest || distance(k) < distance(*nearest)))
                nearest = k;
        if (nearest) {
            std::tie(word.start, word.end) = stretches[*nearest];
            word.heardStart = word.heardEnd = true;
            used[*nearest] = sounded[i] = 1;
            continue;
        }
        const double gapBefore = i > 0 && sounded[i - 1] ? word.start - words[i - 1].end : inf;
        const double gapAfter = i + 1 < words.size() && sounded[i + 1] ? words[i + 1].start - word.end : inf;
        if (gapBefore == inf && gapAfter == inf)
            continue;
        const bool toPrevious = gapBefore <= gapAfter;
        WordTiming &host = toPrevious ? words[i - 1] : words[i + 1];
        const double share = (host.end - host.start) * double(word.text.size()) /
                             double(std::max<qsizetype>(1, word.text.size() + host.text.size()));
        if (toPrevious) {
            word.start = host.end - share;
            word.end = host.end;
            host.end = word.start;
            word.heardEnd = std::exchange(host.heardEnd, false);
        } else {
            word.start = host.start;
            word.end = host.start + share;
            host.start = word.end;
            word.heardStart = std::exchange(host.heardStart, false);
        }
        sounded[i] = 1;
    }
}

double placeWords(std::vector<TimedSegment> &segments, const WindowWords &window, double lastSpeech)
{
    const double median = window.medianLength, longest = 2 * median;
    std::size_t next = 0;
    for (TimedSegment &segment : segments) {
        std::vector<WordTiming> &w = segment.words;
        w.clear();
        for (int taken = 0; next < window.words.size() && taken < segment.tokens; ++next) {
            w.push_back(window.words[next]);
            taken += window.words[next].tokens;
        }
        if (w.empty())
            continue;
        // The first word after a pause tends to take the pause for itself.
        if (!w[0].heardStart) {
            if (w[0].end - lastSpeech > 4 * median &&
                (w[0].end - w[0].start > longest || (w.size() > 1 && w[1].end - w[0].start > 2 * longest))) {
                if (w.size() > 1 && w[1].end - w[1].start > longest)
                    w[0].end = w[1].start = w[1].end - longest;
                w[0].start = std::max(0.0, w[0].end - longest);
            }
            if (segment.start < w[0].end && segment.start - 0.5 > w[0].start)
                w[0].start = std::max(0.0, std::min(w[0].end - median, segment.start));
        }
        if (!w.back().heardEnd && segment.end > w.back().start && segment.end + 0.5 < w.back().end)
            w.back().end = std::max(w.back().start + median, segment.end);
        segment.start = w.front().start;
        segment.end = w.back().end;
        lastSpeech = segment.end;
    }
    return lastSpeech;
}

} // namespace qm::whisper
