#include "library/settingsvalues.h"

#include <QCoreApplication>

namespace qm {

namespace {
QString tr(const char *text)
{
    return QCoreApplication::translate("Settings", text);
}
} // namespace

QString label(ZoomStartMode value)
{
    switch (value) {
    case ZoomStartMode::ask:
        return tr("Ask me when a Zoom meeting starts");
    case ZoomStartMode::automatic:
        return tr("Record automatically");
    case ZoomStartMode::manual:
        return tr("Manual – I start recordings myself");
    }
    return {};
}

QString label(CaptureFormat value)
{
    switch (value) {
    case CaptureFormat::audio:
        return tr("Audio only (.m4a)");
    case CaptureFormat::video:
        return tr("Audio + screen video (.mp4)");
    }
    return {};
}

QString label(AudioQuality value)
{
    switch (value) {
    case AudioQuality::standard:
        return tr("Standard – AAC 128 kbps (~60 MB/hour)");
    case AudioQuality::high:
        return tr("High – AAC 256 kbps (~115 MB/hour)");
    case AudioQuality::lossless:
        return tr("Lossless – Apple Lossless (~1 GB/hour)");
    }
    return {};
}

QString label(TranscriptionProvider value)
{
    switch (value) {
    case TranscriptionProvider::onDevice:
        return tr("On-Device (free, private)");
    case TranscriptionProvider::elevenLabs:
        return tr("ElevenLabs Scribe");
    default:
        return shortName(value);
    }
}

QString shortName(TranscriptionProvider value)
{
    switch (value) {
    case TranscriptionProvider::onDevice:
        return tr("On-Device");
    case TranscriptionProvider::elevenLabs:
        return QStringLiteral("ElevenLabs");
    case TranscriptionProvider::assemblyAI:
        return QStringLiteral("AssemblyAI");
    case TranscriptionProvider::openAI:
        return QStringLiteral("OpenAI");
    case TranscriptionProvider::deepgram:
        return QStringLiteral("Deepgram");
    }
    return {};
}

QString label(TranscriptionLanguage value)
{
    switch (value) {
    case TranscriptionLanguage::automatic:
        return tr("Auto-detect");
    case TranscriptionLanguage::english:
        return tr("English");
    case TranscriptionLanguage::hebrew:
        return tr("Hebrew");
    }
    return {};
}

QString defaultModel(TranscriptionProvider provider)
{
    switch (provider) {
    case TranscriptionProvider::elevenLabs:
        return QStringLiteral("scribe_v1");
    case TranscriptionProvider::openAI:
        return QStringLiteral("gpt-4o-transcribe-diarize");
    case TranscriptionProvider::deepgram:
        return QStringLiteral("nova-3");
    case TranscriptionProvider::assemblyAI:
    case TranscriptionProvider::onDevice:
        return {};
    }
    return {};
}

QString apiKeyAccount(TranscriptionProvider provider)
{
    return QLatin1String("apikey.") + rawValue(provider);
}

} // namespace qm
