#include "ui/settings/providerfields.h"

#include <QCoreApplication>

namespace qm::ui {

namespace {

QString tr(const char *text)
{
    return QCoreApplication::translate("qm::ui::ProviderFields", text);
}

} // namespace

namespace KeyField {

QString mask()
{
    // Characters no key contains, so typing around the mask can be told from a key.
    return QString(16, QChar(0x2022));
}

QString typedKey(const QString &text)
{
    QString key = text;
    // Typing after the dots instead of over them still means "this is the new key".
    while (key.startsWith(QChar(0x2022)))
        key.remove(0, 1);
    return key.trimmed();
}

Edit editFor(const QString &text, bool stored)
{
    if (stored && text == mask())
        return {};
    const QString key = typedKey(text);
    if (!key.isEmpty())
        return {Edit::Kind::store, key};
    return stored ? Edit{Edit::Kind::remove, {}} : Edit{};
}

QString status(TranscriptionProvider provider, bool keyringAvailable, bool stored)
{
    if (!keyringAvailable)
        return tr("No keyring is available, so API keys can't be saved. Install and unlock GNOME Keyring or "
                  "KWallet.");
    if (stored)
        return tr("Key saved in your keyring");
    return tr("No key saved. Paste your %1 API key and press Return.").arg(shortName(provider));
}

} // namespace KeyField

QString modelHint(TranscriptionProvider provider)
{
    switch (provider) {
    case TranscriptionProvider::elevenLabs:
        return tr("e.g. scribe_v1, scribe_v2");
    case TranscriptionProvider::assemblyAI:
        return tr("Leave empty for AssemblyAI's default model");
    case TranscriptionProvider::deepgram:
        return tr("e.g. nova-3, nova-2, whisper-large");
    case TranscriptionProvider::openAI:
        return tr("gpt-4o-transcribe-diarize (speakers) or whisper-1");
    case TranscriptionProvider::onDevice:
        break;
    }
    return {};
}

QStringList modelSuggestions(TranscriptionProvider provider)
{
    switch (provider) {
    case TranscriptionProvider::elevenLabs:
        return {QStringLiteral("scribe_v1"), QStringLiteral("scribe_v2")};
    case TranscriptionProvider::assemblyAI:
        return {QStringLiteral("universal"), QStringLiteral("slam-1"), QStringLiteral("best"), QStringLiteral("nano")};
    case TranscriptionProvider::deepgram:
        return {QStringLiteral("nova-3"), QStringLiteral("nova-2"), QStringLiteral("whisper-large")};
    case TranscriptionProvider::openAI:
        return {QStringLiteral("gpt-4o-transcribe-diarize"), QStringLiteral("gpt-4o-transcribe"),
                QStringLiteral("gpt-4o-mini-transcribe"), QStringLiteral("whisper-1")};
    case TranscriptionProvider::onDevice:
        break;
    }
    return {};
}

} // namespace qm::ui
