#pragma once

#include "support/providers/fakeprovider.h"

namespace qm::test {

// OpenAI's audio transcription endpoint, with the per-model response formats, the 25 MiB upload cap, the
// 1400 s length cap of the gpt-4o models and the diarize model's need for a chunking strategy over 30 s.
// Speaker letters restart with every request, as the real service's do.
class FakeOpenAI : public FakeProvider {
protected:
    ScriptedResponse handle(const ReceivedRequest &request) override;
    ScriptedResponse refusal() const override;
};

} // namespace qm::test
