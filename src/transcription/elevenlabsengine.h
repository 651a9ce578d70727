#pragma once

#include "transcription/http.h"
#include "transcription/speechengine.h"

namespace qm {

// ElevenLabs' speech-to-text interface: one multipart request with the whole file; timed words with speaker
// identifiers ("speaker_0") come back and are grouped into segments.
class ElevenLabsEngine : public SpeechEngine {
public:
    static QUrl defaultBase(); // https://api.elevenlabs.io

    explicit ElevenLabsEngine(QUrl base = defaultBase(), HttpLimits limits = {});

    QCoro::Task<SegmentsResult> transcribe(EngineRequest request, ProgressCallback progress) override;

private:
    QUrl m_base;
    HttpLimits m_limits;
};

} // namespace qm
