#pragma once

#include "transcription/http.h"
#include "transcription/speechengine.h"

namespace qm {

// Deepgram's pre-recorded interface: the whole file in one request, finished utterances back.
// Speakers come back as the provider's integers written in decimal ("0", "1", …).
class DeepgramEngine : public SpeechEngine {
public:
    static QUrl defaultBase(); // https://api.deepgram.com

    explicit DeepgramEngine(QUrl base = defaultBase(), HttpLimits limits = {});

    QCoro::Task<SegmentsResult> transcribe(EngineRequest request, ProgressCallback progress) override;

private:
    QUrl m_base;
    HttpLimits m_limits;
};

} // namespace qm
