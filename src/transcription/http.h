#pragma once

#include "library/result.h"
#include "transcription/transcriptionerror.h"

#include <QByteArray>
#include <QCoroTask>
#include <QJsonValue>
#include <QNetworkRequest>

#include <chrono>
#include <optional>

class QNetworkAccessManager;

namespace qm {

// How long a request may take. The inactivity limit restarts whenever bytes move in either direction, so a
// long upload or a slow server-side transcription is never cut off while it makes progress.
struct HttpLimits {
    std::chrono::milliseconds inactivity = std::chrono::seconds(900);
    std::chrono::milliseconds total = std::chrono::hours(4);
};

// The request machinery every cloud engine shares. Main thread only.
namespace HTTP {

// The one network access manager of the program, made on first use as a child of the application object
// (so it goes away with it). The application object must exist.
QNetworkAccessManager &session();

// Sends `request`: a POST of `body` when there is one, a GET otherwise. `service` is the provider's display
// name used in errors ("Deepgram").
// Result: the parsed JSON (object or array) of a 2xx answer; `api` for any other status, with a message
// taken from the body's JSON or, failing that, its first 300 bytes; `badResponse` for a 2xx answer that
// isn't JSON (an empty 200 or a 204 included); `network` or `timedOut` when no answer arrives.
// The body of an answer is neither logged nor kept.
QCoro::Task<expected<QJsonValue, TranscriptionError>> send(QNetworkRequest request, std::optional<QByteArray> body,
                                                           QString service, HttpLimits limits = {});

} // namespace HTTP
} // namespace qm
