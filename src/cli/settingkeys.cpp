#include "cli/settingkeys.h"

#include "app/appsettings.h"
#include "cli/arguments.h"
#include "transcription/whisper/modellibrary.h"

#include <QCoreApplication>
#include <QFileInfo>

#include <functional>

namespace qm::cli {

namespace {

QString tr(const char *text)
{
    return QCoreApplication::translate("qm::cli", text);
}

struct Entry {
    QString key;
    std::function<QString(const AppSettings &)> get;
    std::function<expected<void, QString>(AppSettings &, const QString &)> set;
};

template <class Getter, class Setter> Entry flag(const char *key, Getter get, Setter set)
{
    return {QLatin1String(key),
            [get](const AppSettings &s) { return (s.*get)() ? QStringLiteral("true") : QStringLiteral("false"); },
            [set, key](AppSettings &s, const QString &value) -> expected<void, QString> {
                const QString word = value.trimmed().toLower();
                if (word == QLatin1String("true") || word == QLatin1String("1"))
                    (s.*set)(true);
                else if (word == QLatin1String("false") || word == QLatin1String("0"))
                    (s.*set)(false);
                else
                    return unexpected(tr("%1 is true or false, not “%2”.").arg(QLatin1String(key), value));
                return {};
            }};
}

template <class Getter, class Setter> Entry number(const char *key, Getter get, Setter set)
{
    return {QLatin1String(key), [get](const AppSettings &s) { return QString::number((s.*get)()); },
            [set, key](AppSettings &s, const QString &value) -> expected<void, QString> {
                bool ok = false;
                const int parsed = value.trimmed().toInt(&ok);
                if (!ok || parsed < 0)
                    return unexpected(tr("%1 is a whole number, not “%2”.").arg(QLatin1String(key), value));
                (s.*set)(parsed);
                return {};
            }};
}

// A number that only takes some values (the frame rates the capture offers).
template <class Getter, class Setter> Entry oneOf(const char *key, QList<int> allowed, Getter get, Setter set)
{
    return {
        QLatin1String(key), [get](const AppSettings &s) { return QString::number((s.*get)()); },
        [set, key, allowed](AppSettings &s, const QString &value) -> expected<void, QString> {
            bool ok = false;
            const int parsed = value.trimmed().toInt(&ok);
            if (!ok || !allowed.contains(parsed)) {
                QStringList names;
                for (int each : allowed)
                    names.append(QString::number(each));
                return unexpected(
                    tr("%1 is one of %2, not “%3”.").arg(QLatin1String(key), names.join(QStringLiteral(", ")), value));
            }
            (s.*set)(parsed);
            return {};
        }};
}

template <class Getter, class Setter> Entry text(const char *key, Getter get, Setter set)
{
    return {QLatin1String(key), [get](const AppSettings &s) { return (s.*get)(); },
            [set](AppSettings &s, const QString &value) -> expected<void, QString> {
                (s.*set)(value);
                return {};
            }};
}

template <class E, class Getter, class Setter> Entry choice(const char *key, Getter get, Setter set)
{
    return {QLatin1String(key), [get](const AppSettings &s) { return rawValue<E>((s.*get)()); },
            [set, key](AppSettings &s, const QString &value) -> expected<void, QString> {
                const std::optional<E> parsed = fromRawValue<E>(value.trimmed());
                if (!parsed) {
                    QStringList allowed;
                    for (E each : allCases<E>())
                        allowed.append(rawValue(each));
                    return unexpected(tr("%1 is one of %2, not “%3”.")
                                          .arg(QLatin1String(key), allowed.join(QStringLiteral(", ")), value));
                }
                (s.*set)(*parsed);
                return {};
            }};
}

// A provider's model lives in the "models" group of the file, one key per provider's raw value.
Entry model(TranscriptionProvider provider)
{
    return {QStringLiteral("models/") + rawValue(provider),
            [provider](const AppSettings &s) { return s.models().value(rawValue(provider)); },
            [provider](AppSettings &s, const QString &value) -> expected<void, QString> {
                s.setModel(value, provider);
                return {};
            }};
}

// Stored as "onDevice", "deepgram", …; the command line's own words ("on-device") are taken too, as written.
Entry provider()
{
    return {QStringLiteral("provider"), [](const AppSettings &s) { return rawValue(s.provider()); },
            [](AppSettings &s, const QString &value) -> expected<void, QString> {
                std::optional<TranscriptionProvider> parsed = fromRawValue<TranscriptionProvider>(value.trimmed());
                for (TranscriptionProvider each : allCases<TranscriptionProvider>()) {
                    if (!parsed && value.trimmed() == providerWord(each))
                        parsed = each;
                }
                if (!parsed) {
                    QStringList allowed;
                    for (TranscriptionProvider each : allCases<TranscriptionProvider>())
                        allowed.append(rawValue(each));
                    return unexpected(
                        tr("provider is one of %1, not “%2”.").arg(allowed.join(QStringLiteral(", ")), value));
                }
                s.setProvider(*parsed);
                return {};
            }};
}

// The on-device model: a published name ("small", "base.en"), or a model file or CTranslate2 folder already on
// this computer, kept as an absolute path so that the app finds it whatever its working folder; empty goes back
// to the default.
Entry onDeviceModel()
{
    Entry entry = model(TranscriptionProvider::onDevice);
    entry.set = [](AppSettings &s, const QString &value) -> expected<void, QString> {
        const QString chosen = value.trimmed();
        if (chosen.isEmpty() || whisper::ModelLibrary::isPublishedName(chosen)) {
            s.setModel(chosen, TranscriptionProvider::onDevice);
            return {};
        }
        const QFileInfo local(chosen);
        if (!local.exists())
            return unexpected(tr("models/onDevice is a model name (tiny, base, small or medium, with .en for "
                                 "English only) or the path of a model file or folder, not “%1”.")
                                  .arg(value));
        s.setModel(local.absoluteFilePath(), TranscriptionProvider::onDevice);
        return {};
    };
    return entry;
}

const QList<Entry> &entries()
{
    using S = AppSettings;
    static const QList<Entry> all = [] {
        QList<Entry> list{
            text("saveFolderPath", &S::saveFolderPath, &S::setSaveFolderPath),
            choice<ZoomStartMode>("zoomStartMode", &S::zoomStartMode, &S::setZoomStartMode),
            flag("autoStopWhenZoomEnds", &S::autoStopWhenZoomEnds, &S::setAutoStopWhenZoomEnds),
            flag("showTimerInMenuBar", &S::showTimerInMenuBar, &S::setShowTimerInMenuBar),
            flag("automaticallyChecksForUpdates", &S::automaticallyChecksForUpdates,
                 &S::setAutomaticallyChecksForUpdates),
            choice<CaptureFormat>("captureFormat", &S::captureFormat, &S::setCaptureFormat),
            choice<AudioQuality>("audioQuality", &S::audioQuality, &S::setAudioQuality),
            text("microphoneID", &S::microphoneID, &S::setMicrophoneID),
            flag("includeMicrophone", &S::includeMicrophone, &S::setIncludeMicrophone),
            flag("followZoomMute", &S::followZoomMute, &S::setFollowZoomMute),
            oneOf("videoFrameRate", {10, 15, 30}, &S::videoFrameRate, &S::setVideoFrameRate),
            number("videoDisplayID", &S::videoDisplayID, &S::setVideoDisplayID),
            flag("autoTranscribe", &S::autoTranscribe, &S::setAutoTranscribe),
            provider(),
            choice<TranscriptionLanguage>("language", &S::language, &S::setLanguage),
            flag("detectSpeakers", &S::detectSpeakers, &S::setDetectSpeakers),
            flag("labelMyVoice", &S::labelMyVoice, &S::setLabelMyVoice),
            text("myName", &S::myName, &S::setMyName),
            flag("driveSyncEnabled", &S::driveSyncEnabled, &S::setDriveSyncEnabled),
            text("driveRootPath", &S::driveRootPath, &S::setDriveRootPath),
            text("driveSubfolder", &S::driveSubfolder, &S::setDriveSubfolder),
            flag("driveIncludeMedia", &S::driveIncludeMedia, &S::setDriveIncludeMedia),
            flag("driveIncludeTranscript", &S::driveIncludeTranscript, &S::setDriveIncludeTranscript),
        };
        list.append(onDeviceModel());
        for (TranscriptionProvider cloud : kCloudProviders)
            list.append(model(cloud));
        return list;
    }();
    return all;
}

expected<const Entry *, QString> find(const QString &key)
{
    for (const Entry &entry : entries()) {
        if (entry.key == key)
            return &entry;
    }
    return unexpected(
        tr("There is no setting “%1”. Known settings: %2.").arg(key, settingKeys().join(QStringLiteral(", "))));
}

} // namespace

QStringList settingKeys()
{
    QStringList keys;
    for (const Entry &entry : entries())
        keys.append(entry.key);
    return keys;
}

expected<QString, QString> settingValue(const AppSettings &settings, const QString &key)
{
    const auto entry = find(key);
    if (!entry)
        return unexpected(entry.error());
    return (*entry)->get(settings);
}

expected<void, QString> setSetting(AppSettings &settings, const QString &key, const QString &value)
{
    const auto entry = find(key);
    if (!entry)
        return unexpected(entry.error());
    return (*entry)->set(settings, value);
}

} // namespace qm::cli
