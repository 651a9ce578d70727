#include "app/application.h"

#include "app/appcontroller.h"
#include "app/appsettings.h"
#include "app/keychain.h"
#include "app/livecapture.h"
#include "app/updater.h"
#include "capture/mediaprocessor.h"
#include "capture/proc/zoomprocesses.h"
#include "capture/wayland/waylandscreensource.h"
#include "capture/x11/x11screensource.h"
#include "library/recordingstore.h"
#include "meeting/permissions.h"
#include "meeting/zoommonitor.h"
#include "meeting/zoommuteobserver.h"
#include "platform/linux/atspitree.h"
#include "platform/linux/dbusnotifier.h"
#include "platform/linux/linuxpermissions.h"
#include "platform/linux/linuxzoomprobes.h"
#include "platform/linux/promptsound.h"
#include "transcription/transcriptionservice.h"
#include "transcription/whisper/modellibrary.h"
#include "transcription/whisper/whisperengine.h"

#include <QNetworkAccessManager>

extern "C" {
#include <libavutil/log.h>
}

namespace qm {

Application::Application(Options options, QObject *parent)
    : QObject(parent), m_keychain(std::make_unique<Keychain>()), m_settings(std::make_unique<AppSettings>(*m_keychain))
{
    // FFmpeg's encoder statistics would otherwise fill the terminal and the journal; its errors still show.
    av_log_set_level(AV_LOG_ERROR);
    AppSettings *settings = m_settings.get();
    m_store = std::make_unique<RecordingStore>([settings] { return settings->saveFolderPath(); });
    m_store->reload();
    connect(settings, &AppSettings::saveFolderPathChanged, m_store.get(), &RecordingStore::reload);

    m_network = std::make_unique<QNetworkAccessManager>();
    m_models = std::make_unique<whisper::ModelLibrary>(*m_network);
    m_media = std::make_unique<MediaProcessor>();
    whisper::ModelLibrary *models = m_models.get();
    m_transcription =
        std::make_unique<TranscriptionService>(*m_keychain, *m_media,
                                               [models, cloud = TranscriptionService::cloudEngines(*m_media)](
                                                   TranscriptionProvider provider) -> std::unique_ptr<SpeechEngine> {
                                                   if (provider == TranscriptionProvider::onDevice)
                                                       return std::make_unique<WhisperEngine>(*models);
                                                   return cloud(provider);
                                               });

    std::unique_ptr<ZoomProbes> probes;
    if (options.watchZoom)
        probes = std::make_unique<platform::LinuxZoomProbes>();
    else
        probes = std::make_unique<NoZoomProbes>();
    m_zoom = std::make_unique<ZoomMonitor>(std::move(probes));
    m_permissions =
        std::make_unique<Permissions>(std::make_unique<platform::LinuxPermissionSources>([models, settings] {
            const QString chosen =
                whisper::ModelLibrary::chosenModel(settings->model(TranscriptionProvider::onDevice),
                                                   TranscriptionService::languageCode(settings->language()));
            return models->isInstalled(chosen);
        }));
    m_notifier = std::make_unique<platform::DBusNotifier>();
    if (options.watchZoom) {
        m_muteObserver = std::make_unique<ZoomMuteObserver>(
            std::make_unique<platform::AtspiTree>([] { return ProcZoomProcesses().zoomProcesses(); }));
    }
    // Under XWayland the X server's root window reads black: a Wayland session films through the portal.
    if (WaylandScreenSource::isWaylandSession())
        m_screens = std::make_unique<WaylandScreenSource>();
    else
        m_screens = std::make_unique<X11ScreenSource>();
    if (options.promptViews) {
        auto sound = std::make_shared<platform::PromptSound>();
        m_prompt = std::make_unique<ZoomPrompt>(std::move(options.promptViews), [this, sound] {
            // The computer's output is being recorded: a sound now would end up in the meeting track.
            if (m_controller && m_controller->phase() == AppController::Phase::idle)
                sound->play();
        });
    }

    ScreenSource *screens = m_screens.get();
    m_controller = std::make_unique<AppController>(ControllerParts{
        .settings = *m_settings,
        .store = *m_store,
        .zoom = *m_zoom,
        .permissions = *m_permissions,
        .notifier = *m_notifier,
        .media = *m_media,
        .transcription = *m_transcription,
        .makeEngine = [screens] { return makeLiveCaptureEngine(screens); },
        .prompt = m_prompt.get(),
        .muteObserver = m_muteObserver.get(),
        .screens = screens,
    });
    m_updater = std::make_unique<Updater>(*m_settings, *m_network, *m_notifier,
                                          options.checkForUpdates ? Updater::defaultFeed() : QUrl());
}

Application::~Application() = default;

} // namespace qm
