#pragma once

#include "transcription/speechengine.h"

#include <atomic>
#include <memory>

namespace qm {

namespace whisper {
class ModelLibrary;
class Network;
} // namespace whisper

// Transcription on this computer with a Whisper model: the model chosen by the request (downloaded once
// through the library when it isn't there), the audio decoded and the network run off the main thread with
// one thread per core. The loaded model stays in memory for the next call with the same file.
//
// Progress texts and the result arrive on the main thread. Destroying the engine, or dropping the task it
// returned, stops the inference within one 30-second window. Never separates speakers. Segments carry their
// words' times, to the hundredth of a second, and start and end with their words.
class WhisperEngine : public SpeechEngine {
public:
    explicit WhisperEngine(whisper::ModelLibrary &library);
    ~WhisperEngine() override;

    QCoro::Task<SegmentsResult> transcribe(EngineRequest request, ProgressCallback progress) override;

    // The English name of a language code ("he" → "Hebrew"); the code itself when it has none.
    static QString languageName(const QString &code);

private:
    whisper::ModelLibrary &m_library;
    std::shared_ptr<std::atomic<bool>> m_stop;
    QString m_loadedPath;
    std::shared_ptr<const whisper::Network> m_network;
};

} // namespace qm
