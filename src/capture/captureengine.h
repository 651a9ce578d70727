#pragma once

#include "capture/captureconfiguration.h"
#include "capture/capturefailure.h"
#include "capture/capturequeue.h"
#include "capture/hostclock.h"
#include "capture/mediasample.h"
#include "library/result.h"

#include <QCoroTask>
#include <QObject>

#include <array>
#include <memory>
#include <optional>

namespace qm {

class MicrophonePrivacy;
class ProcessList;
class ScreenSource;
class SoundServer;
class TrackWriter;

// Which tracks a stopped capture completed.
struct CaptureResult {
    bool meeting = false;
    bool microphone = false;
    bool screen = false;
    std::int64_t droppedSamples = 0; // refused by the writers because they were full or out of order

    bool operator==(const CaptureResult &other) const
    {
        return meeting == other.meeting && microphone == other.microphone && screen == other.screen;
    }
};

// Runs one live capture: meeting audio, microphone and screen into their own track files on one clock, with
// pauses left out, the microphone silenced while muted, and both audio levels metered.
//
// Lives on the main thread. Samples arrive on the sound server's and screen source's threads and are handled
// on the capture queue "app.quillmoor.capture", the only place the capture state changes. levelsChanged and
// failed are emitted on the main thread. One engine serves one capture.
class CaptureEngine : public QObject {
    Q_OBJECT

public:
    enum class Kind { meeting, microphone, screen };

    // `privacy`, when given, is asked before a capture that records the microphone starts; it must outlive
    // the engine.
    CaptureEngine(SoundServer &sound, ScreenSource *screen, ProcessList &processes, const HostClock &clock,
                  const MicrophonePrivacy *privacy = nullptr, QObject *parent = nullptr);
    ~CaptureEngine() override;

    // Opens the tracks and sources and starts writing. On failure nothing keeps running; track files already
    // made are removed with the engine. While the desktop's privacy switch disables the microphone, a capture
    // that records it fails with microphonePermissionDenied before any track is opened.
    QCoro::Task<expected<void, CaptureFailure>> start(CaptureConfiguration configuration);
    // Applied on the capture queue; return at once.
    void setPaused(bool paused);
    void setMicrophoneMuted(bool muted);
    // Stops every source, then completes the track files. Never fails.
    QCoro::Task<CaptureResult> stop();

    // What is being filmed ("Zoom meeting window" or a display's name), once started with video.
    QString videoDescription() const { return m_videoDescription; }

    // The parts of the work that block (opening devices, completing files), for callers off the main thread.
    expected<void, CaptureFailure> startBlocking(const CaptureConfiguration &configuration);
    CaptureResult stopBlocking();

    // Waits until every sample handed over so far has been handled on the capture queue and encoded.
    void drain();

    // Level of interleaved float audio: RMS in dBFS mapped so that -60 dB and below is 0 and full scale is 1.
    static float level(const float *samples, std::size_t count);

Q_SIGNALS:
    void levelsChanged(float microphone, float meeting);
    void failed(const QString &reason);
    // The screen stopped sending pictures (sharing ended from the desktop, the monitor went away). The video
    // track ends there; the sound goes on being recorded.
    void videoStopped(const QString &reason);

private:
    struct State;

    expected<void, CaptureFailure> openVideo(const CaptureConfiguration &configuration,
                                             const QList<int> &zoomProcesses);
    void handle(Kind kind, AudioChunk chunk);
    void handle(VideoFrame frame);
    // Shared by both kinds of sample; false when the sample is not to be written. Runs on the queue.
    bool admit(Kind kind, Nanoseconds &pts, const AudioChunk *audio);
    void reportLevelsIfDue();
    void reportFailure(const QString &reason);

    SoundServer &m_sound;
    ScreenSource *m_screen;
    ProcessList &m_processes;
    const HostClock &m_clock;
    const MicrophonePrivacy *m_privacy;
    std::unique_ptr<CaptureQueue> m_queue;
    std::unique_ptr<State> m_state; // touched only on m_queue once capture runs
    std::array<std::unique_ptr<TrackWriter>, 3> m_writers;
    QString m_videoDescription;
    bool m_soundStarted = false;
    bool m_screenStarted = false;
};

} // namespace qm
