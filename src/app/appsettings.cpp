#include "app/appsettings.h"

#include "app/keychain.h"
#include "library/legacymigration.h"
#include "library/textutil.h"

#include <QDir>
#include <QFileInfo>
#include <QFileSystemWatcher>
#include <QMetaProperty>
#include <QSettings>
#include <QStandardPaths>
#include <QTimer>

#include <algorithm>

namespace qm {

namespace {

// The registration layer: what a fresh installation reads for these keys. Every other key has a fallback in
// load() instead and is deliberately not registered (driveSyncEnabled among them).
const QHash<QString, QVariant> &registeredDefaults()
{
    static const QHash<QString, QVariant> defaults{
        {QStringLiteral("autoStopWhenZoomEnds"), true},
        {QStringLiteral("showTimerInMenuBar"), true},
        {QStringLiteral("includeMicrophone"), true},
        {QStringLiteral("followZoomMute"), true},
        {QStringLiteral("videoFrameRate"), 15},
        {QStringLiteral("autoTranscribe"), true},
        {QStringLiteral("detectSpeakers"), true},
        {QStringLiteral("labelMyVoice"), true},
        {QStringLiteral("driveIncludeMedia"), true},
        {QStringLiteral("driveIncludeTranscript"), true},
        {QStringLiteral("automaticallyChecksForUpdates"), true},
    };
    return defaults;
}

std::optional<bool> asBool(const QVariant &value)
{
    if (value.typeId() == QMetaType::Bool)
        return value.toBool();
    const QString text = value.toString().trimmed().toLower();
    if (text == QLatin1String("true") || text == QLatin1String("1"))
        return true;
    if (text == QLatin1String("false") || text == QLatin1String("0"))
        return false;
    return std::nullopt;
}

std::optional<int> asInt(const QVariant &value)
{
    bool ok = false;
    const int number = value.typeId() == QMetaType::QString ? value.toString().trimmed().toInt(&ok) : value.toInt(&ok);
    return ok ? std::optional(number) : std::nullopt;
}

class Reader {
public:
    explicit Reader(const QSettings &store) : m_store(store) {}

    bool flag(const char *key, bool fallback) const { return layered<bool>(key, asBool).value_or(fallback); }
    int number(const char *key, int fallback) const { return layered<int>(key, asInt).value_or(fallback); }
    QString text(const char *key, const QString &fallback) const
    {
        const QVariant value = m_store.value(QLatin1String(key));
        return value.typeId() == QMetaType::QString ? value.toString() : fallback;
    }
    template <class E> E choice(const char *key, E fallback) const
    {
        return fromRawValue<E>(text(key, QString())).value_or(fallback);
    }

    // A map of texts stored as a group; anything else there (lists, nested groups, a plain value) discards it.
    ModelMap textMap(const char *key) const
    {
        const QString group = QLatin1String(key);
        if (m_store.contains(group))
            return {};
        ModelMap map;
        for (const QString &full : m_store.allKeys()) {
            if (!full.startsWith(group + u'/'))
                continue;
            const QString name = full.mid(group.size() + 1);
            const QVariant value = m_store.value(full);
            if (name.contains(u'/') || value.typeId() != QMetaType::QString)
                return {};
            map.insert(name, value.toString());
        }
        return map;
    }

private:
    // Stored value if it parses, else the registered default, else nothing (the caller's fallback).
    template <class T, class Parse> std::optional<T> layered(const char *key, Parse parse) const
    {
        const QString name = QLatin1String(key);
        if (m_store.contains(name)) {
            if (const std::optional<T> stored = parse(m_store.value(name)))
                return stored;
        }
        const auto registered = registeredDefaults().constFind(name);
        if (registered != registeredDefaults().cend())
            return parse(*registered);
        return std::nullopt;
    }

    const QSettings &m_store;
};

} // namespace

QString AppSettings::defaultConfigDir()
{
    return QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation);
}

QString AppSettings::defaultDocumentsDir()
{
    return QStandardPaths::writableLocation(QStandardPaths::DocumentsLocation);
}

AppSettings::AppSettings(Keychain &keychain, QString configDir, QString documentsDir, QObject *parent)
    : QObject(parent), m_keychain(keychain),
      m_store(std::make_unique<QSettings>(QDir(configDir).filePath(QLatin1String(kDomain) + QLatin1String(".conf")),
                                          QSettings::IniFormat))
{
    // Earlier installations' values must be in place before anything is read.
    LegacyMigration migration(*m_store, configDir, m_keychain, documentsDir);
    migration.migrate(QLatin1String(LegacyMigration::kEarlierBundle));
    migration.migrate(QLatin1String(LegacyMigration::kHarrowbrookBundle));
    migration.moveHarrowbrookFolder();

    const QString documents = documentsDir.isEmpty() ? QDir::homePath() : documentsDir;
    m_defaultSaveFolderPath = QDir(documents).filePath(QStringLiteral("Quillmoor"));
    load();
    connect(&m_keychain, &Keychain::availableChanged, this, &AppSettings::keyringAvailableChanged);
    watchFile();
}

AppSettings::~AppSettings() = default;

void AppSettings::load()
{
    const Reader in(*m_store);
    m_saveFolderPath = in.text("saveFolderPath", m_defaultSaveFolderPath);
    m_zoomStartMode = in.choice("zoomStartMode", ZoomStartMode::ask);
    m_autoStopWhenZoomEnds = in.flag("autoStopWhenZoomEnds", false);
    m_showTimerInMenuBar = in.flag("showTimerInMenuBar", false);
    m_captureFormat = in.choice("captureFormat", CaptureFormat::audio);
    m_audioQuality = in.choice("audioQuality", AudioQuality::high);
    m_microphoneID = in.text("microphoneID", QString());
    m_includeMicrophone = in.flag("includeMicrophone", false);
    m_followZoomMute = in.flag("followZoomMute", false);
    m_videoFrameRate = in.number("videoFrameRate", 0);
    m_videoDisplayID = in.number("videoDisplayID", 0);
    m_autoTranscribe = in.flag("autoTranscribe", false);
    m_provider = in.choice("provider", TranscriptionProvider::onDevice);
    m_language = in.choice("language", TranscriptionLanguage::automatic);
    m_detectSpeakers = in.flag("detectSpeakers", false);
    m_labelMyVoice = in.flag("labelMyVoice", false);
    m_myName = in.text("myName", QStringLiteral("Me"));
    m_models = in.textMap("models");
    m_driveSyncEnabled = in.flag("driveSyncEnabled", false);
    m_driveRootPath = in.text("driveRootPath", QString());
    m_driveSubfolder = in.text("driveSubfolder", QStringLiteral("Quillmoor"));
    m_driveIncludeMedia = in.flag("driveIncludeMedia", false);
    m_driveIncludeTranscript = in.flag("driveIncludeTranscript", false);
    m_automaticallyChecksForUpdates = in.flag("automaticallyChecksForUpdates", false);
    m_playbackSpeedPercent = std::clamp(in.number("playbackSpeedPercent", 100), 75, 200);
}

void AppSettings::watchFile()
{
    m_watcher = std::make_unique<QFileSystemWatcher>();
    connect(m_watcher.get(), &QFileSystemWatcher::fileChanged, this, &AppSettings::scheduleReload);
    connect(m_watcher.get(), &QFileSystemWatcher::directoryChanged, this, &AppSettings::scheduleReload);
    rewatch();
}

void AppSettings::rewatch()
{
    // Writers replace the file by renaming a new one over it, which ends a watch on the file itself, and the
    // first write may create the folder too. So the nearest folder that exists is watched as well, and the
    // watches are renewed after every change.
    const QString file = m_store->fileName();
    QString folder = QFileInfo(file).absolutePath();
    while (!QFileInfo(folder).isDir() && folder != QDir::rootPath())
        folder = QFileInfo(folder).absolutePath();
    const QStringList watched = m_watcher->files() + m_watcher->directories();
    if (!watched.isEmpty())
        m_watcher->removePaths(watched);
    m_watcher->addPath(folder);
    if (QFileInfo::exists(file))
        m_watcher->addPath(file);
}

void AppSettings::scheduleReload()
{
    if (m_reloadPending)
        return;
    m_reloadPending = true;
    // A writer's rename and the folder's change arrive as a burst; one read after it settles is enough.
    QTimer::singleShot(50, this, [this] {
        m_reloadPending = false;
        reloadFromFile();
    });
}

void AppSettings::reloadFromFile()
{
    rewatch();
    const QMetaObject *meta = metaObject();
    QVariantList before;
    for (int i = meta->propertyOffset(); i < meta->propertyCount(); ++i)
        before.append(meta->property(i).read(this));
    m_store->sync();
    load();
    for (int i = meta->propertyOffset(); i < meta->propertyCount(); ++i) {
        const QMetaProperty property = meta->property(i);
        if (property.read(this) != before.at(i - meta->propertyOffset()))
            property.notifySignal().invoke(this);
    }
}

std::optional<QString> AppSettings::writeError() const
{
    if (m_store->status() == QSettings::NoError)
        return std::nullopt;
    return tr("The settings file %1 can't be written, so the change isn't kept.").arg(m_store->fileName());
}

template <class T, class Stored>
void AppSettings::assign(T &member, const T &value, const char *key, const Stored &stored,
                         void (AppSettings::*changed)())
{
    if (member == value)
        return;
    member = value;
    m_store->setValue(QLatin1String(key), stored);
    m_store->sync();
    Q_EMIT(this->*changed)();
}

#define QM_FLAG_SETTER(Name, member, key)                                                                              \
    void AppSettings::Name(bool value)                                                                                 \
    {                                                                                                                  \
        assign(member, value, #key, value, &AppSettings::key##Changed);                                                \
    }
#define QM_TEXT_SETTER(Name, member, key)                                                                              \
    void AppSettings::Name(const QString &value)                                                                       \
    {                                                                                                                  \
        assign(member, value, #key, value, &AppSettings::key##Changed);                                                \
    }
#define QM_NUMBER_SETTER(Name, member, key)                                                                            \
    void AppSettings::Name(int value)                                                                                  \
    {                                                                                                                  \
        assign(member, value, #key, value, &AppSettings::key##Changed);                                                \
    }
#define QM_CHOICE_SETTER(Name, Type, member, key)                                                                      \
    void AppSettings::Name(Type value)                                                                                 \
    {                                                                                                                  \
        assign(member, value, #key, rawValue(value), &AppSettings::key##Changed);                                      \
    }

// The macros keep the key, the member and the signal of each setting from drifting apart.
QM_TEXT_SETTER(setSaveFolderPath, m_saveFolderPath, saveFolderPath)
QM_CHOICE_SETTER(setZoomStartMode, ZoomStartMode, m_zoomStartMode, zoomStartMode)
QM_FLAG_SETTER(setAutoStopWhenZoomEnds, m_autoStopWhenZoomEnds, autoStopWhenZoomEnds)
QM_FLAG_SETTER(setShowTimerInMenuBar, m_showTimerInMenuBar, showTimerInMenuBar)
QM_FLAG_SETTER(setAutomaticallyChecksForUpdates, m_automaticallyChecksForUpdates, automaticallyChecksForUpdates)
QM_CHOICE_SETTER(setCaptureFormat, CaptureFormat, m_captureFormat, captureFormat)
QM_CHOICE_SETTER(setAudioQuality, AudioQuality, m_audioQuality, audioQuality)
QM_TEXT_SETTER(setMicrophoneID, m_microphoneID, microphoneID)
QM_FLAG_SETTER(setIncludeMicrophone, m_includeMicrophone, includeMicrophone)
QM_FLAG_SETTER(setFollowZoomMute, m_followZoomMute, followZoomMute)
QM_NUMBER_SETTER(setVideoFrameRate, m_videoFrameRate, videoFrameRate)
QM_NUMBER_SETTER(setVideoDisplayID, m_videoDisplayID, videoDisplayID)
QM_FLAG_SETTER(setAutoTranscribe, m_autoTranscribe, autoTranscribe)
QM_CHOICE_SETTER(setProvider, TranscriptionProvider, m_provider, provider)
QM_CHOICE_SETTER(setLanguage, TranscriptionLanguage, m_language, language)
QM_FLAG_SETTER(setDetectSpeakers, m_detectSpeakers, detectSpeakers)
QM_FLAG_SETTER(setLabelMyVoice, m_labelMyVoice, labelMyVoice)
QM_TEXT_SETTER(setMyName, m_myName, myName)
QM_FLAG_SETTER(setDriveSyncEnabled, m_driveSyncEnabled, driveSyncEnabled)
QM_TEXT_SETTER(setDriveRootPath, m_driveRootPath, driveRootPath)
QM_TEXT_SETTER(setDriveSubfolder, m_driveSubfolder, driveSubfolder)
QM_FLAG_SETTER(setDriveIncludeMedia, m_driveIncludeMedia, driveIncludeMedia)
QM_FLAG_SETTER(setDriveIncludeTranscript, m_driveIncludeTranscript, driveIncludeTranscript)
QM_NUMBER_SETTER(setPlaybackSpeedPercent, m_playbackSpeedPercent, playbackSpeedPercent)

#undef QM_FLAG_SETTER
#undef QM_TEXT_SETTER
#undef QM_NUMBER_SETTER
#undef QM_CHOICE_SETTER

void AppSettings::setModels(const ModelMap &value)
{
    if (m_models == value)
        return;
    m_models = value;
    const QString group = QStringLiteral("models");
    m_store->remove(group);
    for (auto it = value.cbegin(); it != value.cend(); ++it)
        m_store->setValue(group + u'/' + it.key(), it.value());
    m_store->sync();
    Q_EMIT modelsChanged();
}

QString AppSettings::model(TranscriptionProvider provider) const
{
    const auto chosen = m_models.constFind(rawValue(provider));
    if (chosen != m_models.cend()) {
        const QString trimmed = trimSpacesAndTabs(*chosen);
        if (!trimmed.isEmpty())
            return trimmed;
    }
    return defaultModel(provider);
}

void AppSettings::setModel(const QString &value, TranscriptionProvider provider)
{
    ModelMap updated = m_models;
    updated.insert(rawValue(provider), value);
    setModels(updated);
}

bool AppSettings::setAPIKey(const QString &key, TranscriptionProvider provider)
{
    const QString trimmed = key.trimmed();
    return m_keychain.set(trimmed.isEmpty() ? std::nullopt : std::optional(trimmed), apiKeyAccount(provider));
}

std::optional<QString> AppSettings::apiKey(TranscriptionProvider provider) const
{
    return m_keychain.get(apiKeyAccount(provider), QLatin1String(kKeyringService));
}

bool AppSettings::keyringAvailable() const
{
    return m_keychain.isAvailable();
}

} // namespace qm
