#pragma once

#include <QString>
#include <QUrl>

#include <optional>

namespace qm {

// What the service hands an engine for one pass. A plain value; the engine never changes it.
struct EngineRequest {
    QUrl audio;                      // local speech file (AAC in MPEG-4) that lives until the call returns
    double duration = 0;             // seconds, the length of `audio`
    std::optional<QString> language; // "en", "he", or none for automatic detection
    bool diarize = false;            // ask the service to tell speakers apart
    QString model;                   // provider's model identifier; empty means the provider's default
    QString apiKey;                  // empty for the on-device engine; never logged
    bool farField = false;           // a room microphone rather than a headset
};

} // namespace qm
