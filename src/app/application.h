#pragma once

#include <QObject>

#include <memory>

namespace qm {

class AppSettings;
class Keychain;
class RecordingStore;

// Builds the program's long-lived services once, in start-up order, and owns them for the whole run.
// Nothing else creates services; windows and front ends are handed what they need from here.
class Application : public QObject {
    Q_OBJECT

public:
    explicit Application(QObject *parent = nullptr);
    ~Application() override;

    AppSettings &settings() { return *m_settings; }
    Keychain &keychain() { return *m_keychain; }
    RecordingStore &store() { return *m_store; }

private:
    std::unique_ptr<Keychain> m_keychain;
    std::unique_ptr<AppSettings> m_settings;
    std::unique_ptr<RecordingStore> m_store;
};

} // namespace qm
