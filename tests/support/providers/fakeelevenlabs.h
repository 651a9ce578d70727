#pragma once

#include "support/providers/fakeprovider.h"

namespace qm::test {

// ElevenLabs' speech-to-text endpoint: timed words interleaved with spacing entries, speakers as
// "speaker_0", "speaker_1", … when diarization was asked for.
class FakeElevenLabs : public FakeProvider {
protected:
    ScriptedResponse handle(const ReceivedRequest &request) override;
    ScriptedResponse refusal() const override;
};

} // namespace qm::test
