#include "capture/wayland/screencastportal.h"

#include <QCoreApplication>
#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusUnixFileDescriptor>
#include <QDBusVariant>
#include <QEventLoop>
#include <QList>
#include <QThread>
#include <QTimer>

#include <atomic>
#include <fcntl.h>
#include <optional>

namespace qm::wayland {

namespace {

const QString service = QStringLiteral("org.freedesktop.portal.Desktop");
const QString desktopPath = QStringLiteral("/org/freedesktop/portal/desktop");
const QString screenCast = QStringLiteral("org.freedesktop.portal.ScreenCast");
const QString requestInterface = QStringLiteral("org.freedesktop.portal.Request");
const QString sessionInterface = QStringLiteral("org.freedesktop.portal.Session");

// Steps that show nothing to the user answer quickly, or not at all.
constexpr std::chrono::milliseconds kStepTime{10'000};
constexpr int kCallTimeoutMs = 10'000;

// Cursor modes, as bits of AvailableCursorModes.
constexpr std::uint32_t kCursorHidden = 1;
constexpr std::uint32_t kCursorEmbedded = 2;

std::atomic<int> handles{0};

// Tokens are unique in this process, so every request and session has a path of its own.
QString nextToken()
{
    return QStringLiteral("quillmoor%1_%2").arg(QCoreApplication::applicationPid()).arg(++handles);
}

QSize sizeOf(const QVariant &value)
{
    if (!value.canConvert<QDBusArgument>())
        return {};
    const QDBusArgument argument = value.value<QDBusArgument>();
    int width = 0;
    int height = 0;
    argument.beginStructure();
    argument >> width >> height;
    argument.endStructure();
    return QSize(width, height);
}

// streams: a(ua{sv}), of which the node, source_type and size are used.
QList<CastStream> streamsOf(const QVariant &value)
{
    QList<CastStream> streams;
    if (!value.canConvert<QDBusArgument>())
        return streams;
    const QDBusArgument argument = value.value<QDBusArgument>();
    argument.beginArray();
    while (!argument.atEnd()) {
        std::uint32_t node = 0;
        QVariantMap properties;
        argument.beginStructure();
        argument >> node >> properties;
        argument.endStructure();
        const bool window = properties.value(QStringLiteral("source_type")).toUInt() == 2;
        streams.append({node, sizeOf(properties.value(QStringLiteral("size"))),
                        window ? SourceType::window : SourceType::monitor});
    }
    argument.endArray();
    return streams;
}

QString text(const QVariant &value)
{
    return value.userType() == qMetaTypeId<QDBusObjectPath>() ? value.value<QDBusObjectPath>().path()
                                                              : value.toString();
}

struct Answer {
    std::uint32_t code = 2;
    QVariantMap results;
    QList<CastStream> streams;
};

} // namespace

// Lives on the portal's thread and does all of its D-Bus work there.
class PortalWorker : public QObject {
    Q_OBJECT

public:
    void connectBus() { m_bus = QDBusConnection::connectToBus(QDBusConnection::SessionBus, nextToken()); }
    void disconnectBus()
    {
        const QString name = m_bus.name();
        m_bus = QDBusConnection(QString());
        QDBusConnection::disconnectFromBus(name);
    }

    expected<CastStream, PortalFailure> open(SourceType type, const QString &restoreToken,
                                             std::chrono::milliseconds answerTime);
    expected<int, PortalFailure> openPipeWireRemote();
    void close();

    QString newToken;
    std::function<void()> closedHandler;

public Q_SLOTS:
    void response(uint code, const QVariantMap &results, const QDBusMessage &message)
    {
        if (message.path() != m_waitingFor || !m_waiting)
            return;
        Answer answer;
        answer.code = code;
        answer.results = results;
        answer.streams = streamsOf(results.value(QStringLiteral("streams")));
        m_answer = std::move(answer);
        m_waiting->quit();
    }

    void sessionClosed()
    {
        // A session that ends before it started (a cancelled dialog) is reported by Start's answer.
        if (!m_started)
            return;
        if (auto handler = std::exchange(closedHandler, nullptr))
            handler();
    }

private:
    expected<Answer, PortalFailure> request(const QString &method, QVariantList arguments, QVariantMap options,
                                            std::chrono::milliseconds answerTime);
    std::uint32_t cursorMode(std::uint32_t *version);

    QDBusConnection m_bus{QString()};
    QString m_session;
    bool m_started = false;
    QString m_waitingFor;
    QEventLoop *m_waiting = nullptr;
    std::optional<Answer> m_answer;
};

std::uint32_t PortalWorker::cursorMode(std::uint32_t *version)
{
    auto property = [&](const QString &name) -> std::optional<std::uint32_t> {
        QDBusMessage get = QDBusMessage::createMethodCall(
            service, desktopPath, QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("Get"));
        get << screenCast << name;
        const QDBusMessage reply = m_bus.call(get, QDBus::Block, kCallTimeoutMs);
        if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().isEmpty())
            return std::nullopt;
        return reply.arguments().constFirst().value<QDBusVariant>().variant().toUInt();
    };
    const auto available = property(QStringLiteral("AvailableCursorModes"));
    *version = property(QStringLiteral("version")).value_or(0);
    if (!available)
        return 0;
    // The compositor draws the pointer into the picture where it can; otherwise the picture goes without it.
    return (*available & kCursorEmbedded) ? kCursorEmbedded : kCursorHidden;
}

expected<Answer, PortalFailure> PortalWorker::request(const QString &method, QVariantList arguments,
                                                      QVariantMap options, std::chrono::milliseconds answerTime)
{
    const QString token = nextToken();
    options.insert(QStringLiteral("handle_token"), token);
    // The request's path is known in advance, so its answer can't arrive before we listen for it.
    QString sender = m_bus.baseService().mid(1);
    sender.replace(QLatin1Char('.'), QLatin1Char('_'));
    const QString path = QStringLiteral("/org/freedesktop/portal/desktop/request/%1/%2").arg(sender, token);
    const char *slot = SLOT(response(uint, QVariantMap, QDBusMessage));
    m_bus.connect(service, path, requestInterface, QStringLiteral("Response"), this, slot);
    struct Unsubscribe {
        std::function<void()> run;
        ~Unsubscribe() { run(); }
    } unsubscribe{[&] {
        m_bus.disconnect(service, path, requestInterface, QStringLiteral("Response"), this, slot);
        m_waitingFor.clear();
        m_waiting = nullptr;
    }};

    QDBusMessage call = QDBusMessage::createMethodCall(service, desktopPath, screenCast, method);
    arguments.append(options);
    call.setArguments(arguments);
    const QDBusMessage reply = m_bus.call(call, QDBus::Block, kCallTimeoutMs);
    if (reply.type() == QDBusMessage::ErrorMessage) {
        const QString detail =
            method + QStringLiteral(": ") + reply.errorName() + QStringLiteral(": ") + reply.errorMessage();
        if (reply.errorName() == u"org.freedesktop.portal.Error.InvalidArgument" &&
            options.contains(QStringLiteral("restore_token")))
            return unexpected(PortalFailure{PortalFailure::Kind::refusedToken, detail});
        if (reply.errorName() == u"org.freedesktop.DBus.Error.ServiceUnknown" ||
            reply.errorName() == u"org.freedesktop.DBus.Error.UnknownMethod" ||
            reply.errorName() == u"org.freedesktop.DBus.Error.UnknownInterface")
            return unexpected(PortalFailure{PortalFailure::Kind::unavailable, detail});
        return unexpected(PortalFailure{PortalFailure::Kind::failed, detail});
    }

    // The answer may have come with the reply already; it waits in the event queue until the loop runs.
    QEventLoop loop;
    m_answer.reset();
    m_waitingFor = path;
    m_waiting = &loop;
    QTimer::singleShot(answerTime, &loop, &QEventLoop::quit);
    loop.exec();
    if (!m_answer) {
        m_bus.call(QDBusMessage::createMethodCall(service, path, requestInterface, QStringLiteral("Close")),
                   QDBus::Block, kCallTimeoutMs);
        return unexpected(PortalFailure{PortalFailure::Kind::timedOut, method + QStringLiteral(": no answer")});
    }
    Answer answer = std::move(*m_answer);
    if (answer.code == 1)
        return unexpected(PortalFailure{PortalFailure::Kind::cancelled, method + QStringLiteral(": cancelled")});
    if (answer.code != 0)
        return unexpected(
            PortalFailure{PortalFailure::Kind::failed, method + QStringLiteral(": response %1").arg(answer.code)});
    return answer;
}

expected<CastStream, PortalFailure> PortalWorker::open(SourceType type, const QString &restoreToken,
                                                       std::chrono::milliseconds answerTime)
{
    std::uint32_t version = 0;
    const std::uint32_t cursor = cursorMode(&version);
    if (cursor == 0)
        return unexpected(PortalFailure{PortalFailure::Kind::unavailable, QStringLiteral("no ScreenCast portal")});

    auto created = request(QStringLiteral("CreateSession"), {}, {{QStringLiteral("session_handle_token"), nextToken()}},
                           kStepTime);
    if (!created)
        return unexpected(created.error());
    m_session = text(created->results.value(QStringLiteral("session_handle")));
    if (m_session.isEmpty())
        return unexpected(PortalFailure{PortalFailure::Kind::failed, QStringLiteral("no session handle")});
    m_bus.connect(service, m_session, sessionInterface, QStringLiteral("Closed"), this, SLOT(sessionClosed()));

    QVariantMap selection{
        {QStringLiteral("types"), std::uint32_t(type)},
        {QStringLiteral("multiple"), false},
        {QStringLiteral("cursor_mode"), cursor},
    };
    if (version >= 4) {
        selection.insert(QStringLiteral("persist_mode"), std::uint32_t(2)); // until the user revokes it
        if (!restoreToken.isEmpty())
            selection.insert(QStringLiteral("restore_token"), restoreToken);
    }
    const QVariant session = QVariant::fromValue(QDBusObjectPath(m_session));
    auto failed = [this](PortalFailure failure) -> expected<CastStream, PortalFailure> {
        close();
        return unexpected(std::move(failure));
    };
    if (auto selected = request(QStringLiteral("SelectSources"), {session}, selection, kStepTime); !selected)
        return failed(selected.error());
    auto started = request(QStringLiteral("Start"), {session, QString()}, {}, answerTime);
    if (!started)
        return failed(started.error());
    if (started->streams.isEmpty())
        return failed(PortalFailure{PortalFailure::Kind::failed, QStringLiteral("Start: no stream")});
    newToken = started->results.value(QStringLiteral("restore_token")).toString();
    m_started = true;
    return started->streams.constFirst();
}

expected<int, PortalFailure> PortalWorker::openPipeWireRemote()
{
    QDBusMessage call =
        QDBusMessage::createMethodCall(service, desktopPath, screenCast, QStringLiteral("OpenPipeWireRemote"));
    call << QVariant::fromValue(QDBusObjectPath(m_session)) << QVariantMap();
    const QDBusMessage reply = m_bus.call(call, QDBus::Block, kCallTimeoutMs);
    if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().isEmpty())
        return unexpected(
            PortalFailure{PortalFailure::Kind::failed, QStringLiteral("OpenPipeWireRemote: ") + reply.errorMessage()});
    const auto descriptor = qdbus_cast<QDBusUnixFileDescriptor>(reply.arguments().constFirst());
    // PipeWire takes ownership of what it is given; the message keeps its own copy.
    const int fd = descriptor.isValid() ? fcntl(descriptor.fileDescriptor(), F_DUPFD_CLOEXEC, 3) : -1;
    if (fd < 0)
        return unexpected(PortalFailure{PortalFailure::Kind::failed, QStringLiteral("OpenPipeWireRemote: no fd")});
    return fd;
}

void PortalWorker::close()
{
    closedHandler = nullptr;
    if (m_session.isEmpty())
        return;
    m_bus.disconnect(service, m_session, sessionInterface, QStringLiteral("Closed"), this, SLOT(sessionClosed()));
    m_bus.call(QDBusMessage::createMethodCall(service, m_session, sessionInterface, QStringLiteral("Close")),
               QDBus::Block, kCallTimeoutMs);
    m_session.clear();
    m_started = false;
}

ScreenCastPortal::ScreenCastPortal() : m_thread(std::make_unique<QThread>()), m_worker(std::make_unique<PortalWorker>())
{
    m_thread->setObjectName(QStringLiteral("app.quillmoor.portal"));
    m_worker->moveToThread(m_thread.get());
    m_thread->start();
    run([this] { m_worker->connectBus(); });
}

ScreenCastPortal::~ScreenCastPortal()
{
    run([this] {
        m_worker->close();
        m_worker->disconnectBus();
    });
    m_thread->quit();
    m_thread->wait();
}

void ScreenCastPortal::run(std::function<void()> work)
{
    QMetaObject::invokeMethod(m_worker.get(), std::move(work), Qt::BlockingQueuedConnection);
}

expected<CastStream, PortalFailure> ScreenCastPortal::open(SourceType type, const QString &restoreToken,
                                                           std::chrono::milliseconds answerTime)
{
    expected<CastStream, PortalFailure> result = unexpected(PortalFailure{});
    run([&] { result = m_worker->open(type, restoreToken, answerTime); });
    return result;
}

QString ScreenCastPortal::newRestoreToken()
{
    QString token;
    run([&] { token = m_worker->newToken; });
    return token;
}

expected<int, PortalFailure> ScreenCastPortal::openPipeWireRemote()
{
    expected<int, PortalFailure> result = unexpected(PortalFailure{});
    run([&] { result = m_worker->openPipeWireRemote(); });
    return result;
}

void ScreenCastPortal::setClosedHandler(std::function<void()> handler)
{
    run([&] { m_worker->closedHandler = std::move(handler); });
}

void ScreenCastPortal::close()
{
    run([this] { m_worker->close(); });
}

} // namespace qm::wayland

#include "screencastportal.moc"
