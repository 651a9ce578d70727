#include "ui/shell/singleinstance.h"

#include "library/log.h"

#include <QDBusAbstractAdaptor>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusVariant>
#include <QDir>
#include <QLocalServer>
#include <QLocalSocket>
#include <QStandardPaths>
#include <QUrl>
#include <QVariantMap>

namespace qm::ui {

namespace {

constexpr int kHandOverTimeoutMs = 3000;
const QString kApplicationInterface = QStringLiteral("org.freedesktop.Application");

} // namespace

// org.freedesktop.Application on the instance's object.
class ApplicationAdaptor : public QDBusAbstractAdaptor {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Application")

public:
    explicit ApplicationAdaptor(SingleInstance *instance) : QDBusAbstractAdaptor(instance), m_instance(instance) {}

public Q_SLOTS:
    void Activate(const QVariantMap &) { Q_EMIT m_instance->activateRequested(); }
    void Open(const QStringList &uris, const QVariantMap &) { Q_EMIT m_instance->openRequested(uris); }
    void ActivateAction(const QString &, const QVariantList &, const QVariantMap &)
    {
        Q_EMIT m_instance->activateRequested();
    }

private:
    SingleInstance *m_instance;
};

SingleInstance::SingleInstance(QObject *parent) : QObject(parent) {}

SingleInstance::~SingleInstance() = default;

QString SingleInstance::socketPath()
{
    QString runtime = QStandardPaths::writableLocation(QStandardPaths::RuntimeLocation);
    if (runtime.isEmpty())
        runtime = QDir::tempPath();
    return QDir(runtime).filePath(QStringLiteral("quillmoor.socket"));
}

bool SingleInstance::claim()
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected())
        return listenLocally();
    new ApplicationAdaptor(this);
    if (!bus.registerObject(QLatin1String(kObjectPath), this))
        logLine(QStringLiteral("couldn't register the application object on the session bus"));
    // Without queueing, the call fails at once when another run owns the name.
    const auto reply =
        bus.interface()->registerService(QLatin1String(kServiceName), QDBusConnectionInterface::DontQueueService,
                                         QDBusConnectionInterface::DontAllowReplacement);
    return reply.isValid() && reply.value() == QDBusConnectionInterface::ServiceRegistered;
}

bool SingleInstance::listenLocally()
{
    QLocalSocket probe;
    probe.connectToServer(socketPath());
    if (probe.waitForConnected(500))
        return false;
    // Nobody answers: a socket left by a run that died is in the way.
    QLocalServer::removeServer(socketPath());
    m_local = std::make_unique<QLocalServer>();
    m_local->setSocketOptions(QLocalServer::UserAccessOption);
    if (!m_local->listen(socketPath())) {
        logLine(QStringLiteral("couldn't listen on %1: %2").arg(socketPath(), m_local->errorString()));
        return true;
    }
    connect(m_local.get(), &QLocalServer::newConnection, this, [this] {
        while (QLocalSocket *client = m_local->nextPendingConnection()) {
            connect(client, &QLocalSocket::disconnected, client, &QObject::deleteLater);
            connect(client, &QLocalSocket::readyRead, this, [this, client] {
                while (client->canReadLine()) {
                    const QString line = QString::fromUtf8(client->readLine()).trimmed();
                    if (line == QLatin1String("activate"))
                        Q_EMIT activateRequested();
                    else if (line.startsWith(QLatin1String("open ")))
                        Q_EMIT openRequested({line.mid(5)});
                }
            });
        }
    });
    return true;
}

bool SingleInstance::handOver(const QStringList &uris)
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (bus.isConnected()) {
        QDBusMessage call = QDBusMessage::createMethodCall(
            QLatin1String(kServiceName), QLatin1String(kObjectPath), kApplicationInterface,
            uris.isEmpty() ? QStringLiteral("Activate") : QStringLiteral("Open"));
        if (!uris.isEmpty())
            call << uris;
        call << QVariantMap();
        const QDBusMessage reply = bus.call(call, QDBus::Block, kHandOverTimeoutMs);
        return reply.type() == QDBusMessage::ReplyMessage;
    }
    QLocalSocket socket;
    socket.connectToServer(socketPath());
    if (!socket.waitForConnected(kHandOverTimeoutMs))
        return false;
    QByteArray request;
    if (uris.isEmpty())
        request = "activate\n";
    for (const QString &uri : uris)
        request += "open " + uri.toUtf8() + '\n';
    socket.write(request);
    socket.waitForBytesWritten(kHandOverTimeoutMs);
    socket.disconnectFromServer();
    return true;
}

} // namespace qm::ui

#include "singleinstance.moc"
