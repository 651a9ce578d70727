#pragma once

#include "capture/mediaprocessorerror.h"
#include "library/settingsvalues.h"

#include <QString>

#include <optional>

namespace qm {

// Why a transcription failed. A value, never thrown: every failure of the service and of its engines reaches
// the caller as one of these, and description() is the one sentence the user sees.
struct TranscriptionError {
    enum class Kind {
        missingAPIKey,       // `provider` has no key in the keyring
        unsupportedLanguage, // `message` names the language
        api,                 // `service` answered `status` (0: a job that ended in error) with `message`
        badResponse,         // `service` answered 2xx with something that isn't JSON, or lacked a required field
        modelUnavailable,    // the on-device model is missing; `message` says why
        noSpeech,
        network,  // `service` could not be reached; `message` is the network layer's own words
        timedOut, // `service` stayed silent past the inactivity limit or ran past the total limit
        file,     // a local file could not be used; `message` is the file name, `detail` the reason
        media,    // export of speech audio failed; `mediaError` as the media processor reported it
    };

    Kind kind = Kind::noSpeech;
    TranscriptionProvider provider = TranscriptionProvider::onDevice;
    QString service; // provider display name ("Deepgram") for api, badResponse, network, timedOut
    int status = 0;
    QString message;
    QString detail;
    std::optional<MediaProcessorError> mediaError;

    static TranscriptionError missingAPIKey(TranscriptionProvider provider);
    static TranscriptionError unsupportedLanguage(QString language);
    static TranscriptionError api(QString service, int status, QString message);
    static TranscriptionError badResponse(QString service);
    static TranscriptionError modelUnavailable(QString reason);
    static TranscriptionError noSpeech();
    static TranscriptionError network(QString service, QString reason);
    static TranscriptionError timedOut(QString service);
    static TranscriptionError file(QString fileName, QString reason);
    static TranscriptionError media(MediaProcessorError error);

    QString description() const;
};

} // namespace qm
