#pragma once

#include "library/settingsvalues.h"

#include <QMap>
#include <QObject>
#include <QString>

#include <memory>
#include <optional>

class QFileSystemWatcher;
class QSettings;

namespace qm {

class Keychain;

using ModelMap = QMap<QString, QString>;

// Every user preference, observable, written through to the settings file at once. One instance, owned by the
// Application, lives on the main thread. Reads never fail: each key has a registered default or a fallback,
// and stored text that is not exactly one of an enumeration's raw values reads as its fallback.
//
// Construction runs the one-time migrations from earlier installations before anything is read. The file is
// watched: a change another program makes to it (another AppSettings, `quillmoor config set`) is read back
// shortly after and announced through the same signals as the program's own changes.
class AppSettings : public QObject {
    Q_OBJECT
    Q_PROPERTY(QString saveFolderPath READ saveFolderPath WRITE setSaveFolderPath NOTIFY saveFolderPathChanged)
    Q_PROPERTY(qm::ZoomStartMode zoomStartMode READ zoomStartMode WRITE setZoomStartMode NOTIFY zoomStartModeChanged)
    Q_PROPERTY(bool autoStopWhenZoomEnds READ autoStopWhenZoomEnds WRITE setAutoStopWhenZoomEnds NOTIFY
                   autoStopWhenZoomEndsChanged)
    Q_PROPERTY(
        bool showTimerInMenuBar READ showTimerInMenuBar WRITE setShowTimerInMenuBar NOTIFY showTimerInMenuBarChanged)
    Q_PROPERTY(qm::CaptureFormat captureFormat READ captureFormat WRITE setCaptureFormat NOTIFY captureFormatChanged)
    Q_PROPERTY(qm::AudioQuality audioQuality READ audioQuality WRITE setAudioQuality NOTIFY audioQualityChanged)
    Q_PROPERTY(QString microphoneID READ microphoneID WRITE setMicrophoneID NOTIFY microphoneIDChanged)
    Q_PROPERTY(bool includeMicrophone READ includeMicrophone WRITE setIncludeMicrophone NOTIFY includeMicrophoneChanged)
    Q_PROPERTY(bool followZoomMute READ followZoomMute WRITE setFollowZoomMute NOTIFY followZoomMuteChanged)
    Q_PROPERTY(int videoFrameRate READ videoFrameRate WRITE setVideoFrameRate NOTIFY videoFrameRateChanged)
    Q_PROPERTY(int videoDisplayID READ videoDisplayID WRITE setVideoDisplayID NOTIFY videoDisplayIDChanged)
    Q_PROPERTY(bool autoTranscribe READ autoTranscribe WRITE setAutoTranscribe NOTIFY autoTranscribeChanged)
    Q_PROPERTY(qm::TranscriptionProvider provider READ provider WRITE setProvider NOTIFY providerChanged)
    Q_PROPERTY(qm::TranscriptionLanguage language READ language WRITE setLanguage NOTIFY languageChanged)
    Q_PROPERTY(bool detectSpeakers READ detectSpeakers WRITE setDetectSpeakers NOTIFY detectSpeakersChanged)
    Q_PROPERTY(bool labelMyVoice READ labelMyVoice WRITE setLabelMyVoice NOTIFY labelMyVoiceChanged)
    Q_PROPERTY(QString myName READ myName WRITE setMyName NOTIFY myNameChanged)
    Q_PROPERTY(qm::ModelMap models READ models WRITE setModels NOTIFY modelsChanged)
    Q_PROPERTY(bool driveSyncEnabled READ driveSyncEnabled WRITE setDriveSyncEnabled NOTIFY driveSyncEnabledChanged)
    Q_PROPERTY(QString driveRootPath READ driveRootPath WRITE setDriveRootPath NOTIFY driveRootPathChanged)
    Q_PROPERTY(QString driveSubfolder READ driveSubfolder WRITE setDriveSubfolder NOTIFY driveSubfolderChanged)
    Q_PROPERTY(bool driveIncludeMedia READ driveIncludeMedia WRITE setDriveIncludeMedia NOTIFY driveIncludeMediaChanged)
    Q_PROPERTY(bool driveIncludeTranscript READ driveIncludeTranscript WRITE setDriveIncludeTranscript NOTIFY
                   driveIncludeTranscriptChanged)
    Q_PROPERTY(bool automaticallyChecksForUpdates READ automaticallyChecksForUpdates WRITE
                   setAutomaticallyChecksForUpdates NOTIFY automaticallyChecksForUpdatesChanged)
    Q_PROPERTY(bool keyringAvailable READ keyringAvailable NOTIFY keyringAvailableChanged)
    Q_PROPERTY(int playbackSpeedPercent READ playbackSpeedPercent WRITE setPlaybackSpeedPercent NOTIFY
                   playbackSpeedPercentChanged)

public:
    // `configDir` holds "app.quillmoor.Quillmoor.conf" and the earlier installations' files; `documentsDir` is
    // the user's Documents folder (the library's default parent). Both default to the XDG locations.
    explicit AppSettings(Keychain &keychain, QString configDir = defaultConfigDir(),
                         QString documentsDir = defaultDocumentsDir(), QObject *parent = nullptr);
    ~AppSettings() override;

    static QString defaultConfigDir();
    static QString defaultDocumentsDir();
    static constexpr const char *kDomain = "app.quillmoor.Quillmoor";

    QString saveFolderPath() const { return m_saveFolderPath; }
    ZoomStartMode zoomStartMode() const { return m_zoomStartMode; }
    bool autoStopWhenZoomEnds() const { return m_autoStopWhenZoomEnds; }
    bool showTimerInMenuBar() const { return m_showTimerInMenuBar; }
    CaptureFormat captureFormat() const { return m_captureFormat; }
    AudioQuality audioQuality() const { return m_audioQuality; }
    QString microphoneID() const { return m_microphoneID; }
    bool includeMicrophone() const { return m_includeMicrophone; }
    bool followZoomMute() const { return m_followZoomMute; }
    int videoFrameRate() const { return m_videoFrameRate; }
    int videoDisplayID() const { return m_videoDisplayID; }
    bool autoTranscribe() const { return m_autoTranscribe; }
    TranscriptionProvider provider() const { return m_provider; }
    TranscriptionLanguage language() const { return m_language; }
    bool detectSpeakers() const { return m_detectSpeakers; }
    bool labelMyVoice() const { return m_labelMyVoice; }
    QString myName() const { return m_myName; }
    ModelMap models() const { return m_models; }
    bool driveSyncEnabled() const { return m_driveSyncEnabled; }
    QString driveRootPath() const { return m_driveRootPath; }
    QString driveSubfolder() const { return m_driveSubfolder; }
    bool driveIncludeMedia() const { return m_driveIncludeMedia; }
    bool driveIncludeTranscript() const { return m_driveIncludeTranscript; }
    bool automaticallyChecksForUpdates() const { return m_automaticallyChecksForUpdates; }
    // The library player's speed in percent (75 to 200), kept between sessions.
    int playbackSpeedPercent() const { return m_playbackSpeedPercent; }
    bool keyringAvailable() const;

    void setSaveFolderPath(const QString &value);
    void setZoomStartMode(ZoomStartMode value);
    void setAutoStopWhenZoomEnds(bool value);
    void setShowTimerInMenuBar(bool value);
    void setCaptureFormat(CaptureFormat value);
    void setAudioQuality(AudioQuality value);
    void setMicrophoneID(const QString &value);
    void setIncludeMicrophone(bool value);
    void setFollowZoomMute(bool value);
    void setVideoFrameRate(int value);
    void setVideoDisplayID(int value);
    void setAutoTranscribe(bool value);
    void setProvider(TranscriptionProvider value);
    void setLanguage(TranscriptionLanguage value);
    void setDetectSpeakers(bool value);
    void setLabelMyVoice(bool value);
    void setMyName(const QString &value);
    void setModels(const ModelMap &value);
    void setDriveSyncEnabled(bool value);
    void setDriveRootPath(const QString &value);
    void setDriveSubfolder(const QString &value);
    void setDriveIncludeMedia(bool value);
    void setDriveIncludeTranscript(bool value);
    void setAutomaticallyChecksForUpdates(bool value);
    void setPlaybackSpeedPercent(int value);

    // The model to request from `provider`: the user's choice without surrounding blanks, else the built-in one.
    QString model(TranscriptionProvider provider) const;
    void setModel(const QString &value, TranscriptionProvider provider);

    // Stores the key in the keyring, trimmed; a key that is empty after trimming removes the stored one.
    // False when the keyring could not be reached.
    bool setAPIKey(const QString &key, TranscriptionProvider provider);
    // Read afresh from the keyring on every call; never cached, never logged.
    std::optional<QString> apiKey(TranscriptionProvider provider) const;

    // The sentence saying the settings file couldn't be written at the last change, or nothing when it was.
    std::optional<QString> writeError() const;

    // The fallback of saveFolderPath: Documents/Quillmoor.
    QString defaultSaveFolderPath() const { return m_defaultSaveFolderPath; }

Q_SIGNALS:
    void saveFolderPathChanged();
    void zoomStartModeChanged();
    void autoStopWhenZoomEndsChanged();
    void showTimerInMenuBarChanged();
    void captureFormatChanged();
    void audioQualityChanged();
    void microphoneIDChanged();
    void includeMicrophoneChanged();
    void followZoomMuteChanged();
    void videoFrameRateChanged();
    void videoDisplayIDChanged();
    void autoTranscribeChanged();
    void providerChanged();
    void languageChanged();
    void detectSpeakersChanged();
    void labelMyVoiceChanged();
    void myNameChanged();
    void modelsChanged();
    void driveSyncEnabledChanged();
    void driveRootPathChanged();
    void driveSubfolderChanged();
    void driveIncludeMediaChanged();
    void driveIncludeTranscriptChanged();
    void automaticallyChecksForUpdatesChanged();
    void playbackSpeedPercentChanged();
    void keyringAvailableChanged();

private:
    void load();
    void watchFile();
    void rewatch();
    void scheduleReload();
    // Re-reads the file and emits the change signal of every setting whose value differs from before.
    void reloadFromFile();
    template <class T, class Stored>
    void assign(T &member, const T &value, const char *key, const Stored &stored, void (AppSettings::*changed)());

    Keychain &m_keychain;
    std::unique_ptr<QSettings> m_store;
    std::unique_ptr<QFileSystemWatcher> m_watcher;
    bool m_reloadPending = false;
    QString m_defaultSaveFolderPath;

    QString m_saveFolderPath;
    ZoomStartMode m_zoomStartMode = ZoomStartMode::ask;
    bool m_autoStopWhenZoomEnds = true;
    bool m_showTimerInMenuBar = true;
    CaptureFormat m_captureFormat = CaptureFormat::audio;
    AudioQuality m_audioQuality = AudioQuality::high;
    QString m_microphoneID;
    bool m_includeMicrophone = true;
    bool m_followZoomMute = true;
    int m_videoFrameRate = 15;
    int m_videoDisplayID = 0;
    bool m_autoTranscribe = true;
    TranscriptionProvider m_provider = TranscriptionProvider::onDevice;
    TranscriptionLanguage m_language = TranscriptionLanguage::automatic;
    bool m_detectSpeakers = true;
    bool m_labelMyVoice = true;
    QString m_myName;
    ModelMap m_models;
    bool m_driveSyncEnabled = false;
    QString m_driveRootPath;
    QString m_driveSubfolder;
    bool m_driveIncludeMedia = true;
    bool m_driveIncludeTranscript = true;
    bool m_automaticallyChecksForUpdates = true;
    int m_playbackSpeedPercent = 100;
};

} // namespace qm
