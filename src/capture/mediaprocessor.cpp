#include "capture/mediaprocessor.h"

#include <QCoroFuture>
#include <QDir>
#include <QPromise>

namespace qm {

namespace {
QStringList localPaths(const QList<QUrl> &urls)
{
    QStringList paths;
    for (const QUrl &url : urls)
        paths.append(url.toLocalFile());
    return paths;
}
} // namespace

MediaProcessor::MediaProcessor(QObject *parent) : QObject(parent)
{
    m_pump.setObjectName(QStringLiteral("app.quillmoor.pump"));
    m_worker = new QObject;
    m_worker->moveToThread(&m_pump);
    connect(&m_pump, &QThread::finished, m_worker, &QObject::deleteLater);
    m_pump.start();
}

MediaProcessor::~MediaProcessor()
{
    m_pump.quit();
    m_pump.wait();
}

template <class T> QFuture<T> MediaProcessor::onPump(std::function<T()> work)
{
    auto promise = std::make_shared<QPromise<T>>();
    QFuture<T> future = promise->future();
    promise->start();
    QMetaObject::invokeMethod(m_worker, [promise, work = std::move(work)] {
        promise->addResult(work());
        promise->finish();
    });
    return future;
}

AudioSettings MediaProcessor::finalAudioSettings(AudioQuality quality, bool video)
{
    // A movie can't carry lossless audio here, so it gets the best AAC instead.
    if (video && quality == AudioQuality::lossless)
        quality = AudioQuality::high;
    return audioSettings(quality, 2);
}

QString MediaProcessor::finalMediaName(const Recording &recording)
{
    return QDir(recording.folderPath()).dirName() +
           (recording.hasVideo ? QLatin1String(".mp4") : QLatin1String(".m4a"));
}

QCoro::Task<expected<QString, MediaProcessorError>> MediaProcessor::buildFinalMedia(Recording recording,
                                                                                    AudioQuality quality)
{
    const QString name = finalMediaName(recording);
    const QDir folder(recording.folderPath());
    RenderRequest request;
    request.audioSources = localPaths(recording.audioSourceURLs());
    request.output = folder.filePath(name);
    request.audio = finalAudioSettings(quality, recording.hasVideo);
    if (recording.hasVideo) {
        request.fileType = MediaFileType::mp4;
        request.videoSource =
            folder.filePath(QLatin1String(kSourceFolderName) + u'/' + QLatin1String(kScreenTrackFileName));
    }
    QCoro::Task<expected<void, MediaProcessorError>> job = render(std::move(request));
    const expected<void, MediaProcessorError> rendered = co_await job;
    if (!rendered)
        co_return unexpected(rendered.error());
    co_return name;
}

QCoro::Task<expected<void, MediaProcessorError>> MediaProcessor::exportSpeechAudio(QList<QUrl> sources, QUrl to,
                                                                                   std::optional<TimeRange> timeRange)
{
    RenderRequest request;
    request.audioSources = localPaths(sources);
    request.output = to.toLocalFile();
    request.audio = speechAudioSettings();
    request.timeRange = timeRange;
    QCoro::Task<expected<void, MediaProcessorError>> job = render(std::move(request));
    co_return co_await job;
}

QCoro::Task<expected<void, MediaProcessorError>> MediaProcessor::render(RenderRequest request)
{
    // GCC 12 mishandles temporaries inside a co_await expression, so the future is built beforehand.
    std::function<expected<void, MediaProcessorError>()> work = [request] { return ff::render(request); };
    QFuture<expected<void, MediaProcessorError>> future = onPump(std::move(work));
    co_return co_await future;
}

QCoro::Task<double> MediaProcessor::duration(QUrl url)
{
    std::function<double()> work = [path = url.toLocalFile()] { return ff::mediaDuration(path).value_or(0.0); };
    QFuture<double> future = onPump(std::move(work));
    co_return co_await future;
}

} // namespace qm
