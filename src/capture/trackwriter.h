#pragma once

#include "capture/audiosettings.h"
#include "capture/mediasample.h"
#include "library/result.h"

#include <QString>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <variant>

namespace qm {

namespace ff {
class TrackEncoder;
}

// The numbers match what the finish log line prints.
enum class WriterStatus { unknown = 0, writing = 1, completed = 2, failed = 3, cancelled = 4 };

// H.264 settings of the screen track.
struct VideoSettings {
    int width = 2;  // even, at most 1920
    int height = 2; // even
    int frameRate = 15;
    std::int64_t bitRate = 0;
    int keyFrameInterval = 60;

    // Fits `sourceWidth` × `sourceHeight` into at most 1920 pixels wide with even sides; the bit rate is
    // width × height × fps × 0.12 with fps raised to at least 1, the key-frame interval four times `frameRate`.
    static VideoSettings forCapture(int sourceWidth, int sourceHeight, int frameRate);
};

// Writes one captured track to a fragmented MPEG-4 file (10-second fragments, so a capture cut short by a crash
// leaves a readable file up to the last fragment). Audio is AAC or ALAC in ".m4a", video H.264 in ".mov".
//
// Threads: append() is called on the capture thread only and never waits for encoding: samples go through a
// bounded hand-off to the writer's own encoder thread, and a sample that finds it full is dropped and counted.
// start() and finish() are called by the engine, finish() only after the last append().
//
// Time: samples carry host-clock times; the track's time zero is the session start given to start(). Audio
// that begins later, or resumes after a hole, is preceded by silence so the file keeps true times throughout;
// video holds its first picture from time zero.
class TrackWriter {
public:
    static expected<std::unique_ptr<TrackWriter>, QString> createAudio(const QString &path, AudioSettings settings);
    static expected<std::unique_ptr<TrackWriter>, QString> createVideo(const QString &path, VideoSettings settings);
    ~TrackWriter();

    TrackWriter(const TrackWriter &) = delete;
    TrackWriter &operator=(const TrackWriter &) = delete;

    // Begins writing; samples before this are dropped.
    void start(Nanoseconds sessionStart);
    void append(AudioChunk chunk);
    void append(VideoFrame frame);
    // Completes the file and returns true. Returns false when nothing was written (the file is deleted) or
    // writing failed (a file that received samples is kept: it reads up to its last fragment). Logs one line
    // with the counts either way.
    bool finish();

    QString path() const { return m_path; }
    WriterStatus status() const { return m_status.load(); }
    std::int64_t receivedCount() const { return m_received.load(); }
    std::int64_t appendedCount() const { return m_appended.load(); }
    std::int64_t droppedCount() const { return m_dropped.load(); }
    // Samples handed over and not yet encoded.
    std::size_t pendingCount();

    // How much the hand-off holds before it counts as full: seconds of audio (chunk sizes vary with the sound
    // server), pictures of video.
    static constexpr Nanoseconds kAudioQueueLength = 3 * kNanosecondsPerSecond;
    static constexpr std::size_t kVideoQueueDepth = 6;

private:
    struct Encoder;
    static expected<std::unique_ptr<TrackWriter>, QString>
    wrap(const QString &path, bool video, expected<std::unique_ptr<ff::TrackEncoder>, QString> track);
    using Sample = std::variant<AudioChunk, VideoFrame>;

    TrackWriter();
    bool admit(Nanoseconds pts, Nanoseconds duration);
    void enqueue(Sample sample, Nanoseconds duration);
    void run();
    void fail(const QString &reason);

    QString m_path;
    std::unique_ptr<Encoder> m_encoder;
    bool m_video = false;

    std::atomic<WriterStatus> m_status{WriterStatus::unknown};
    std::atomic<std::int64_t> m_received{0};
    std::atomic<std::int64_t> m_appended{0};
    std::atomic<std::int64_t> m_dropped{0};
    std::optional<Nanoseconds> m_lastEnd; // capture thread only

    std::mutex m_mutex;
    std::condition_variable m_wake;
    std::deque<std::pair<Sample, Nanoseconds>> m_queue;
    Nanoseconds m_queuedLength = 0; // audio waiting in m_queue
    bool m_closing = false;
    QString m_error; // guarded by m_mutex
    std::thread m_thread;
};

} // namespace qm
