#pragma once

#include "transcription/whisper/whispermodel.h"

namespace qm::whisper {

// An English-only model of a published size ("tiny", "base", "small" or "medium") with random weights: the
// same work per window and per token as the real one, for timing a size whose weights aren't at hand. Its
// words mean nothing.
expected<Model, ModelError> randomModel(const QString &size);

} // namespace qm::whisper
