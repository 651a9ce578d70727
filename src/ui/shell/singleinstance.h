#pragma once

#include <QObject>
#include <QStringList>

#include <memory>

class QLocalServer;

namespace qm::ui {

// One Quillmoor per desktop session. The first run owns the bus name app.quillmoor.Quillmoor and answers
// org.freedesktop.Application there (Activate shows the panel, Open hands over quillmoor: addresses); where
// there is no session bus, a local socket in $XDG_RUNTIME_DIR does the same. A later run hands its request to
// the first one and exits.
class SingleInstance : public QObject {
    Q_OBJECT

public:
    static constexpr const char *kServiceName = "app.quillmoor.Quillmoor";
    static constexpr const char *kObjectPath = "/app/quillmoor/Quillmoor";

    explicit SingleInstance(QObject *parent = nullptr);
    ~SingleInstance() override;

    // Tries to become the instance of this session. False when another one already is.
    bool claim();
    // From a later run: asks the running instance to show itself, or to open `uris`. True when it answered.
    static bool handOver(const QStringList &uris);

    // The local socket's path, for the fallback without a bus.
    static QString socketPath();

Q_SIGNALS:
    void activateRequested();
    void openRequested(const QStringList &uris);

private:
    bool listenLocally();

    std::unique_ptr<QLocalServer> m_local;
};

} // namespace qm::ui
