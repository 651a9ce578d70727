#include "transcription/transcriptionerror.h"

#include <QCoreApplication>

namespace qm {

namespace {
QString tr(const char *text)
{
    return QCoreApplication::translate("TranscriptionError", text);
}
} // namespace

TranscriptionError TranscriptionError::missingAPIKey(TranscriptionProvider provider)
{
    TranscriptionError e;
    e.kind = Kind::missingAPIKey;
    e.provider = provider;
    return e;
}

TranscriptionError TranscriptionError::unsupportedLanguage(QString language)
{
    TranscriptionError e;
    e.kind = Kind::unsupportedLanguage;
    e.message = std::move(language);
    return e;
}

TranscriptionError TranscriptionError::api(QString service, int status, QString message)
{
    TranscriptionError e;
    e.kind = Kind::api;
    e.service = std::move(service);
    e.status = status;
    e.message = std::move(message);
    return e;
}

TranscriptionError TranscriptionError::badResponse(QString service)
{
    TranscriptionError e;
    e.kind = Kind::badResponse;
    e.service = std::move(service);
    return e;
}

TranscriptionError TranscriptionError::modelUnavailable(QString reason)
{
    TranscriptionError e;
    e.kind = Kind::modelUnavailable;
    e.message = std::move(reason);
    return e;
}

TranscriptionError TranscriptionError::noSpeech()
{
    return {};
}

TranscriptionError TranscriptionError::network(QString service, QString reason)
{
    TranscriptionError e;
    e.kind = Kind::network;
    e.service = std::move(service);
    e.message = std::move(reason);
    return e;
}

TranscriptionError TranscriptionError::timedOut(QString service)
{
    TranscriptionError e;
    e.kind = Kind::timedOut;
    e.service = std::move(service);
    return e;
}

TranscriptionError TranscriptionError::file(QString fileName, QString reason)
{
    TranscriptionError e;
    e.kind = Kind::file;
    e.message = std::move(fileName);
    e.detail = std::move(reason);
    return e;
}

TranscriptionError TranscriptionError::media(MediaProcessorError error)
{
    TranscriptionError e;
    e.kind = Kind::media;
    e.mediaError = std::move(error);
    return e;
}

QString TranscriptionError::description() const
{
    switch (kind) {
    case Kind::missingAPIKey:
        return tr("Add your ") + shortName(provider) + tr(" API key in Settings \u203A Transcription.");
    case Kind::unsupportedLanguage:
        return tr("On-device transcription doesn't support \u201C") + message + tr("\u201D with the selected model.");
    case Kind::api:
        return service + tr(" error ") + QString::number(status) + QLatin1String(": ") + message;
    case Kind::badResponse:
        return service + tr(" returned a response Quillmoor couldn't read.");
    case Kind::modelUnavailable:
        return tr("The on-device speech model isn't installed and couldn't be downloaded: ") + message;
    case Kind::noSpeech:
        return tr("No speech was found in this recording.");
    case Kind::network:
        return tr("Quillmoor couldn't reach ") + service + QLatin1String(": ") + message + u'.';
    case Kind::timedOut:
        return service + tr(" stopped answering, so the transcription was cancelled.");
    case Kind::file:
        return tr("Quillmoor couldn't use the file \u201C") + message + QLatin1String("\u201D: ") + detail;
    case Kind::media:
        return mediaError ? mediaError->description() : QString();
    }
    return {};
}

} // namespace qm
