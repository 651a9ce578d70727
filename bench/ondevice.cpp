// Transcribes a few minutes of espeak-ng speech followed by silence with our Whisper engine and with
// faster-whisper (the reference), on the same real weights, with two threads and greedy decoding, in the same
// run. Prints each side's real-time factor, their ratio, each side's word error rate against the known text,
// and the words each invents on the silence, for every real model in the test-model cache. Without small's real
// weights, projects small's figure from base's and the two shapes' costs with random weights.
//
// A timing section places espeak-ng sentences at known times with known silences between them and prints the
// mean and 95th percentile of the error of segment starts and ends against where the sentences start and end, for
// our engine beside faster-whisper with its word timestamps, clean and again under steady pink noise; and what our
// word timing costs, as the real-time factor of the long audio with and without it. QM_BENCH_TIMING_ONLY=1 runs
// only the timing section.
//
// Models: every one in scripts/fetch-test-model's cache ($QM_MODEL_CACHE, by default
// ~/.cache/quillmoor-test-models), or only the directory QM_BENCH_MODEL_DIR names. QM_BENCH_REFERENCE_COMPUTE
// picks the reference's compute type (by default the weights' own, float32 on a processor without float16). The
// reference runs in a virtual environment made once at $XDG_CACHE_HOME/quillmoor-bench/venv with faster-whisper from
// the Python package index; without it (or without models) the benchmark says so and measures what it can.

#include "randommodel.h"
#include "support/providers/speechfixture.h"
#include "support/wordscore.h"
#include "transcription/whisper/frontend.h"
#include "transcription/whisper/modellibrary.h"
#include "transcription/whisper/network.h"
#include "transcription/whisper/speechaudio.h"
#include "transcription/whisper/tokens.h"
#include "transcription/whisper/transcriber.h"
#include "transcription/whisper/whisperengine.h"

#include <QCoreApplication>
#include <QCoroTask>
#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QThread>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <optional>

using namespace qm;
using qm::test::wordErrorRate;
using qm::test::words;

namespace {

constexpr int threads = 2;
constexpr double silenceSeconds = 60;

// Original prose in plain words (no digits or names, which either side may spell in more than one way).
const char *const knownText =
    "Every team has a different way of running its weekly meeting, but the good ones share a few habits. "
    "They start on time, they keep a short list of topics, and they write down what was decided before "
    "anyone leaves the room. The notes do not have to be long. A few lines for each topic are usually "
    "enough, as long as they say who will do what and by when. "
    "When people join from home, the sound matters more than the picture. A cheap headset with a "
    "microphone close to the mouth is better than an expensive camera. Background noise from a kitchen or "
    "a busy street makes it hard for the others to follow, and it makes the recording much harder to "
    "understand later. It helps to mute the microphone while listening and to speak a little slower than "
    "usual. "
    "Recording a meeting is useful when someone could not attend, or when the details are easy to forget. "
    "A written transcript is even more useful, because it can be searched. Instead of listening to an "
    "hour of audio to find the moment when the budget was discussed, you can type a word and jump straight "
    "to the right place. This saves a surprising amount of time over the course of a month. "
    "Privacy is the other side of the story. Some meetings cover sensitive subjects, such as salaries, "
    "health, or plans that are not yet public. In those cases many companies prefer that the audio never "
    "leaves their own computers. A model that runs on the laptop itself answers that concern, as long as "
    "it is fast enough to finish the work while the user gets a cup of coffee. "
    "Speed depends on the size of the model and on the number of cores. A small model finishes quickly "
    "but makes more mistakes with unusual words. A larger model is more careful, but it needs more memory "
    "and more patience. For most everyday meetings a medium choice is the sensible default, and people "
    "who need more accuracy can pick a bigger one in the settings. "
    "Some teams go one step further and share a short summary after every meeting. The summary lists the "
    "decisions, the open questions and the tasks, each with a name next to it. People who missed the meeting "
    "read the summary first and open the full transcript only when they want the details. Over time the "
    "collection of summaries becomes a kind of diary of the project, which is very helpful when a new "
    "colleague joins and wants to understand why things are the way they are. "
    "Languages add another layer. In many offices people switch between two languages during the same "
    "conversation, and a good model should follow them without being told. It should also cope with "
    "accents, with people who speak quickly, and with the small pauses and repeated words that are normal "
    "in real speech but look strange when written down. Nobody talks the way a book is written, and a "
    "transcript that tried to pretend otherwise would lose some of the meaning. "
    "Silence deserves a word as well. A recording often begins a minute or two before anyone speaks, and it "
    "may end with the sound of an empty room. A careful program writes nothing for those stretches. It "
    "should never invent sentences just because it was asked to listen, since a made up line in the notes "
    "can cause real confusion later on. "
    "Finally, a good tool stays out of the way. It should start recording when the meeting begins, stop "
    "when it ends, and have the transcript ready shortly afterwards without asking any questions. The best "
    "compliment such a tool can receive is that nobody remembers it is there until they need it.";

bool run(const QString &program, const QStringList &arguments, QByteArray *output = nullptr, int timeoutMs = -1)
{
    QProcess process;
    process.setProcessChannelMode(output ? QProcess::ForwardedErrorChannel : QProcess::ForwardedChannels);
    process.start(program, arguments);
    const bool ok =
        process.waitForFinished(timeoutMs) && process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
    if (output)
        *output = process.readAllStandardOutput();
    return ok;
}

double durationOf(const QString &audio)
{
    QByteArray out;
    run(QStringLiteral("ffprobe"),
        {QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-show_entries"),
         QStringLiteral("format=duration"), QStringLiteral("-of"), QStringLiteral("default=nw=1:nk=1"), audio},
        &out);
    return out.trimmed().toDouble();
}

// The known text spoken, then `silenceSeconds` of digital silence, as AAC in MPEG-4 at 16 kHz mono (what the
// speech export hands the engine). Answers the seconds at which the speech ends.
std::optional<double> makeAudio(const QDir &dir, const QString &audio)
{
    const QString wav = dir.filePath(QStringLiteral("speech.wav"));
    if (!run(QStringLiteral("espeak-ng"),
             {QStringLiteral("-s"), QStringLiteral("160"), QStringLiteral("-w"), wav, QString::fromUtf8(knownText)}))
        return std::nullopt;
    const QString filter = QStringLiteral("[0:a]aresample=16000,aformat=channel_layouts=mono[s];"
                                          "[s][1:a]concat=n=2:v=0:a=1[out]");
    if (!run(QStringLiteral("ffmpeg"), {QStringLiteral("-v"),
                                        QStringLiteral("error"),
                                        QStringLiteral("-y"),
                                        QStringLiteral("-i"),
                                        wav,
                                        QStringLiteral("-f"),
                                        QStringLiteral("lavfi"),
                                        QStringLiteral("-t"),
                                        QString::number(silenceSeconds),
                                        QStringLiteral("-i"),
                                        QStringLiteral("anullsrc=r=16000:cl=mono"),
                                        QStringLiteral("-filter_complex"),
                                        filter,
                                        QStringLiteral("-map"),
                                        QStringLiteral("[out]"),
                                        QStringLiteral("-c:a"),
                                        QStringLiteral("aac"),
                                        QStringLiteral("-b:a"),
                                        QStringLiteral("32k"),
                                        audio}))
        return std::nullopt;
    return durationOf(wav);
}

struct Outcome {
    double seconds = 0;
    Segments segments;
    QString note; // the reason there are no figures, or an extra remark
    bool ok = false;
};

struct Figures {
    double rtf = 0;
    double wer = 0;
    qsizetype silenceWords = 0;
};

// QM_BENCH_TRANSCRIPTS=1 prints each transcript, to see what the word error rate is made of.
Figures figuresOf(const Outcome &outcome, double audioSeconds, double speechEnd)
{
    Figures f;
    f.rtf = outcome.seconds / audioSeconds;
    QString all;
    for (const auto &segment : outcome.segments) {
        all += segment.text + u' ';
        // A segment that starts after the last word was spoken can only be invented.
        if (segment.start > speechEnd + 1.0)
            f.silenceWords += words(segment.text).size();
        if (qEnvironmentVariableIsSet("QM_BENCH_TRANSCRIPTS"))
            std::printf("  [%7.2f %7.2f] %s\n", segment.start, segment.end, qPrintable(segment.text));
    }
    f.wer = wordErrorRate(words(QString::fromUtf8(knownText)), words(all));
    return f;
}

Outcome runOurs(const QString &model, const QString &audio, const QString &warmUp, double duration)
{
    QNetworkAccessManager network;
    QTemporaryDir libraryDir;
    whisper::ModelLibrary library(network, libraryDir.path());
    WhisperEngine engine(library);
    const auto transcribe = [&](const QString &file, double seconds) {
        EngineRequest request;
        request.audio = QUrl::fromLocalFile(file);
        request.duration = seconds;
        request.language = QStringLiteral("en");
        request.model = model;
        return QCoro::waitFor(engine.transcribe(request, [](const QString &) {}));
    };
    Outcome outcome;
    // The engine keeps a loaded model for the next call, so a short first call keeps loading out of the timing,
    // as the reference's does.
    if (const auto warm = transcribe(warmUp, 5); !warm && warm.error().kind != TranscriptionError::Kind::noSpeech) {
        outcome.note = warm.error().description();
        return outcome;
    }
    QElapsedTimer timer;
    timer.start();
    const auto result = transcribe(audio, duration);
    outcome.seconds = double(timer.nsecsElapsed()) / 1e9;
    if (!result) {
        outcome.note = result.error().description();
        return outcome;
    }
    outcome.segments = *result;
    outcome.ok = true;
    return outcome;
}

QString referencePython()
{
    const QString cache = QStandardPaths::writableLocation(QStandardPaths::GenericCacheLocation);
    const QString venv = cache + QStringLiteral("/quillmoor-bench/venv");
    const QString python = venv + QStringLiteral("/bin/python");
    if (QFileInfo::exists(python) &&
        run(python, {QStringLiteral("-c"), QStringLiteral("import faster_whisper")}, nullptr, 60000))
        return python;
    std::printf("installing faster-whisper into %s (once)…\n", qPrintable(venv));
    std::fflush(stdout);
    QDir().mkpath(venv);
    if (!run(QStringLiteral("python3"), {QStringLiteral("-m"), QStringLiteral("venv"), venv}) ||
        !run(venv + QStringLiteral("/bin/pip"),
             {QStringLiteral("install"), QStringLiteral("--quiet"), QStringLiteral("faster-whisper")}))
        return {};
    return python;
}

Outcome runReference(const QString &python, const QString &model, const QString &audio, bool words = false)
{
    Outcome outcome;
    if (python.isEmpty()) {
        outcome.note = QStringLiteral("faster-whisper could not be installed");
        return outcome;
    }
    QByteArray out;
    if (!run(python,
             {QStringLiteral(QM_BENCH_DIR "/ondevice-reference.py"), model, audio, QString::number(threads),
              QStringLiteral("en"), qEnvironmentVariable("QM_BENCH_REFERENCE_COMPUTE", QStringLiteral("default")),
              words ? QStringLiteral("words") : QString()},
             &out)) {
        outcome.note = QStringLiteral("faster-whisper failed");
        return outcome;
    }
    const QJsonObject answer = QJsonDocument::fromJson(out).object();
    outcome.seconds = answer.value(QLatin1String("seconds")).toDouble();
    for (const auto &entry : answer.value(QLatin1String("segments")).toArray()) {
        const QJsonArray s = entry.toArray();
        TranscriptSegment segment;
        segment.start = s.at(0).toDouble();
        segment.end = s.at(1).toDouble();
        segment.text = s.at(2).toString();
        outcome.segments.append(segment);
    }
    outcome.note = answer.value(QLatin1String("compute_type")).toString();
    outcome.ok = true;
    return outcome;
}

// The timing section's sentences: the silence before each, and the words. Short replies after long silences are
// where a start is easiest to lose.
const std::pair<double, const char *> timedSentences[] = {
    {10.0, "Thanks."},
    {0.7, "Good morning everyone, today we review the plan for the new office."},
    {3.0, "Can you hear me?"},
    {1.2, "The budget is ready and the numbers look better than last month."},
    {8.0, "Yes."},
    {0.6, "I think we should move the deadline to Friday."},
    {4.5, "Let us take a short break and come back in ten minutes."},
    {12.0, "Welcome back."},
    {1.5, "Next on the list is the hiring plan for the summer."},
    {2.2, "Who wants to start?"},
    {0.9, "I can, if nobody else has questions about the budget."},
    {5.0, "That sounds fine to me."},
    {1.8, "The printer on the third floor is broken again."},
    {6.0, "Right."},
    {2.5, "Please send the notes to everyone before lunch."},
    {1.1, "I will add the slides from the design review as well."},
    {15.0, "Sorry, I was on mute."},
    {3.5, "Could you repeat the last question?"},
    {1.4, "We asked whether the office opens in spring or in autumn."},
    {2.8, "Spring, if the painters finish on time."},
};
constexpr double timedTrailing = 6.0;
// Boundaries next to a pause at least this long are measured: closer sentences may share a segment.
constexpr double measuredPause = 1.0;

struct Errors {
    double mean = 0;
    double p95 = 0;
    qsizetype count = 0;
};

Errors errorsOf(std::vector<double> errors)
{
    Errors e;
    e.count = qsizetype(errors.size());
    if (errors.empty())
        return e;
    std::sort(errors.begin(), errors.end());
    for (double error : errors)
        e.mean += error / double(errors.size());
    e.p95 = errors[std::size_t(std::ceil(0.95 * double(errors.size()))) - 1]; // nearest rank
    return e;
}

struct TimingFigures {
    Errors starts;      // each sentence after a pause: the nearest segment start
    Errors ends;        // each sentence before a pause: the nearest segment end
    double silence = 0; // share of the segments' time that holds no speech
    double segmentSeconds = 0;
};

TimingFigures timingOf(const Segments &segments, const QList<test::PlacedSpeech> &sentences)
{
    const auto nearest = [&](double at, auto edge) {
        double best = 1e9;
        for (const TranscriptSegment &segment : segments)
            best = std::min(best, std::abs(at - edge(segment)));
        return best;
    };
    std::vector<double> starts, ends;
    for (qsizetype i = 0; i < sentences.size(); ++i) {
        if (sentences[i].pause >= measuredPause)
            starts.push_back(nearest(sentences[i].start, [](const TranscriptSegment &s) { return s.start; }));
        if (i + 1 == sentences.size() || sentences[i + 1].pause >= measuredPause)
            ends.push_back(nearest(sentences[i].end, [](const TranscriptSegment &s) { return s.end; }));
    }
    TimingFigures f{errorsOf(starts), errorsOf(ends), 0, 0};
    double speech = 0;
    for (const TranscriptSegment &segment : segments) {
        f.segmentSeconds += segment.end - segment.start;
        for (const test::PlacedSpeech &sentence : sentences)
            speech += std::max(0.0, std::min(segment.end, sentence.end) - std::max(segment.start, sentence.start));
        if (qEnvironmentVariableIsSet("QM_BENCH_TRANSCRIPTS"))
            std::printf("  [%7.2f %7.2f] %s\n", segment.start, segment.end, qPrintable(segment.text));
    }
    f.silence = f.segmentSeconds > 0 ? 1 - speech / f.segmentSeconds : 0;
    return f;
}

void printTiming(const char *side, const TimingFigures &f)
{
    std::printf("%s starts: mean %.2f s, p95 %.2f s (%lld); ends: mean %.2f s, p95 %.2f s (%lld); "
                "no speech in %.0f%% of the segments' time\n",
                side, f.starts.mean, f.starts.p95, static_cast<long long>(f.starts.count), f.ends.mean, f.ends.p95,
                static_cast<long long>(f.ends.count), 100 * f.silence);
}

// Model directories to measure, smallest first: name → path.
QList<QPair<QString, QString>> models()
{
    QList<QPair<QString, QString>> found;
    if (const QString only = qEnvironmentVariable("QM_BENCH_MODEL_DIR"); !only.isEmpty())
        return {{QFileInfo(only).fileName(), only}};
    QString cache = qEnvironmentVariable("QM_MODEL_CACHE");
    if (cache.isEmpty())
        cache = QDir::homePath() + QStringLiteral("/.cache/quillmoor-test-models");
    for (const char *name : {"tiny.en", "tiny", "base.en", "base", "small.en", "small"}) {
        const QString path = cache + u'/' + QLatin1String(name);
        if (QFileInfo::exists(path + QStringLiteral("/model.bin")))
            found.append({QLatin1String(name), path});
    }
    return found;
}

// Seconds per encoder window and per decoded token for random weights of a model size's shape: the work
// doesn't depend on the values, so the ratio of two sizes' costs carries over to their real weights.
struct ShapeCost {
    double window = 0;
    double token = 0;
};

std::optional<ShapeCost> shapeCost(const QString &size)
{
    using namespace qm::whisper;
    auto network = Network::create(*randomModel(size));
    if (!network)
        return std::nullopt;
    Session session(*network, threads);
    std::vector<float> window(std::size_t(kWindowFrames) * std::size_t((*network)->hparams().melBins), 0.1f);
    // The fastest of a few runs: the first pays for warming caches and starting helpers, and other work on the
    // machine only ever adds time.
    ShapeCost cost{1e9, 1e9};
    QElapsedTimer timer;
    for (int i = 0; i < 3; ++i) {
        timer.start();
        session.encode(window.data());
        cost.window = std::min(cost.window, double(timer.nsecsElapsed()) / 1e9);
    }
    std::vector<float> logits(std::size_t((*network)->hparams().vocabularySize));
    const std::vector<int> start{
        SpecialTokens::forVocabularySize((*network)->hparams().vocabularySize).startOfTranscript};
    const std::vector<int> row{0};
    constexpr int tokens = 100;
    for (int i = 0; i < 3; ++i) {
        session.truncate(0);
        session.decode(start, row, logits.data());
        timer.start();
        for (int t = 0; t < tokens; ++t)
            session.decode(std::vector<int>{220 + t}, row, logits.data());
        cost.token = std::min(cost.token, double(timer.nsecsElapsed()) / 1e9 / tokens);
    }
    return cost;
}

// Speed and words: the long audio through both engines. Answers whether the aims were met.
bool speedSection(const QString &name, const QString &path, const QString &audio, const QString &warmUp,
                  double audioSeconds, double speechEnd, const QString &python, std::optional<double> &baseRtf,
                  bool &smallMeasured)
{
    const Outcome ours = runOurs(path, audio, warmUp, audioSeconds);
    const Outcome reference = runReference(python, path, audio);
    std::optional<Figures> a, b;
    if (ours.ok) {
        a = figuresOf(ours, audioSeconds, speechEnd);
        std::printf("ours:           RTF %.3f (%.1f s)  WER %.3f  words on silence %lld\n", a->rtf, ours.seconds,
                    a->wer, static_cast<long long>(a->silenceWords));
    } else {
        std::printf("ours:           not measured: %s\n", qPrintable(ours.note));
    }
    if (reference.ok) {
        b = figuresOf(reference, audioSeconds, speechEnd);
        std::printf("faster-whisper: RTF %.3f (%.1f s)  WER %.3f  words on silence %lld  (%s)\n", b->rtf,
                    reference.seconds, b->wer, static_cast<long long>(b->silenceWords), qPrintable(reference.note));
    } else {
        std::printf("faster-whisper: not measured: %s\n", qPrintable(reference.note));
    }
    if (!a)
        return false;
    bool met = true;
    if (b) {
        std::printf("ratio ours/faster-whisper: %.2f (aim <= 1.00 at equal or better WER)\n", a->rtf / b->rtf);
        met = a->rtf <= b->rtf && a->wer <= b->wer + 0.005;
    }
    const bool base = name.startsWith(QLatin1String("base")), small = name.startsWith(QLatin1String("small"));
    if (base)
        baseRtf = a->rtf;
    smallMeasured = smallMeasured || small;
    if (base || small) {
        const double aim = base ? 0.06 : 0.2;
        std::printf("%s RTF aim <= %.2f: %s\n", qPrintable(name), aim, a->rtf <= aim ? "met" : "missed");
        met = met && a->rtf <= aim;
    }
    return met && a->silenceWords == 0;
}

// Timing: the placed sentences through both engines, the reference with its word timestamps; `noisy` when pink
// noise lies under them. Answers whether the aim was met (it is set for the clean sentences).
bool timingSection(const QString &path, const QString &timedAudio, const QString &warmUp, double timedSeconds,
                   const QList<test::PlacedSpeech> &sentences, const QString &python, bool noisy)
{
    std::printf("-- timing%s: %lld sentences in %.0f s, silences of 0.6-15 s between them; starts after and ends "
                "before silences of %.0f s or more\n",
                noisy ? " under pink noise (-40 dBFS RMS)" : "", static_cast<long long>(sentences.size()), timedSeconds,
                measuredPause);
    std::fflush(stdout);
    const Outcome ours = runOurs(path, timedAudio, warmUp, timedSeconds);
    const Outcome reference = runReference(python, path, timedAudio, true);
    bool met = false;
    if (ours.ok) {
        const TimingFigures t = timingOf(ours.segments, sentences);
        printTiming("ours:           ", t);
        met = t.starts.p95 <= 0.3 && t.ends.p95 <= 0.3;
        if (!noisy)
            std::printf("timing aim p95 <= 0.30 s for starts and ends: %s\n", met ? "met" : "missed");
    } else {
        std::printf("ours:            not measured: %s\n", qPrintable(ours.note));
    }
    if (reference.ok)
        printTiming("faster-whisper: ", timingOf(reference.segments, sentences));
    else
        std::printf("faster-whisper:  not measured: %s\n", qPrintable(reference.note));
    return met || noisy;
}

// What word timing costs: the long audio through the engine's own loop with and without it, alternately, the
// fastest of three runs of each.
void costSection(const QString &path, const QString &audio, double audioSeconds)
{
    auto loaded = whisper::loadModel(path);
    const auto samples = whisper::readSpeechAudio(audio);
    auto network =
        loaded ? whisper::Network::create(std::move(*loaded)) : unexpected(whisper::ModelError{loaded.error().reason});
    if (!network || !samples) {
        std::printf("word timing cost: not measured\n");
        return;
    }
    whisper::Session session(*network, threads);
    // Processor time as well as wall time: on a shared machine it is the steadier of the two.
    const auto processorSeconds = [] {
        timespec t{};
        clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
        return double(t.tv_sec) + double(t.tv_nsec) / 1e9;
    };
    double wall[2] = {1e9, 1e9}, processor[2] = {1e9, 1e9};
    QElapsedTimer timer;
    for (int run = 0; run < 3; ++run)
        for (const int words : {0, 1}) {
            whisper::TranscribeOptions options;
            options.language = QStringLiteral("en");
            options.wordTimes = words == 1;
            timer.start();
            const double before = processorSeconds();
            whisper::transcribe(session, *samples, options);
            processor[words] = std::min(processor[words], processorSeconds() - before);
            wall[words] = std::min(wall[words], double(timer.nsecsElapsed()) / 1e9);
        }
    std::printf("word timing cost: RTF %.4f without, %.4f with: ratio %.3f (processor time: ratio %.3f)\n",
                wall[0] / audioSeconds, wall[1] / audioSeconds, wall[1] / wall[0], processor[1] / processor[0]);
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    // The engine runs one thread per core; on this benchmark's two-core machine that is the reference's two.
    std::printf("threads: %d (this machine has %d cores)\n", threads, QThread::idealThreadCount());

    // Both models the suite knows how to fetch; a machine without the package index keeps what it has.
    QByteArray fetched;
    run(QStringLiteral(QM_SOURCE_DIR "/scripts/fetch-test-model"), {QStringLiteral("all")}, &fetched, 600000);
    const auto found = models();
    if (found.isEmpty()) {
        std::printf("no real Whisper model is cached (scripts/fetch-test-model fetches them); nothing to measure\n");
        return 0;
    }

    QTemporaryDir scratch;
    const QString audio = scratch.filePath(QStringLiteral("meeting.m4a"));
    const QString warmUp = scratch.filePath(QStringLiteral("warmup.m4a"));
    const auto speechEnd = makeAudio(QDir(scratch.path()), audio);
    if (!speechEnd ||
        !run(QStringLiteral("ffmpeg"),
             {QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-y"), QStringLiteral("-i"), audio,
              QStringLiteral("-t"), QStringLiteral("5"), QStringLiteral("-c"), QStringLiteral("copy"), warmUp})) {
        std::printf("espeak-ng or ffmpeg failed; nothing to measure\n");
        return 1;
    }
    const double audioSeconds = durationOf(audio);
    const QString timedAudio = scratch.filePath(QStringLiteral("timed.m4a"));
    QList<test::PlacedSpeech> sentences;
    const QStringList voices{QStringLiteral("en-us"), QStringLiteral("en-gb"), QStringLiteral("en-us+f3"),
                             QStringLiteral("en-gb-scotland")};
    for (const auto &[pause, text] : timedSentences)
        sentences.append({pause, QString::fromUtf8(text), voices.at(sentences.size() % voices.size()), 0, 0});
    if (!test::writePlacedSpeech(timedAudio, sentences, timedTrailing)) {
        std::printf("espeak-ng or sox failed; nothing to measure\n");
        return 1;
    }
    const double timedSeconds = durationOf(timedAudio);
    // The same under steady pink noise, about 20 dB below the voices: pauses that are not digital silence.
    const QString noisyAudio = scratch.filePath(QStringLiteral("noisy.m4a"));
    if (!run(QStringLiteral("ffmpeg"),
             {QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-y"), QStringLiteral("-i"), timedAudio,
              QStringLiteral("-f"), QStringLiteral("lavfi"), QStringLiteral("-i"),
              QStringLiteral("anoisesrc=color=pink:amplitude=0.05:sample_rate=16000:seed=7"),
              QStringLiteral("-filter_complex"), QStringLiteral("[0:a][1:a]amix=inputs=2:duration=first:normalize=0"),
              QStringLiteral("-ac"), QStringLiteral("1"), QStringLiteral("-c:a"), QStringLiteral("aac"),
              QStringLiteral("-b:a"), QStringLiteral("32k"), noisyAudio})) {
        std::printf("ffmpeg failed; nothing to measure\n");
        return 1;
    }
    if (qEnvironmentVariableIsSet("QM_BENCH_TRANSCRIPTS"))
        for (const test::PlacedSpeech &sentence : sentences)
            std::printf("  sentence [%7.2f %7.2f] %s\n", sentence.start, sentence.end, qPrintable(sentence.text));
    std::printf("audio: %.0f s of speech (%lld words) then %.0f s of silence\n", *speechEnd,
                static_cast<long long>(words(QString::fromUtf8(knownText)).size()), silenceSeconds);
    const QString python = referencePython();
    // QM_BENCH_TIMING_ONLY=1 measures only the timing section.
    const bool timingOnly = qEnvironmentVariableIsSet("QM_BENCH_TIMING_ONLY");

    bool met = true;
    std::optional<double> baseRtf;
    bool smallMeasured = false;
    for (const auto &[name, path] : found) {
        std::printf("== %s (%s)\n", qPrintable(name), qPrintable(path));
        std::fflush(stdout);
        if (!timingOnly)
            met = speedSection(name, path, audio, warmUp, audioSeconds, *speechEnd, python, baseRtf, smallMeasured) &&
                  met;
        met = timingSection(path, timedAudio, warmUp, timedSeconds, sentences, python, false) && met;
        timingSection(path, noisyAudio, warmUp, timedSeconds, sentences, python, true);
        if (!timingOnly)
            costSection(path, audio, audioSeconds);
    }
    // Without real small weights (none can be fetched here), scale base's measured figure by the larger of the
    // two cost ratios: an upper bound whatever the mix of encoding and decoding.
    if (!smallMeasured && baseRtf) {
        const auto smallCost = shapeCost(QStringLiteral("small")), baseCost = shapeCost(QStringLiteral("base"));
        if (smallCost && baseCost) {
            const double windows = smallCost->window / baseCost->window, tokens = smallCost->token / baseCost->token;
            const double projected = *baseRtf * std::max(windows, tokens);
            std::printf("== small (no real weights here; random weights of its shape)\n"
                        "cost against base: %.1fx a window, %.1fx a token; projected RTF <= %.3f (aim <= 0.20): %s\n",
                        windows, tokens, projected, projected <= 0.2 ? "met" : "missed");
            met = met && projected <= 0.2;
        }
    }
    std::printf("verdict: %s (aims: ours no slower than faster-whisper at equal or better WER, base RTF <= 0.06, "
                "small <= 0.2, no words on silence)\n",
                met ? "met" : "missed");
    return met ? 0 : 1;
}
