#include "capture/wayland/screencastportal.h"

#include <QCoreApplication>
#include <QDBusArgument>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusUnixFileDescriptor>
#include <QDBusVariant>
#include <QList>
#include <QThread>

#include <condition_variable>
#include <fcntl.h>
#include <map>
#include <mutex>
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

} // namespace

struct ScreenCastPortal::Answer {
    std::uint32_t code = 2;
    QVariantMap results; // plain values only
    QList<CastStream> streams;
};

// Lives on the portal's thread: collects the answers to requests and the end of the session.
class PortalReceiver : public QObject {
    Q_OBJECT

public:
    void expect(const QString &path)
    {
        const std::lock_guard lock(m_mutex);
        m_answers.erase(path);
    }

    std::optional<ScreenCastPortal::Answer> wait(const QString &path, std::chrono::milliseconds time)
    {
        std::unique_lock lock(m_mutex);
        if (!m_wake.wait_for(lock, time, [&] { return m_answers.count(path) > 0; }))
            return std::nullopt;
        ScreenCastPortal::Answer answer = std::move(m_answers[path]);
        m_answers.erase(path);
        return answer;
    }

    void setClosedHandler(std::function<void()> handler)
    {
        const std::lock_guard lock(m_mutex);
        m_closed = std::move(handler);
    }

public Q_SLOTS:
    void response(uint code, const QVariantMap &results, const QDBusMessage &message)
    {
        ScreenCastPortal::Answer answer;
        answer.code = code;
        for (auto it = results.begin(); it != results.end(); ++it) {
            if (it.key() == u"streams")
                answer.streams = streamsOf(it.value());
            else if (!it.value().canConvert<QDBusArgument>())
                answer.results.insert(it.key(), it.value());
        }
        {
            const std::lock_guard lock(m_mutex);
            m_answers[message.path()] = std::move(answer);
        }
        m_wake.notify_all();
    }

    void sessionClosed()
    {
        std::function<void()> handler;
        {
            const std::lock_guard lock(m_mutex);
            handler = std::exchange(m_closed, nullptr);
        }
        if (handler)
            handler();
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_wake;
    std::map<QString, ScreenCastPortal::Answer> m_answers;
    std::function<void()> m_closed;
};

ScreenCastPortal::ScreenCastPortal(QDBusConnection bus)
    : m_bus(std::move(bus)), m_thread(std::make_unique<QThread>()), m_receiver(std::make_unique<PortalReceiver>())
{
    m_thread->setObjectName(QStringLiteral("app.quillmoor.portal"));
    m_receiver->moveToThread(m_thread.get());
    m_thread->start();
}

ScreenCastPortal::~ScreenCastPortal()
{
    close();
    m_thread->quit();
    m_thread->wait();
}

void ScreenCastPortal::setClosedHandler(std::function<void()> handler)
{
    m_receiver->setClosedHandler(std::move(handler));
}

std::uint32_t ScreenCastPortal::cursorMode(std::uint32_t *version)
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
    // The compositor draws the pointer into the picture where it can; the picture is filmed without it
    // otherwise.
    return (*available & kCursorEmbedded) ? kCursorEmbedded : kCursorHidden;
}

expected<ScreenCastPortal::Answer, PortalFailure> ScreenCastPortal::request(const QString &method,
                                                                            QVariantList arguments, QVariantMap options,
                                                                            std::chrono::milliseconds answerTime)
{
    const QString token = QStringLiteral("quillmoor%1_%2").arg(QCoreApplication::applicationPid()).arg(++m_requests);
    options.insert(QStringLiteral("handle_token"), token);
    // The portal's request path is known in advance, so the answer can't arrive before we listen for it.
    QString sender = m_bus.baseService().mid(1);
    sender.replace(QLatin1Char('.'), QLatin1Char('_'));
    const QString path = QStringLiteral("/org/freedesktop/portal/desktop/request/%1/%2").arg(sender, token);
    m_receiver->expect(path);
    const char *slot = SLOT(response(uint, QVariantMap, QDBusMessage));
    m_bus.connect(service, path, requestInterface, QStringLiteral("Response"), m_receiver.get(), slot);
    auto unsubscribe = [&] {
        m_bus.disconnect(service, path, requestInterface, QStringLiteral("Response"), m_receiver.get(), slot);
    };

    QDBusMessage call = QDBusMessage::createMethodCall(service, desktopPath, screenCast, method);
    arguments.append(options);
    call.setArguments(arguments);
    const QDBusMessage reply = m_bus.call(call, QDBus::Block, kCallTimeoutMs);
    if (reply.type() == QDBusMessage::ErrorMessage) {
        unsubscribe();
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

    std::optional<Answer> answer = m_receiver->wait(path, answerTime);
    unsubscribe();
    if (!answer) {
        m_bus.call(QDBusMessage::createMethodCall(service, path, requestInterface, QStringLiteral("Close")),
                   QDBus::Block, kCallTimeoutMs);
        return unexpected(PortalFailure{PortalFailure::Kind::timedOut, method + QStringLiteral(": no answer")});
    }
    if (answer->code == 1)
        return unexpected(PortalFailure{PortalFailure::Kind::cancelled, method + QStringLiteral(": cancelled")});
    if (answer->code != 0)
        return unexpected(
            PortalFailure{PortalFailure::Kind::failed, method + QStringLiteral(": response %1").arg(answer->code)});
    return std::move(*answer);
}

expected<CastStream, PortalFailure> ScreenCastPortal::open(SourceType type, const QString &restoreToken,
                                                           std::chrono::milliseconds answerTime)
{
    std::uint32_t version = 0;
    const std::uint32_t cursor = cursorMode(&version);
    if (cursor == 0)
        return unexpected(PortalFailure{PortalFailure::Kind::unavailable, QStringLiteral("no ScreenCast portal")});

    const QString sessionToken = QStringLiteral("quillmoor%1").arg(QCoreApplication::applicationPid());
    auto created = request(QStringLiteral("CreateSession"), {},
                           {{QStringLiteral("session_handle_token"), sessionToken}}, kStepTime);
    if (!created)
        return unexpected(created.error());
    m_session = text(created->results.value(QStringLiteral("session_handle")));
    if (m_session.isEmpty())
        return unexpected(PortalFailure{PortalFailure::Kind::failed, QStringLiteral("no session handle")});
    m_bus.connect(service, m_session, sessionInterface, QStringLiteral("Closed"), m_receiver.get(),
                  SLOT(sessionClosed()));

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
    m_newToken = started->results.value(QStringLiteral("restore_token")).toString();
    return started->streams.constFirst();
}

expected<int, PortalFailure> ScreenCastPortal::openPipeWireRemote()
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

void ScreenCastPortal::close()
{
    m_receiver->setClosedHandler(nullptr);
    if (m_session.isEmpty())
        return;
    m_bus.disconnect(service, m_session, sessionInterface, QStringLiteral("Closed"), m_receiver.get(),
                     SLOT(sessionClosed()));
    m_bus.call(QDBusMessage::createMethodCall(service, m_session, sessionInterface, QStringLiteral("Close")),
               QDBus::Block, kCallTimeoutMs);
    m_session.clear();
}

} // namespace qm::wayland

#include "screencastportal.moc"
