#pragma once

#include "library/enumtext.h"

#include <QString>

namespace qm {

// The enumerated settings. They live with the library because capture and transcription read them too.
enum class ZoomStartMode { manual, ask, automatic };
enum class CaptureFormat { audio, video };
enum class AudioQuality { standard, high, lossless };
enum class TranscriptionProvider { onDevice, elevenLabs, assemblyAI, openAI, deepgram };
enum class TranscriptionLanguage { automatic, english, hebrew };

template <> struct EnumText<ZoomStartMode> {
    static constexpr std::array<std::pair<ZoomStartMode, const char *>, 3> cases{{
        {ZoomStartMode::manual, "manual"},
        {ZoomStartMode::ask, "ask"},
        {ZoomStartMode::automatic, "automatic"},
    }};
};
template <> struct EnumText<CaptureFormat> {
    static constexpr std::array<std::pair<CaptureFormat, const char *>, 2> cases{{
        {CaptureFormat::audio, "audio"},
        {CaptureFormat::video, "video"},
    }};
};
template <> struct EnumText<AudioQuality> {
    static constexpr std::array<std::pair<AudioQuality, const char *>, 3> cases{{
        {AudioQuality::standard, "standard"},
        {AudioQuality::high, "high"},
        {AudioQuality::lossless, "lossless"},
    }};
};
template <> struct EnumText<TranscriptionProvider> {
    static constexpr std::array<std::pair<TranscriptionProvider, const char *>, 5> cases{{
        {TranscriptionProvider::onDevice, "onDevice"},
        {TranscriptionProvider::elevenLabs, "elevenLabs"},
        {TranscriptionProvider::assemblyAI, "assemblyAI"},
        {TranscriptionProvider::openAI, "openAI"},
        {TranscriptionProvider::deepgram, "deepgram"},
    }};
};
// `auto` is a C++ keyword, so the case is spelled `automatic`; its stored text is still "auto".
template <> struct EnumText<TranscriptionLanguage> {
    static constexpr std::array<std::pair<TranscriptionLanguage, const char *>, 3> cases{{
        {TranscriptionLanguage::automatic, "auto"},
        {TranscriptionLanguage::english, "english"},
        {TranscriptionLanguage::hebrew, "hebrew"},
    }};
};

// Texts the settings window shows for each case (translated).
QString label(ZoomStartMode value);
QString label(CaptureFormat value);
QString label(AudioQuality value);
QString label(TranscriptionProvider value);
QString label(TranscriptionLanguage value);
// The provider's name inside sentences ("On-Device", "ElevenLabs").
QString shortName(TranscriptionProvider value);

// The cloud services that need an API key, in the order keys are migrated.
inline constexpr std::array<TranscriptionProvider, 4> kCloudProviders{
    TranscriptionProvider::elevenLabs, TranscriptionProvider::assemblyAI, TranscriptionProvider::openAI,
    TranscriptionProvider::deepgram};

// Model requested from a provider when the user has not chosen one; empty means the service's default.
QString defaultModel(TranscriptionProvider provider);
// Keyring account holding a provider's API key: "apikey." + the provider's stored text.
QString apiKeyAccount(TranscriptionProvider provider);

// Keyring service under which this program keeps its secrets.
inline constexpr const char *kKeyringService = "app.quillmoor.Quillmoor";

} // namespace qm
