#pragma once

#include "capture/audiosettings.h"
#include "capture/ffmpeg/mediarender.h"
#include "capture/mediaprocessorerror.h"
#include "library/recording.h"
#include "library/result.h"

#include <QCoroTask>
#include <QFuture>
#include <QObject>
#include <QThread>

#include <functional>

namespace qm {

// Joins a recording's tracks into its one media file and makes speech audio for transcription.
//
// Every operation is a coroutine awaited on the main thread; the media work itself runs on the pump thread
// ("app.quillmoor.pump"), one job at a time, so the interface never waits on it. Holds no state about
// recordings: callers pass values in and get values back.
class MediaProcessor : public QObject {
    Q_OBJECT

public:
    explicit MediaProcessor(QObject *parent = nullptr);
    ~MediaProcessor() override;

    // Writes "<folder name>.m4a" (or ".mp4" with video) into the recording's folder and returns that name.
    // Lossless audio becomes AAC 256 kbit/s in a movie.
    QCoro::Task<expected<QString, MediaProcessorError>> buildFinalMedia(Recording recording, AudioQuality quality);
    // 16 kHz mono AAC of the given tracks, whole or the given stretch.
    QCoro::Task<expected<void, MediaProcessorError>> exportSpeechAudio(QList<QUrl> sources, QUrl to,
                                                                       std::optional<TimeRange> timeRange = {});
    QCoro::Task<expected<void, MediaProcessorError>> render(RenderRequest request);
    // Seconds, or 0 when the file can't be read.
    QCoro::Task<double> duration(QUrl url);

    // The settings buildFinalMedia uses for this quality and container.
    static AudioSettings finalAudioSettings(AudioQuality quality, bool video);
    static QString finalMediaName(const Recording &recording);

private:
    template <class T> QFuture<T> onPump(std::function<T()> work);

    QThread m_pump;
    QObject *m_worker = nullptr; // lives on m_pump
};

} // namespace qm
