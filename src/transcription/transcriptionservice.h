#pragma once

#include "library/recording.h"
#include "library/result.h"
#include "library/settingsvalues.h"
#include "library/transcript.h"
#include "transcription/speechengine.h"
#include "transcription/transcriptionerror.h"

#include <QCoroTask>

#include <functional>
#include <memory>

namespace qm {

class MediaProcessor;
class SecretStore;

// The transcription settings one run uses, copied from the application's settings when the run starts.
struct TranscriptionOptions {
    TranscriptionProvider provider = TranscriptionProvider::onDevice;
    TranscriptionLanguage language = TranscriptionLanguage::automatic;
    bool detectSpeakers = true;
    bool labelMyVoice = true;
    QString myName;
    QString model; // the model to ask `provider` for: the user's choice, else the built-in default
};

// Turns one finished recording into one transcript: checks the provider's key, plans one or two passes,
// exports speech audio for each into a private working folder, runs the engine, attributes and numbers
// speakers, merges the passes in time order and tidies them.
//
// Main thread only. transcribe() is a task that resumes on the main thread; the service, the secret store and
// the media processor must outlive it. Writes nothing outside its working folder ("Quillmoor-<UUID>" in the
// temporary directory), which is removed when the task ends, however it ends.
class TranscriptionService {
public:
    // Makes the engine for a provider; nothing when the provider can't be used in this build.
    using EngineFactory = std::function<std::unique_ptr<SpeechEngine>(TranscriptionProvider)>;

    // One pass over some of the recording's tracks.
    struct Job {
        QList<QUrl> sources;
        std::optional<QString> fixedSpeaker; // every segment of the pass gets this speaker
        bool diarize = false;
        QString label; // names the pass in progress texts

        bool operator==(const Job &) const = default;
    };

    // The four cloud engines at their real addresses; nothing for the on-device provider.
    static EngineFactory cloudEngines(MediaProcessor &media);

    TranscriptionService(SecretStore &secrets, MediaProcessor &media, EngineFactory engines);

    // `progress` receives one-line status texts on the main thread, as often as the work moves on.
    QCoro::Task<expected<Transcript, TranscriptionError>> transcribe(Recording recording, TranscriptionOptions options,
                                                                     ProgressCallback progress);

    // Two passes when the user's microphone is to be labelled and both tracks exist (microphone first), else
    // one pass over all the recording's audio.
    static QList<Job> plan(const Recording &recording, const TranscriptionOptions &options);
    // "en", "he", or none for automatic detection.
    static std::optional<QString> languageCode(TranscriptionLanguage language);

private:
    SecretStore &m_secrets;
    MediaProcessor &m_media;
    EngineFactory m_engines;
};

} // namespace qm
