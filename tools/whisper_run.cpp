// Usage: qm_whisper_run MODEL AUDIO [LANGUAGE] [--threads N] [--profile [--screen]] [--float] [--words] [--no-words]
// MODEL is a ggml file, a CTranslate2 directory, or random:tiny|base|small|medium (random weights of that size,
// for timing a size whose weights aren't at hand; its words mean nothing); AUDIO anything FFmpeg reads.

#include "randommodel.h"
#include "transcription/whisper/frontend.h"
#include "transcription/whisper/network.h"
#include "transcription/whisper/speechaudio.h"
#include "transcription/whisper/transcriber.h"

#include <QCoreApplication>
#include <QElapsedTimer>

#include <algorithm>

#include <cstdio>
#include <ctime>

using namespace qm::whisper;

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    if (args.size() < 3) {
        std::fprintf(stderr, "usage: qm_whisper_run MODEL AUDIO [LANGUAGE]\n");
        return 2;
    }
    QElapsedTimer clock;
    clock.start();
    auto model =
        args.at(1).startsWith(QLatin1String("random:")) ? randomModel(args.at(1).mid(7)) : loadModel(args.at(1));
    if (!model) {
        std::fprintf(stderr, "%s\n", qPrintable(model.error().reason));
        return 1;
    }
    auto network = Network::create(std::move(*model), !args.contains(QStringLiteral("--float")));
    if (!network) {
        std::fprintf(stderr, "%s\n", qPrintable(network.error().reason));
        return 1;
    }
    const double loadSeconds = double(clock.restart()) / 1000.0;
    auto samples = readSpeechAudio(args.at(2));
    if (!samples) {
        std::fprintf(stderr, "%s\n", qPrintable(samples.error()));
        return 1;
    }
    const double audioSeconds = double(samples->size()) / 16000.0;
    const qsizetype threadsAt = args.indexOf(QStringLiteral("--threads"));
    Session session(*network, threadsAt > 0 && threadsAt + 1 < args.size() ? args.at(threadsAt + 1).toInt() : 0);
    if (args.contains(QStringLiteral("--profile"))) {
        // Time one window's stages separately.
        const LogMel mel = logMelSpectrogram(*samples, (*network)->melFilters(), (*network)->hparams().melBins);
        std::vector<float> window(std::size_t(kWindowFrames) * std::size_t(mel.bins), 0.0f);
        std::copy_n(mel.frame(0), std::min<std::int64_t>(mel.frames, kWindowFrames) * mel.bins, window.begin());
        // Processor time as well as wall time: on a shared machine it is the steadier of the two.
        const auto cpu = [] {
            timespec t{};
            clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
            return double(t.tv_sec) + double(t.tv_nsec) / 1e9;
        };
        for (int i = 0; i < 3; ++i) {
            clock.restart();
            const double before = cpu();
            session.encode(window.data());
            std::fprintf(stderr, "encode %.3f s (processor %.3f s)\n", double(clock.nsecsElapsed()) / 1e9,
                         cpu() - before);
        }
        const SpecialTokens s = SpecialTokens::forVocabularySize((*network)->hparams().vocabularySize);
        const std::vector<int> suppressed = nonSpeechTokens((*network)->vocabulary());
        if (args.contains(QStringLiteral("--screen")))
            session.screenText(std::vector<char>(std::size_t(s.endOfText), 1));
        if (args.at(1).startsWith(QLatin1String("random:"))) {
            // Random weights end a window at no particular token: time a fixed run of single-token steps.
            std::vector<float> logits(std::size_t((*network)->hparams().vocabularySize));
            const std::vector<int> start{s.startOfTranscript}, row{0};
            session.decode(start, row, logits.data());
            clock.restart();
            for (int i = 0; i < 100; ++i)
                session.decode(std::vector<int>{220 + i}, row, logits.data(), 0);
            std::fprintf(stderr, "decode %.2f ms a token\n", double(clock.nsecsElapsed()) / 1e6 / 100);
            return 0;
        }
        clock.restart();
        const WindowResult r = decodeWindow(session, {}, s.firstLanguage, 0.0, suppressed, 0);
        const double decodeSeconds = double(clock.nsecsElapsed()) / 1e9;
        std::fprintf(stderr, "decode %zu tokens %.3f s (%.2f ms a token)\n", r.tokens.size(), decodeSeconds,
                     decodeSeconds * 1000 / double(r.tokens.size() + 1));
        return 0;
    }
    clock.restart();
    TranscribeOptions options;
    if (args.size() > 3 && !args.at(3).startsWith(u'-'))
        options.language = args.at(3);
    options.wordTimes = !args.contains(QStringLiteral("--no-words"));
    const Transcription result = transcribe(session, *samples, options);
    const double seconds = double(clock.elapsed()) / 1000.0;
    for (const TimedText &segment : result.segments) {
        std::printf("[%7.2f → %7.2f] %s\n", segment.start, segment.end, qPrintable(segment.text));
        if (args.contains(QStringLiteral("--words")))
            for (const WordTiming &word : segment.words)
                std::printf("    %7.2f %7.2f %s\n", word.start, word.end, qPrintable(word.text));
    }
    std::fprintf(stderr, "language %s; model load %.2f s; %.1f s of audio in %.2f s: real-time factor %.4f\n",
                 qPrintable(result.language), loadSeconds, audioSeconds, seconds, seconds / audioSeconds);
    return 0;
}
