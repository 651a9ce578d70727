// A stopped two-track recording taken through the whole finishing pipeline by the real controller: final media
// file, then transcription through a loopback imitation of Deepgram. Prints seconds per recorded hour for each
// stage, and the final-file stage against ffmpeg's command line mixing the same two tracks in the same run.

#include "app/appcontroller.h"
#include "app/appsettings.h"
#include "app/keychain.h"
#include "capture/mediaprocessor.h"
#include "library/recordingstore.h"
#include "meeting/permissions.h"
#include "meeting/zoommonitor.h"
#include "support/app/controllerfakes.h"
#include "support/fakesecretstore.h"
#include "support/providers/fakedeepgram.h"
#include "transcription/deepgramengine.h"
#include "transcription/transcriptionservice.h"

#include "benchtools.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTimer>

#include <cstdio>

using namespace qm;

namespace {

// The two tracks of a stopped recording, generated once per length.
bool ensureTracks(const QString &meeting, const QString &microphone, const QString &duration)
{
    auto track = [&](const QString &source, int channels, const QString &bitRate) {
        return QStringList{QStringLiteral("-f"),   QStringLiteral("lavfi"),
                           QStringLiteral("-i"),   source,
                           QStringLiteral("-ac"),  QString::number(channels),
                           QStringLiteral("-c:a"), QStringLiteral("aac"),
                           QStringLiteral("-b:a"), bitRate};
    };
    return bench::ensureFixture(
               meeting, track(QStringLiteral("anoisesrc=r=48000:a=0.1:d=") + duration, 2, QStringLiteral("256k"))) &&
           bench::ensureFixture(microphone,
                                track(QStringLiteral("sine=frequency=220:sample_rate=48000:duration=") + duration, 1,
                                      QStringLiteral("128k")));
}

bool waitFor(const std::function<bool()> &done)
{
    while (!done()) {
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 100);
    }
    return true;
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    const int minutes = argc > 1 ? QString::fromLocal8Bit(argv[1]).toInt() : 30;
    const double recorded = minutes * 60.0;
    const QString duration = QString::number(minutes * 60);
    const QString cache = QStandardPaths::writableLocation(QStandardPaths::GenericCacheLocation) +
                          QStringLiteral("/quillmoor-bench/pipeline-%1min").arg(minutes);
    QDir().mkpath(cache);
    const QString meeting = cache + QStringLiteral("/meeting-audio.m4a");
    const QString microphone = cache + QStringLiteral("/microphone.m4a");
    if (!ensureTracks(meeting, microphone, duration)) {
        std::printf("pipeline: could not generate the tracks\n");
        return 1;
    }

    QTemporaryDir scratch;
    Keychain keychain;
    AppSettings settings(keychain, scratch.filePath(QStringLiteral("config")));
    settings.setSaveFolderPath(scratch.filePath(QStringLiteral("Library")));
    settings.setProvider(TranscriptionProvider::deepgram);
    settings.setAutoTranscribe(true);
    settings.setDriveSyncEnabled(false);
    RecordingStore store([&settings] { return settings.saveFolderPath(); });
    store.reload();

    auto made = store.create(RecordingSource::zoom, false);
    if (!made)
        return 1;
    Recording record = *made;
    const QString sourceFolder = record.folderPath() + QStringLiteral("/Source/");
    QFile::copy(meeting, sourceFolder + QLatin1String(kMeetingTrackFileName));
    QFile::copy(microphone, sourceFolder + QLatin1String(kMicrophoneTrackFileName));
    record.state = ProcessingState::processing;
    (void)store.save(record);

    test::FakeDeepgram deepgram;
    deepgram.script = {{QStringLiteral("Let's look at the numbers."), 1.0, 3.0, 0}};
    test::FakeSecretStore secrets;
    secrets.set(deepgram.key, apiKeyAccount(TranscriptionProvider::deepgram));
    MediaProcessor media;
    TranscriptionService transcription(secrets, media, [&deepgram](TranscriptionProvider) {
        return std::make_unique<DeepgramEngine>(deepgram.base());
    });
    ZoomMonitor zoom(std::make_unique<NoZoomProbes>());
    Permissions permissions(std::make_unique<test::GrantedPermissionSources>());
    test::RecordingNotifier notifier;

    // Constructing the controller finds the unfinished recording and finishes it, as after a crash.
    QElapsedTimer timer;
    timer.start();
    AppController controller(ControllerParts{
        .settings = settings,
        .store = store,
        .zoom = zoom,
        .permissions = permissions,
        .notifier = notifier,
        .media = media,
        .transcription = transcription,
        .makeEngine = {},
    });
    waitFor([&] { return store.recording(record.id)->state != ProcessingState::processing; });
    const double finishing = double(timer.nsecsElapsed()) / 1e9;
    waitFor([&] { return !controller.isProcessing(); });
    const double transcribing = double(timer.nsecsElapsed()) / 1e9 - finishing;
    const Recording done = *store.recording(record.id);
    if (done.state != ProcessingState::ready || done.transcriptState != TranscriptState::done) {
        std::printf("pipeline: the recording did not finish: %s\n", qPrintable(done.lastError.value_or(QString())));
        return 1;
    }

    timer.restart();
    const bool referenceRan = bench::ffmpeg(
        {QStringLiteral("-i"), meeting, QStringLiteral("-i"), microphone, QStringLiteral("-filter_complex"),
         QStringLiteral("[1]aresample=48000,pan=stereo|c0=c0|c1=c0[m];[0][m]amix=inputs=2:normalize=0"),
         QStringLiteral("-c:a"), QStringLiteral("aac"), QStringLiteral("-b:a"), QStringLiteral("256k"),
         scratch.filePath(QStringLiteral("reference.m4a"))});
    const double reference = double(timer.nsecsElapsed()) / 1e9;

    const double perHour = 3600.0 / recorded;
    std::printf("pipeline (%d-minute two-track recording):\n", minutes);
    std::printf("  stop to ready: %.1f s per recorded hour", finishing * perHour);
    if (referenceRan)
        std::printf(" (ffmpeg mixing the same tracks: %.1f s per hour, ratio %.2f)", reference * perHour,
                    finishing / reference);
    std::printf("\n  ready to transcript done (fake Deepgram): %.1f s per recorded hour\n", transcribing * perHour);
    std::printf("  total: %.1f s per recorded hour\n", (finishing + transcribing) * perHour);
    return 0;
}
