#pragma once

#include "transcription/http.h"
#include "transcription/speechengine.h"

namespace qm {

class MediaProcessor;

// OpenAI's transcription interface. It takes files of limited length, so a recording more than a minute
// longer than `chunkSeconds` is cut into parts of at most that length, written next to the request's audio
// ("part-0.m4a", …), sent one after another, and their segments shifted back onto the recording's time line.
// The response format, and with it whether speakers come back, follows from the model name.
class OpenAIEngine : public SpeechEngine {
public:
    static QUrl defaultBase(); // https://api.openai.com

    // `media` cuts the parts and measures them; it must outlive every call.
    OpenAIEngine(MediaProcessor &media, double chunkSeconds, QUrl base = defaultBase(), HttpLimits limits = {});

    QCoro::Task<SegmentsResult> transcribe(EngineRequest request, ProgressCallback progress) override;

    double chunkSeconds() const { return m_chunkSeconds; }

private:
    QCoro::Task<SegmentsResult> transcribeFile(QUrl file, EngineRequest request);

    MediaProcessor &m_media;
    double m_chunkSeconds;
    QUrl m_base;
    HttpLimits m_limits;
};

} // namespace qm
