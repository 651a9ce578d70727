#include "transcription/whisper/decoding.h"

#include "transcription/whisper/kernels.h"

#include <zlib.h>

#include <algorithm>
#include <cmath>
#include <limits>

namespace qm::whisper {

namespace {

constexpr float kBanned = -std::numeric_limits<float>::infinity();
constexpr int kSpaceToken = 220; // " " in both vocabularies

void ban(std::span<float> logits, int from, int to)
{
    from = std::clamp(from, 0, int(logits.size()));
    to = std::clamp(to, from, int(logits.size()));
    std::fill(logits.begin() + from, logits.begin() + to, kBanned);
}

} // namespace

void applyRules(std::span<float> logits, const RuleInput &input)
{
    const SpecialTokens &s = input.specials;
    const std::span<const int> sampled = input.sampled;
    const int vocabulary = int(logits.size());
    const auto banOne = [&](int token) {
        if (token >= 0 && token < vocabulary)
            logits[std::size_t(token)] = kBanned;
    };

    if (sampled.empty()) {
        banOne(kSpaceToken);
        banOne(s.endOfText);
    }
    for (int token : input.suppressed)
        banOne(token);
    banOne(s.noTimestamps);

    const bool lastWasTimestamp = !sampled.empty() && sampled.back() >= s.timestampBegin;
    const bool penultimateWasTimestamp = sampled.size() < 2 || sampled[sampled.size() - 2] >= s.timestampBegin;
    if (lastWasTimestamp) {
        if (penultimateWasTimestamp)
            ban(logits, s.timestampBegin, vocabulary);
        else
            ban(logits, 0, s.endOfText);
    }
    const auto lastTimestamp =
        std::find_if(sampled.rbegin(), sampled.rend(), [&](int token) { return token >= s.timestampBegin; });
    if (lastTimestamp != sampled.rend()) {
        // An open segment may close at its own start time; otherwise time must move forward.
        const int floor = lastWasTimestamp && !penultimateWasTimestamp ? *lastTimestamp : *lastTimestamp + 1;
        ban(logits, s.timestampBegin, floor);
    }
    if (sampled.empty()) {
        ban(logits, 0, s.timestampBegin);
        ban(logits, s.timestampBegin + kMaxInitialTimestamp + 1, vocabulary);
    }

    // Compare in probabilities: the timestamps' total against the likeliest text token.
    const float total = kernels::logSumExp(logits.data(), logits.size());
    const float timestamps =
        kernels::logSumExp(logits.data() + s.timestampBegin, logits.size() - std::size_t(s.timestampBegin));
    const float bestText = *std::max_element(logits.begin(), logits.begin() + s.timestampBegin);
    if (std::isfinite(total) && timestamps - total > bestText - total)
        ban(logits, 0, s.timestampBegin);
}

double compressionRatio(const QString &text)
{
    const QByteArray bytes = text.toUtf8();
    if (bytes.isEmpty())
        return 0;
    uLongf size = compressBound(uLong(bytes.size()));
    QByteArray packed(qsizetype(size), Qt::Uninitialized);
    if (compress2(reinterpret_cast<Bytef *>(packed.data()), &size, reinterpret_cast<const Bytef *>(bytes.data()),
                  uLong(bytes.size()), Z_DEFAULT_COMPRESSION) != Z_OK ||
        size == 0)
        return 0;
    return double(bytes.size()) / double(size);
}

bool needsFallback(const WindowResult &result)
{
    if (result.noSpeechProbability > kNoSpeechLimit)
        return false;
    return result.compressionRatio > kCompressionRatioLimit || result.averageLogProbability < kLogProbabilityLimit;
}

bool isSilence(const WindowResult &result)
{
    return result.noSpeechProbability > kNoSpeechLimit && result.averageLogProbability <= kLogProbabilityLimit;
}

WindowSegments splitWindow(std::span<const int> tokens, const SpecialTokens &specials, double offset, int frames)
{
    const auto isTime = [&](std::size_t i) { return tokens[i] >= specials.timestampBegin; };
    const auto seconds = [&](int token) { return offset + (token - specials.timestampBegin) * kSecondsPerTimestamp; };
    const std::size_t n = tokens.size();
    const bool endsOnLoneTimestamp = n >= 2 && !isTime(n - 2) && isTime(n - 1);

    std::vector<std::size_t> cuts;
    for (std::size_t i = 1; i < n; ++i)
        if (isTime(i - 1) && isTime(i))
            cuts.push_back(i);

    WindowSegments out;
    if (!cuts.empty()) {
        if (endsOnLoneTimestamp)
            cuts.push_back(n);
        std::size_t begin = 0;
        for (std::size_t cut : cuts) {
            out.segments.push_back(TimedTokens{
                seconds(tokens[begin]), seconds(tokens[cut - 1]),
                std::vector<int>(tokens.begin() + std::ptrdiff_t(begin), tokens.begin() + std::ptrdiff_t(cut))});
            begin = cut;
        }
        // Two frames of the spectrogram per timestamp step.
        out.advance = endsOnLoneTimestamp ? frames : (tokens[begin - 1] - specials.timestampBegin) * 2;
        return out;
    }

    double duration = frames / 100.0;
    const auto last = std::find_if(tokens.rbegin(), tokens.rend(), [&](int t) { return t >= specials.timestampBegin; });
    if (last != tokens.rend() && *last != specials.timestampBegin)
        duration = (*last - specials.timestampBegin) * kSecondsPerTimestamp;
    out.segments.push_back(TimedTokens{offset, offset + duration, std::vector<int>(tokens.begin(), tokens.end())});
    out.advance = frames;
    return out;
}

} // namespace qm::whisper
