#include "support/app/controllerharness.h"

#include "capture/captureengine.h"

#include <QTest>

namespace qm::test {

ControllerHarness::ControllerHarness(std::unique_ptr<AccessibilityTree> tree)
{
    settings = std::make_unique<AppSettings>(keychain, dir.filePath(QStringLiteral("config")));
    settings->setSaveFolderPath(dir.filePath(QStringLiteral("Library")));
    settings->setAutoTranscribe(false);
    settings->setDriveSyncEnabled(false);
    AppSettings *s = settings.get();
    store = std::make_unique<RecordingStore>([s] { return s->saveFolderPath(); }, nullptr, [this] { return now; });
    store->reload();
    auto probes = std::make_unique<ScriptedZoom>();
    zoomProbes = probes.get();
    zoom = std::make_unique<ZoomMonitor>(std::move(probes), zoomTickers.factory());
    permissions = std::make_unique<Permissions>(std::make_unique<GrantedPermissionSources>());
    transcription = std::make_unique<TranscriptionService>(
        secrets, media, [this](TranscriptionProvider) { return engine ? engine() : std::unique_ptr<SpeechEngine>(); });
    processes.zoom = {4242};
    if (tree)
        muteObserver = std::make_unique<ZoomMuteObserver>(std::move(tree));
}

ControllerHarness::~ControllerHarness() = default;

std::unique_ptr<AppController> ControllerHarness::makeController()
{
    ControllerParts parts{
        .settings = *settings,
        .store = *store,
        .zoom = *zoom,
        .permissions = *permissions,
        .notifier = notifier,
        .media = media,
        .transcription = *transcription,
        .makeEngine = [this] { return std::make_unique<CaptureEngine>(sound, nullptr, processes, clock); },
    };
    parts.muteObserver = muteObserver.get();
    parts.now = [this] { return now; };
    parts.tickers = tickers.factory();
    return std::make_unique<AppController>(std::move(parts));
}

AppController &ControllerHarness::start()
{
    controller = makeController();
    return *controller;
}

void ControllerHarness::record(double seconds)
{
    for (int i = 0; i < int(seconds * 4); ++i) {
        if (sound.meeting.deliver)
            sound.meeting.deliver(toneChunk(clock.now(), 0.25, 2));
        if (sound.microphone.deliver)
            sound.microphone.deliver(toneChunk(clock.now(), 0.25, 1));
        clock.advance(kNanosecondsPerSecond / 4);
        now = now.addMSecs(250);
        // Real time, as the sound server delivers: the capture drops what its encoders can't take.
        QTest::qWait(250);
        if (controller->phase() == AppController::Phase::recording && tickers.last && tickers.last->tick)
            tickers.last->tick();
    }
}

void ControllerHarness::pollZoom(int polls)
{
    for (int i = 0; i < polls; ++i)
        zoomTickers.last->tick();
}

bool ControllerHarness::waitUntilSettled(AppController &controller, int timeoutMs)
{
    return QTest::qWaitFor(
        [&] {
            return controller.phase() == AppController::Phase::idle && !controller.isProcessing() &&
                   controller.activities().isEmpty();
        },
        timeoutMs);
}

} // namespace qm::test
