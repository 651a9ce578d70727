#pragma once

#include "capture/captureengine.h"
#include "support/capture/fakesound.h"

#include <QByteArray>
#include <QList>
#include <QString>

#include <memory>

namespace qm::test {

// A capture engine filming through a given screen source, on the real host clock, with a fake sound server
// whose meeting track the test feeds with a tone, so that a screen source is tested the way recordings use it.
class CastRecorder {
public:
    CastRecorder(ScreenSource &screen, const QString &folder);
    ~CastRecorder();

    expected<void, CaptureFailure> start(int fps, RecordingSource source = RecordingSource::systemAudio);
    // Plays `seconds` of tone into the meeting track in real time, handling events meanwhile.
    void play(double seconds);
    CaptureResult stop();

    CaptureEngine &engine() { return *m_engine; }
    QString screenPath() const;
    QString meetingPath() const;

private:
    MonotonicClock m_clock;
    FakeSoundServer m_sound;
    FakeProcessList m_processes;
    CaptureConfiguration m_configuration;
    std::unique_ptr<CaptureEngine> m_engine;
    Nanoseconds m_audioAt = 0;
};

// The video track decoded to `width` × `height` grey pictures, one byte a pixel.
QList<QByteArray> greyFrames(const QString &path, int width, int height);

} // namespace qm::test
