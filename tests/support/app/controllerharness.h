#pragma once

#include "app/appcontroller.h"
#include "app/appsettings.h"
#include "app/keychain.h"
#include "capture/mediaprocessor.h"
#include "library/recordingstore.h"
#include "meeting/permissions.h"
#include "meeting/zoommonitor.h"
#include "meeting/zoommuteobserver.h"
#include "support/app/controllerfakes.h"
#include "support/capture/fakesound.h"
#include "support/fakesecretstore.h"
#include "transcription/transcriptionservice.h"

#include "meeting/faketicker.h"

#include <QTemporaryDir>

#include <memory>

namespace qm::test {

// Zoom as a script the test moves: running, in a meeting, or neither.
class ScriptedZoom : public ZoomProbes {
public:
    bool running = false;
    bool inMeeting = false;
    QList<int> zoomProcesses() override { return running || inMeeting ? QList<int>{4242} : QList<int>{}; }
    bool zoomIsUsingAudioInput(const QList<int> &) override { return inMeeting; }
    bool zoomHasMeetingWindow(const QList<int> &) override { return inMeeting; }
};

// A whole controller on real parts (settings, library, capture engine, media processor) in a temporary folder,
// with the sound server, Zoom, permissions and notifications as stand-ins, and no automatic transcription or
// Drive copies. Build it in a test's init(), change settings or the library as the case needs, then start().
struct ControllerHarness {
    // `zoomTree`, when given, is the Zoom whose mute button the controller follows.
    explicit ControllerHarness(std::unique_ptr<AccessibilityTree> zoomTree = nullptr);
    ~ControllerHarness();

    // Makes `controller` (which recovers what the library holds, as at a program's start) and returns it.
    AppController &start();
    // Another controller on the same parts: another run of the program beside the first.
    std::unique_ptr<AppController> makeController();

    // Feeds `seconds` of tone into the running capture, in real time, ticking the controller as it goes.
    void record(double seconds);
    // Moves Zoom's state and lets the monitor's debounce see it `polls` times.
    void pollZoom(int polls);
    static bool waitUntilSettled(AppController &controller, int timeoutMs = 60000);

    QTemporaryDir dir;
    FakeSecretStore secrets;
    Keychain keychain;
    std::unique_ptr<AppSettings> settings;
    std::unique_ptr<RecordingStore> store;
    ScriptedZoom *zoomProbes = nullptr;
    FakeTickers zoomTickers;
    std::unique_ptr<ZoomMonitor> zoom;
    std::unique_ptr<Permissions> permissions;
    MediaProcessor media;
    // Makes the speech engine of each transcription (none unless a test gives one).
    std::function<std::unique_ptr<SpeechEngine>()> engine;
    std::unique_ptr<TranscriptionService> transcription;
    RecordingNotifier notifier;
    FakeTickers tickers;
    FakeClock clock;
    FakeSoundServer sound;
    FakeProcessList processes;
    std::unique_ptr<ZoomMuteObserver> muteObserver;
    QDateTime now = QDateTime(QDate(2026, 3, 1), QTime(10, 0), Qt::UTC);
    std::unique_ptr<AppController> controller;
};

} // namespace qm::test
