#pragma once

#include "library/result.h"
#include "library/transcript.h"
#include "transcription/enginerequest.h"
#include "transcription/transcriptionerror.h"

#include <QCoroTask>
#include <QList>

#include <functional>

namespace qm {

using Segments = QList<TranscriptSegment>;
using SegmentsResult = expected<Segments, TranscriptionError>;
// Receives a one-line status text. Always called on the main thread.
using ProgressCallback = std::function<void(const QString &)>;

// One way of turning a speech file into timed segments: a cloud service or the on-device model.
//
// transcribe() is started and awaited on the main thread and reports progress there; an engine may run its
// own work elsewhere but resumes on the main thread. Segment times are seconds from the start of
// `request.audio`; speaker labels are the engine's raw ones (normalised later by the service) or none.
// One call at a time per engine object; the engine must outlive the task it returns.
class SpeechEngine {
public:
    virtual ~SpeechEngine() = default;

    virtual QCoro::Task<SegmentsResult> transcribe(EngineRequest request, ProgressCallback progress) = 0;
};

} // namespace qm
