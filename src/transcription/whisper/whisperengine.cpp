#include "transcription/whisper/whisperengine.h"

#include "transcription/whisper/modellibrary.h"
#include "transcription/whisper/network.h"
#include "transcription/whisper/speechaudio.h"
#include "transcription/whisper/tokens.h"
#include "transcription/whisper/transcriber.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QFuture>
#include <QLocale>
#include <QtConcurrent/QtConcurrentRun>

#include <QCoroFuture>

#include <cmath>

namespace qm {

namespace {

QString tr(const char *text)
{
    return QCoreApplication::translate("WhisperEngine", text);
}

struct Prepared {
    std::vector<float> samples;
    std::shared_ptr<const whisper::Network> network;
};

// Raises the stop flag when the coroutine ends, including when its frame is destroyed unfinished.
struct StopOnExit {
    std::shared_ptr<std::atomic<bool>> flag;
    ~StopOnExit() { flag->store(true); }
};

} // namespace

WhisperEngine::WhisperEngine(whisper::ModelLibrary &library) : m_library(library) {}

WhisperEngine::~WhisperEngine()
{
    if (m_stop)
        m_stop->store(true);
}

QString WhisperEngine::languageName(const QString &code)
{
    const QLocale locale(code);
    return locale.language() == QLocale::C ? code : QLocale::languageToString(locale.language());
}

QCoro::Task<SegmentsResult> WhisperEngine::transcribe(EngineRequest request, ProgressCallback progress)
{
    const QString model = whisper::ModelLibrary::chosenModel(request.model, request.language);
    const std::optional<QString> language = request.language;
    if (language && (!whisper::languageCodes().contains(*language) ||
                     (*language != QLatin1String("en") && whisper::ModelLibrary::isEnglishOnly(model))))
        co_return unexpected(TranscriptionError::unsupportedLanguage(languageName(*language)));

    // The flag outlives the engine: once it is up, nothing after an await may touch the engine.
    auto stop = std::make_shared<std::atomic<bool>>(false);
    if (m_stop)
        m_stop->store(true);
    m_stop = stop;
    const StopOnExit guard{stop};

    const QString downloading = tr("Downloading speech model (one time)\u2026");
    if (!m_library.isInstalled(model))
        progress(downloading);
    int shownDownload = -1;
    auto ensuring = m_library.ensure(model, [&progress, &shownDownload, downloading](double fraction) {
        const int percent = int(fraction * 100);
        if (percent != shownDownload)
            progress(downloading + u' ' + QString::number(percent) + u'%');
        shownDownload = percent;
    });
    const expected<QString, TranscriptionError> path = co_await ensuring;
    if (stop->load())
        co_return Segments{};
    if (!path)
        co_return unexpected(path.error());

    const QString transcribing = tr("Transcribing on this computer\u2026");
    progress(transcribing);
    std::shared_ptr<const whisper::Network> cached = m_loadedPath == *path ? m_network : nullptr;
    const QString audioPath = request.audio.toLocalFile();
    QFuture<expected<Prepared, TranscriptionError>> preparing =
        QtConcurrent::run([audioPath, modelPath = *path, cached]() -> expected<Prepared, TranscriptionError> {
            Prepared prepared;
            auto samples = whisper::readSpeechAudio(audioPath);
            if (!samples)
                return unexpected(TranscriptionError::file(QFileInfo(audioPath).fileName(), samples.error()));
            prepared.samples = std::move(*samples);
            prepared.network = cached;
            if (!prepared.network) {
                auto loaded = whisper::loadModel(modelPath);
                if (!loaded)
                    return unexpected(TranscriptionError::modelUnavailable(loaded.error().reason));
                auto network = whisper::Network::create(std::move(*loaded));
                if (!network)
                    return unexpected(TranscriptionError::modelUnavailable(network.error().reason));
                prepared.network = std::move(*network);
            }
            return prepared;
        });
    expected<Prepared, TranscriptionError> prepared = co_await preparing;
    if (stop->load())
        co_return Segments{};
    if (!prepared)
        co_return unexpected(prepared.error());
    m_loadedPath = *path;
    m_network = prepared->network;

    // Percentages hop to the main thread, and are dropped there once this call has ended.
    auto report = [stop, progress, transcribing, shown = std::make_shared<std::atomic<int>>(-1)](double fraction) {
        const int percent = int(fraction * 100);
        if (shown->exchange(percent) == percent || stop->load())
            return;
        QMetaObject::invokeMethod(
            QCoreApplication::instance(),
            [stop, progress, transcribing, percent] {
                if (!stop->load())
                    progress(transcribing + u' ' + QString::number(percent) + u'%');
            },
            Qt::QueuedConnection);
    };
    whisper::TranscribeOptions options;
    options.language = language;
    options.cancel = stop.get();
    options.progress = report;
    QFuture<whisper::Transcription> running = QtConcurrent::run(
        [network = prepared->network, samples = std::move(prepared->samples), options, stop]() mutable {
            const whisper::LogMel mel =
                whisper::logMelSpectrogram(samples, network->melFilters(), network->hparams().melBins);
            samples = {}; // the spectrogram is all inference needs; long recordings keep half the memory
            whisper::Session session(network);
            return whisper::transcribe(session, mel, options);
        });
    const whisper::Transcription result = co_await running;
    if (stop->load() || result.cancelled)
        co_return Segments{};

    // Hundredths of a second: what the model resolves, and short in the transcript file.
    const auto rounded = [](double seconds) { return std::round(seconds * 100.0) / 100.0; };
    Segments segments;
    for (const whisper::TimedText &piece : result.segments) {
        QList<TranscriptWord> words;
        for (const whisper::WordTiming &word : piece.words)
            words.append(TranscriptWord{rounded(word.start), rounded(word.end), word.text});
        segments.append(TranscriptSegment{QUuid::createUuid(), rounded(piece.start), rounded(piece.end), std::nullopt,
                                          piece.text, words});
    }
    co_return segments;
}

} // namespace qm
