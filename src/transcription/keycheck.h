#pragma once

#include "library/result.h"
#include "library/settingsvalues.h"
#include "transcription/transcriptionerror.h"

#include <QCoroTask>
#include <QString>
#include <QUrl>

// Whether an API key is accepted by its service, asked with the cheapest authenticated request each one has
// (Deepgram GET /v1/projects, OpenAI GET /v1/models, AssemblyAI GET /v2/transcript?limit=1, ElevenLabs
// GET /v1/user). Nothing is uploaded and nothing is billed.
namespace qm::KeyCheck {

// Where `provider`'s engine sends its requests; a check goes to the same service.
QUrl defaultBase(TranscriptionProvider provider);

// Asks the service. Call on the main thread; the task resumes there. `base` empty means defaultBase(provider).
// The failure is the one the engine would report for the same answer (api with the service's own words,
// network, timedOut, badResponse). A check of the on-device provider succeeds at once: it has no key.
QCoro::Task<expected<void, TranscriptionError>> check(TranscriptionProvider provider, QString key, QUrl base = {});

// "Key works", or the sentence for the failure.
QString message(const expected<void, TranscriptionError> &result);

} // namespace qm::KeyCheck
