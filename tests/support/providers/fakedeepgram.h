#pragma once

#include "support/providers/fakeprovider.h"

namespace qm::test {

// Deepgram's pre-recorded listen endpoint. Speakers are integers from 0; every utterance carries one, even
// when diarization was not asked for, so a client must ignore them then.
class FakeDeepgram : public FakeProvider {
public:
    // Answer with an empty utterance list and only the channel transcript.
    bool channelOnly = false;

protected:
    ScriptedResponse handle(const ReceivedRequest &request) override;
    ScriptedResponse refusal() const override;

private:
    QJsonObject success(const QList<Heard> &stretches, const Mp4Audio &audio, bool detectLanguage) const;
};

} // namespace qm::test
