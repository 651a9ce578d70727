#include "transcription/whisper/transcriber.h"

#include "transcription/whisper/frontend.h"
#include "transcription/whisper/kernels.h"

#include <algorithm>
#include <cmath>
#include <iterator>
#include <random>

namespace qm::whisper {

namespace {

constexpr int kMaxPrompt = 223;
constexpr int kMaxNewTokens = 224;
constexpr double kTemperatures[] = {0.0, 0.2, 0.4, 0.6, 0.8, 1.0};
constexpr float kSilentPeak = 1e-3f; // −60 dBFS: nothing the model could hear as speech
// A window that starts with more than a second unheard starts again 0.3 s before the sound: the model times speech
// best, and never drops a first word, when the window starts just before it.
constexpr std::int64_t kUnheardLead = 100;
constexpr std::int64_t kLeadIn = 30;

bool cancelled(const std::atomic<bool> *cancel)
{
    return cancel && cancel->load(std::memory_order_relaxed);
}

double logSoftmaxAt(const std::vector<float> &logits, int token)
{
    return double(logits[std::size_t(token)]) - double(kernels::logSumExp(logits.data(), logits.size()));
}

int sample(const std::vector<float> &logits, double temperature, std::mt19937 &random)
{
    std::vector<double> weights(logits.size());
    const float top = *std::max_element(logits.begin(), logits.end());
    for (std::size_t i = 0; i < logits.size(); ++i)
        weights[i] = std::isfinite(logits[i]) ? std::exp((double(logits[i]) - top) / temperature) : 0.0;
    std::discrete_distribution<int> pick(weights.begin(), weights.end());
    return pick(random);
}

// Languages written without spaces between words: each character is a word.
bool writtenWithoutSpaces(const QString &language)
{
    static const QStringList codes = {QStringLiteral("zh"), QStringLiteral("ja"), QStringLiteral("th"),
                                      QStringLiteral("lo"), QStringLiteral("my"), QStringLiteral("yue")};
    return codes.contains(language);
}

// Gives a window's segments their words, aligning its text tokens (in segment order) to the audio in one pass of
// the decoder without timestamps. `frames` of the window carry audio; `offset` is its start in seconds. False when
// the model has no alignment heads or nothing could be aligned.
bool alignWindow(Session &session, const SpecialTokens &s, int language, std::span<const int> text, int frames,
                 double offset, const LogMel &mel, float level, std::vector<TimedSegment> &segments, double &lastSpeech)
{
    std::vector<int> tokens{s.startOfTranscript};
    if (s.multilingual) {
        tokens.push_back(language);
        tokens.push_back(s.transcribe);
    }
    tokens.push_back(s.noTimestamps);
    const int firstText = int(tokens.size());
    tokens.insert(tokens.end(), text.begin(), text.end());
    tokens.push_back(s.endOfText);
    if (!session.attend(tokens))
        return false;
    const Network &net = session.network();
    const std::vector<TokenWord> words =
        splitWords(net.vocabulary(), text, s.multilingual && writtenWithoutSpaces(s.languageCode(language)));
    WindowWords window = wordTimes(session.alignmentWeights(), int(net.alignmentHeads().size()), int(tokens.size()),
                                   net.hparams().audioContext, frames / 2, firstText, words);
    if (window.words.empty())
        return false;
    for (WordTiming &word : window.words) {
        word.start += offset;
        word.end += offset;
    }
    fitToSound(window.words, mel.peaks, level, std::max(lastSpeech, offset), offset + frames / 100.0);
    lastSpeech = placeWords(segments, window, lastSpeech);
    return true;
}

} // namespace

int detectLanguage(Session &session)
{
    const SpecialTokens s = SpecialTokens::forVocabularySize(session.network().hparams().vocabularySize);
    std::vector<float> logits(std::size_t(s.vocabularySize));
    const int start = s.startOfTranscript, row = 0;
    session.truncate(0);
    session.decode(std::span(&start, 1), std::span(&row, 1), logits.data());
    const auto first = logits.begin() + s.firstLanguage;
    return s.firstLanguage + int(std::max_element(first, first + s.languageCount) - first);
}

WindowResult decodeWindow(Session &session, std::span<const int> prompt, int language, double temperature,
                          std::span<const int> suppressed, unsigned seed, const std::atomic<bool> *cancel)
{
    const SpecialTokens s = SpecialTokens::forVocabularySize(session.network().hparams().vocabularySize);
    std::vector<int> initial;
    if (!prompt.empty()) {
        initial.push_back(s.startOfPrevious);
        const std::size_t kept = std::min<std::size_t>(prompt.size(), kMaxPrompt);
        initial.insert(initial.end(), prompt.end() - std::ptrdiff_t(kept), prompt.end());
    }
    const int startRow = int(initial.size());
    initial.push_back(s.startOfTranscript);
    if (s.multilingual) {
        initial.push_back(language);
        initial.push_back(s.transcribe);
    }

    WindowResult result;
    result.temperature = temperature;
    std::vector<float> logits(std::size_t(s.vocabularySize) * 2);
    const int rows[] = {startRow, int(initial.size()) - 1};
    session.truncate(0);
    session.decode(initial, rows, logits.data());
    {
        std::vector<float> atStart(logits.begin(), logits.begin() + s.vocabularySize);
        kernels::softmax(atStart.data(), atStart.size());
        result.noSpeechProbability = atStart[std::size_t(s.noSpeech)];
    }
    std::copy(logits.begin() + s.vocabularySize, logits.end(), logits.begin());
    logits.resize(std::size_t(s.vocabularySize));

    std::mt19937 random(seed);
    double sum = 0;
    const int lastRow = 0;
    for (int step = 0; step < kMaxNewTokens; ++step) {
        if (step % 16 == 15 && cancelled(cancel))
            break;
        applyRules(logits, RuleInput{s, suppressed, result.tokens});
        const int next =
            temperature <= 0 ? int(kernels::argmax(logits.data(), logits.size())) : sample(logits, temperature, random);
        sum += logSoftmaxAt(logits, next);
        if (next == s.endOfText)
            break;
        result.tokens.push_back(next);
        // Right after a segment's closing timestamp only timestamps or the end may follow, so the text
        // tokens' logits (nearly all of the step's memory traffic) needn't be computed.
        const std::size_t n = result.tokens.size();
        const bool closing = next >= s.timestampBegin && n >= 2 && result.tokens[n - 2] < s.timestampBegin;
        if (!session.decode(std::span(&next, 1), std::span(&lastRow, 1), logits.data(), closing ? s.endOfText : 0))
            break;
    }
    result.averageLogProbability = sum / double(result.tokens.size() + 1);
    return result;
}

Transcription transcribe(Session &session, std::span<const float> samples, const TranscribeOptions &options)
{
    const Network &net = session.network();
    return transcribe(session, logMelSpectrogram(samples, net.melFilters(), net.hparams().melBins), options);
}

Transcription transcribe(Session &session, const LogMel &mel, const TranscribeOptions &options)
{
    const Network &net = session.network();
    const SpecialTokens s = SpecialTokens::forVocabularySize(net.hparams().vocabularySize);
    const std::vector<int> suppressed = [&] {
        std::vector<int> list = nonSpeechTokens(net.vocabulary());
        for (int t = s.startOfTranscript; t < s.timestampBegin; ++t)
            list.push_back(t);
        return list;
    }();
    std::vector<char> allowedText(std::size_t(s.endOfText), 1);
    for (int token : suppressed)
        if (token >= 0 && token < s.endOfText)
            allowedText[std::size_t(token)] = 0;
    session.screenText(std::move(allowedText));

    Transcription out;
    int language = -1;
    if (s.multilingual && options.language) {
        language = s.languageToken(*options.language);
        if (language < 0)
            language = s.firstLanguage;
    }
    std::vector<int> history;
    std::size_t promptStart = 0;
    double lastSpeech = 0;
    const float level = hearingLevel(mel.peaks);
    std::vector<float> window(std::size_t(kWindowFrames) * std::size_t(mel.bins));

    for (std::int64_t seek = 0; seek < mel.frames;) {
        if (cancelled(options.cancel)) {
            out.cancelled = true;
            return out;
        }
        if (options.wordTimes) {
            const std::int64_t heard = firstHeard(mel.peaks, seek, level);
            if (heard >= mel.frames) {
                if (options.progress)
                    options.progress(1.0);
                break;
            }
            if (heard - seek > kUnheardLead)
                seek = heard - kLeadIn;
        }
        const int frames = int(std::min<std::int64_t>(kWindowFrames, mel.frames - seek));
        const double offset = double(seek) / 100.0;

        const auto peaks = mel.peaks.begin() + seek;
        if (*std::max_element(peaks, peaks + frames) < kSilentPeak) {
            seek += frames;
            if (options.progress)
                options.progress(double(seek) / double(mel.frames));
            continue;
        }

        std::fill(window.begin(), window.end(), 0.0f);
        std::copy_n(mel.frame(seek), std::size_t(frames) * std::size_t(mel.bins), window.begin());
        session.encode(window.data());
        if (s.multilingual && language < 0)
            language = detectLanguage(session);

        WindowResult result;
        for (std::size_t attempt = 0; attempt < std::size(kTemperatures); ++attempt) {
            const std::span<const int> prompt(history.data() + promptStart, history.size() - promptStart);
            result = decodeWindow(session, prompt, language, kTemperatures[attempt], suppressed,
                                  options.seed + unsigned(attempt), options.cancel);
            result.compressionRatio =
                compressionRatio(tokenText(net.vocabulary(), result.tokens, s.endOfText).trimmed());
            if (!needsFallback(result) || cancelled(options.cancel))
                break;
        }
        if (cancelled(options.cancel)) {
            out.cancelled = true;
            return out;
        }
        if (isSilence(result)) {
            seek += frames;
        } else {
            const WindowSegments split = splitWindow(result.tokens, s, offset, frames);
            std::vector<const TimedTokens *> pieces;
            std::vector<TimedSegment> timed;
            std::vector<int> text;
            for (const TimedTokens &piece : split.segments) {
                const std::size_t before = text.size();
                std::copy_if(piece.tokens.begin(), piece.tokens.end(), std::back_inserter(text),
                             [&](int token) { return token < s.endOfText; });
                if (tokenText(net.vocabulary(), piece.tokens, s.endOfText).trimmed().isEmpty()) {
                    text.resize(before);
                    continue;
                }
                pieces.push_back(&piece);
                timed.push_back(TimedSegment{piece.start, piece.end, int(text.size() - before), {}});
            }
            const bool aligned = options.wordTimes && !timed.empty() &&
                                 alignWindow(session, s, language, text, frames, offset, mel, level, timed, lastSpeech);
            for (std::size_t i = 0; i < timed.size(); ++i) {
                if (aligned ? timed[i].words.empty() : timed[i].end <= timed[i].start)
                    continue;
                out.segments.push_back(TimedText{timed[i].start, timed[i].end,
                                                 tokenText(net.vocabulary(), pieces[i]->tokens, s.endOfText).trimmed(),
                                                 std::move(timed[i].words)});
                history.insert(history.end(), pieces[i]->tokens.begin(), pieces[i]->tokens.end());
            }
            // The next window starts at the last complete timestamp even with word times: moving on at the last
            // word's end instead cost words here (tiny.en: 8 more errors in 625).
            seek += split.advance > 0 ? split.advance : frames;
        }
        if (result.temperature > 0.5)
            promptStart = history.size();
        if (options.progress)
            options.progress(double(std::min(seek, mel.frames)) / double(mel.frames));
    }
    out.language = s.multilingual ? s.languageCode(language) : QString();
    return out;
}

} // namespace qm::whisper
