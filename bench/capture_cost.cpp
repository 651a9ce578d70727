// What a live capture costs: CPU seconds per recorded minute and peak memory, for two audio tracks and then
// with full-HD screen video, against ffmpeg's command line recording the same sources in the same run.
// Needs the private session of scripts/session (sound server with "speakers" and "microphone", Xvfb).

#include "capture/captureengine.h"
#include "capture/proc/zoomprocesses.h"
#include "capture/pulse/pulsesoundserver.h"
#include "capture/x11/x11screensource.h"

#include <QCoreApplication>
#include <QCoroTask>
#include <QProcess>
#include <QTemporaryDir>
#include <QThread>

#include <sys/resource.h>

#include <cstdio>

using namespace qm;

namespace {

double cpuSeconds(int who)
{
    rusage usage{};
    getrusage(who, &usage);
    return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

long peakKilobytes(int who)
{
    rusage usage{};
    getrusage(who, &usage);
    return usage.ru_maxrss;
}

// Something to hear on both tracks for the whole run.
QProcess *playNoise(const QString &sink, int seconds)
{
    auto *player = new QProcess;
    player->start(
        QStringLiteral("sh"),
        {QStringLiteral("-c"), QStringLiteral("sox -q -n -r 48000 -c 2 -b 16 -t wav - synth %1 pinknoise vol 0.3 | "
                                              "paplay --latency-msec=20 --device=%2")
                                   .arg(seconds)
                                   .arg(sink)});
    return player;
}

struct Run {
    double cpu = 0;
    long peakKb = 0;
    std::int64_t dropped = 0;
};

Run ours(const QString &folder, bool video, int seconds)
{
    MonotonicClock clock;
    PulseSoundServer sound(clock);
    X11ScreenSource screen;
    ProcZoomProcesses processes;
    CaptureEngine engine(sound, &screen, processes, clock);
    Recording recording;
    recording.source = RecordingSource::systemAudio;
    recording.folder = QUrl::fromLocalFile(folder);
    CaptureConfiguration configuration = CaptureConfiguration::forRecording(recording);
    configuration.captureVideo = video;
    configuration.frameRate = 15;
    configuration.quality = AudioQuality::high;

    const double before = cpuSeconds(RUSAGE_SELF);
    const auto started = QCoro::waitFor(engine.start(configuration));
    if (!started) {
        std::fprintf(stderr, "capture didn't start: %s\n", qPrintable(started.error().description()));
        return {};
    }
    QThread::sleep(unsigned(seconds));
    const CaptureResult result = QCoro::waitFor(engine.stop());
    return {cpuSeconds(RUSAGE_SELF) - before, peakKilobytes(RUSAGE_SELF), result.droppedSamples};
}

Run reference(const QString &folder, bool video, int seconds)
{
    // Every input is limited, so every output ends with it.
    const QStringList limit{QStringLiteral("-t"), QString::number(seconds)};
    auto pulse = [&](const char *source) {
        return limit +
               QStringList{QStringLiteral("-f"), QStringLiteral("pulse"), QStringLiteral("-i"), QLatin1String(source)};
    };
    QStringList arguments = QStringList{QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-y")} +
                            pulse("speakers.monitor") + pulse("microphone");
    if (video)
        arguments << limit << QStringLiteral("-f") << QStringLiteral("x11grab") << QStringLiteral("-framerate")
                  << QStringLiteral("15") << QStringLiteral("-video_size") << QStringLiteral("1920x1080")
                  << QStringLiteral("-i") << qEnvironmentVariable("DISPLAY");
    arguments << QStringLiteral("-map") << QStringLiteral("0:a") << QStringLiteral("-c:a") << QStringLiteral("aac")
              << QStringLiteral("-aac_coder") << QStringLiteral("fast") << QStringLiteral("-b:a")
              << QStringLiteral("256k") << folder + QStringLiteral("/meeting.m4a") << QStringLiteral("-map")
              << QStringLiteral("1:a") << QStringLiteral("-c:a") << QStringLiteral("aac")
              << QStringLiteral("-aac_coder") << QStringLiteral("fast") << QStringLiteral("-b:a")
              << QStringLiteral("128k") << folder + QStringLiteral("/microphone.m4a");
    if (video)
        arguments << QStringLiteral("-map") << QStringLiteral("2:v") << QStringLiteral("-c:v")
                  << QStringLiteral("libx264") << QStringLiteral("-preset") << QStringLiteral("ultrafast")
                  << QStringLiteral("-tune") << QStringLiteral("zerolatency") << QStringLiteral("-pix_fmt")
                  << QStringLiteral("yuv420p") << folder + QStringLiteral("/screen.mov");
    const double before = cpuSeconds(RUSAGE_CHILDREN);
    QProcess ffmpeg;
    ffmpeg.start(QStringLiteral("ffmpeg"), arguments);
    ffmpeg.waitForFinished(-1);
    return {cpuSeconds(RUSAGE_CHILDREN) - before, peakKilobytes(RUSAGE_CHILDREN), 0};
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    const int seconds = argc > 1 ? QString::fromLocal8Bit(argv[1]).toInt() : 60;
    QProcess probe;
    probe.start(QStringLiteral("pactl"), {QStringLiteral("info")});
    if (!probe.waitForFinished(5000) || probe.exitCode() != 0 || qEnvironmentVariableIsEmpty("DISPLAY")) {
        std::fprintf(stderr, "capture_cost needs the session of scripts/session (run scripts/bench)\n");
        return 1;
    }
    std::printf("capture_cost: %d s per run, system audio + microphone at high quality\n", seconds);
    bool met = true;
    for (const bool video : {false, true}) {
        QTemporaryDir dir;
        QProcess *speakers = playNoise(QStringLiteral("speakers"), seconds * 2 + 10);
        QProcess *room = playNoise(QStringLiteral("room"), seconds * 2 + 10);
        const Run mine = ours(dir.filePath(QStringLiteral("ours")), video, seconds);
        QDir().mkpath(dir.filePath(QStringLiteral("ffmpeg")));
        const Run theirs = reference(dir.filePath(QStringLiteral("ffmpeg")), video, seconds);
        speakers->kill();
        room->kill();
        const double perMinute = mine.cpu * 60.0 / seconds;
        const double share = 100.0 * mine.cpu / seconds;
        std::printf("%s: %.2f CPU s per recorded minute (%.1f%% of one core), peak memory %ld MiB, %lld dropped; "
                    "ffmpeg %.2f CPU s per minute; ratio %.2f\n",
                    video ? "audio + 1920x1080 video at 15 fps" : "audio only", perMinute, share, mine.peakKb / 1024,
                    static_cast<long long>(mine.dropped), theirs.cpu * 60.0 / seconds, mine.cpu / theirs.cpu);
        met = met && mine.dropped == 0 && share < (video ? 25.0 : 1.0);
        delete speakers;
        delete room;
    }
    std::printf("verdict: %s (aims: audio under 1%% of a core with no drops, video under 25%%)\n",
                met ? "MET" : "MISSED");
    return met ? 0 : 1;
}
