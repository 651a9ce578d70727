// Joins an hour of two AAC tracks (and an hour of screen video) the way a finished recording is joined, and
// compares the time with ffmpeg's command line doing the same job on the same files in the same run.

#include "capture/audiosettings.h"
#include "capture/ffmpeg/mediarender.h"

#include "benchtools.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>

#include <cstdio>

using namespace qm;
using qm::bench::ffmpeg;

namespace {

double seconds(const std::function<bool()> &work)
{
    QElapsedTimer timer;
    timer.start();
    if (!work())
        return -1;
    return double(timer.nsecsElapsed()) / 1e9;
}

void report(const char *name, double ours, double reference)
{
    std::printf("%s: ours %.2f s, ffmpeg %.2f s, ratio %.2f (aim <= 1.00)\n", name, ours, reference, ours / reference);
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    const int minutes = argc > 1 ? QString::fromLocal8Bit(argv[1]).toInt() : 60;
    const QString duration = QString::number(minutes * 60);
    const QString cache = QStandardPaths::writableLocation(QStandardPaths::GenericCacheLocation) +
                          QStringLiteral("/quillmoor-bench/%1min").arg(minutes);
    QDir().mkpath(cache);
    const QString meeting = cache + QStringLiteral("/meeting-audio.m4a");
    const QString microphone = cache + QStringLiteral("/microphone.m4a");
    const QString screen = cache + QStringLiteral("/screen.mov");

    const QStringList lavfi{QStringLiteral("-f"), QStringLiteral("lavfi"), QStringLiteral("-i")};
    const bool ready =
        bench::ensureFixture(meeting, lavfi + QStringList{QStringLiteral("anoisesrc=r=48000:a=0.1:d=") + duration,
                                                          QStringLiteral("-ac"), QStringLiteral("2"),
                                                          QStringLiteral("-c:a"), QStringLiteral("aac"),
                                                          QStringLiteral("-b:a"), QStringLiteral("256k")}) &&
        bench::ensureFixture(
            microphone, lavfi + QStringList{QStringLiteral("sine=frequency=220:sample_rate=48000:duration=") + duration,
                                            QStringLiteral("-c:a"), QStringLiteral("aac"), QStringLiteral("-b:a"),
                                            QStringLiteral("128k")}) &&
        bench::ensureFixture(
            screen, lavfi + QStringList{QStringLiteral("testsrc2=size=1280x720:rate=15:duration=") + duration,
                                        QStringLiteral("-c:v"), QStringLiteral("libx264"), QStringLiteral("-preset"),
                                        QStringLiteral("ultrafast"), QStringLiteral("-g"), QStringLiteral("150"),
                                        QStringLiteral("-pix_fmt"), QStringLiteral("yuv420p")});
    if (!ready) {
        std::fprintf(stderr, "could not generate the fixtures (is ffmpeg with libx264 installed?)\n");
        return 1;
    }

    QTemporaryDir out;
    const QString ours = out.filePath(QStringLiteral("ours.m4a"));
    const QString theirs = out.filePath(QStringLiteral("ffmpeg.m4a"));
    std::printf("media_render: %d minutes of two AAC tracks, 1280x720 15 fps screen track\n", minutes);

    RenderRequest audio;
    audio.audioSources = {meeting, microphone};
    audio.output = ours;
    audio.audio = audioSettings(AudioQuality::high, 2);
    const double audioOurs = seconds([&] { return bool(ff::render(audio)); });
    const double audioTheirs = seconds([&] {
        return ffmpeg({QStringLiteral("-i"), meeting, QStringLiteral("-i"), microphone,
                       QStringLiteral("-filter_complex"), QStringLiteral("amix=inputs=2:normalize=0"),
                       QStringLiteral("-c:a"), QStringLiteral("aac"), QStringLiteral("-b:a"), QStringLiteral("256k"),
                       theirs});
    });
    report("audio join (.m4a, high)", audioOurs, audioTheirs);

    RenderRequest video = audio;
    video.videoSource = screen;
    video.fileType = MediaFileType::mp4;
    video.output = out.filePath(QStringLiteral("ours.mp4"));
    const double videoOurs = seconds([&] { return bool(ff::render(video)); });
    const double videoTheirs = seconds([&] {
        return ffmpeg({QStringLiteral("-i"), meeting, QStringLiteral("-i"), microphone, QStringLiteral("-i"), screen,
                       QStringLiteral("-filter_complex"), QStringLiteral("[0:a][1:a]amix=inputs=2:normalize=0[a]"),
                       QStringLiteral("-map"), QStringLiteral("[a]"), QStringLiteral("-map"), QStringLiteral("2:v"),
                       QStringLiteral("-c:v"), QStringLiteral("copy"), QStringLiteral("-c:a"), QStringLiteral("aac"),
                       QStringLiteral("-b:a"), QStringLiteral("256k"), out.filePath(QStringLiteral("ffmpeg.mp4"))});
    });
    report("video join (.mp4, high, H.264 copied)", videoOurs, videoTheirs);
    return audioOurs > 0 && videoOurs > 0 ? 0 : 1;
}
