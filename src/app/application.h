#pragma once

#include "meeting/zoomprompt.h"

#include <QObject>

#include <memory>

class QNetworkAccessManager;

namespace qm {

class AppController;
class AppSettings;
class Keychain;
class MediaProcessor;
class Notifier;
class Permissions;
class RecordingStore;
class ScreenSource;
class TranscriptionService;
class Updater;
class ZoomMonitor;
class ZoomMuteObserver;
class ZoomPrompt;
namespace whisper {
class ModelLibrary;
}

// How a run uses the desktop.
struct ApplicationOptions {
    // Makes the meeting prompt's card; without one, "ask" mode has nothing to show.
    ZoomPrompt::ViewFactory promptViews;
    // Whether this run follows Zoom meetings (start, stop, prompt). A short command-line run doesn't.
    bool watchZoom = true;
    // Whether this run checks the release feed (the desktop program does; a command doesn't).
    bool checkForUpdates = false;
};

// Builds the program's long-lived services once, in start-up order, picks the Linux implementations, and owns
// them for the whole run. Nothing else creates services; front ends (the windows, the command line) are handed
// what they need from here.
class Application : public QObject {
    Q_OBJECT

public:
    using Options = ApplicationOptions;

    explicit Application(Options options = {}, QObject *parent = nullptr);
    ~Application() override;

    AppSettings &settings() { return *m_settings; }
    Keychain &keychain() { return *m_keychain; }
    RecordingStore &store() { return *m_store; }
    AppController &controller() { return *m_controller; }
    whisper::ModelLibrary &models() { return *m_models; }
    Permissions &permissions() { return *m_permissions; }
    Notifier &notifier() { return *m_notifier; }
    Updater &updater() { return *m_updater; }
    // Lists the monitors (empty without an X server).
    ScreenSource &screens() { return *m_screens; }

private:
    std::unique_ptr<Keychain> m_keychain;
    std::unique_ptr<AppSettings> m_settings;
    std::unique_ptr<RecordingStore> m_store;
    std::unique_ptr<QNetworkAccessManager> m_network;
    std::unique_ptr<whisper::ModelLibrary> m_models;
    std::unique_ptr<MediaProcessor> m_media;
    std::unique_ptr<TranscriptionService> m_transcription;
    std::unique_ptr<ZoomMonitor> m_zoom;
    std::unique_ptr<Permissions> m_permissions;
    std::unique_ptr<Notifier> m_notifier;
    std::unique_ptr<ZoomMuteObserver> m_muteObserver;
    std::unique_ptr<ScreenSource> m_screens;
    std::unique_ptr<ZoomPrompt> m_prompt;
    std::unique_ptr<AppController> m_controller;
    std::unique_ptr<Updater> m_updater;
};

} // namespace qm
