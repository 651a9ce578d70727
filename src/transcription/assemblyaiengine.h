#pragma once

#include "transcription/http.h"
#include "transcription/speechengine.h"

#include <chrono>

namespace qm {

// AssemblyAI's asynchronous interface: upload the file, create a transcript job, poll it every
// `pollInterval` until it completes, then read its utterances, or, when there are none (no diarization),
// its sentences grouped into segments. Times arrive in milliseconds and leave in seconds.
class AssemblyAIEngine : public SpeechEngine {
public:
    static QUrl defaultBase(); // https://api.assemblyai.com/v2

    static constexpr std::chrono::milliseconds kPollInterval{4000};
    // Each poll is a short request; a job still unfinished after the total limit is given up as timed out.
    static constexpr std::chrono::milliseconds kPollRequestLimit{60000};

    explicit AssemblyAIEngine(QUrl base = defaultBase(), HttpLimits limits = {},
                              std::chrono::milliseconds pollInterval = kPollInterval);

    QCoro::Task<SegmentsResult> transcribe(EngineRequest request, ProgressCallback progress) override;

    const QUrl &base() const { return m_base; }

private:
    QNetworkRequest authorized(const QString &path, const EngineRequest &request) const;

    QUrl m_base;
    HttpLimits m_limits;
    std::chrono::milliseconds m_pollInterval;
};

} // namespace qm
