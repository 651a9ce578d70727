#include "app/application.h"

#include "app/appsettings.h"
#include "app/keychain.h"
#include "library/recordingstore.h"

namespace qm {

Application::Application(QObject *parent)
    : QObject(parent), m_keychain(std::make_unique<Keychain>()), m_settings(std::make_unique<AppSettings>(*m_keychain))
{
    AppSettings *settings = m_settings.get();
    m_store = std::make_unique<RecordingStore>([settings] { return settings->saveFolderPath(); });
    m_store->reload();
    connect(settings, &AppSettings::saveFolderPathChanged, m_store.get(), &RecordingStore::reload);
}

Application::~Application() = default;

} // namespace qm
