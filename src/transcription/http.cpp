#include "transcription/http.h"

#include "transcription/enginesupport.h"

#include <QCoreApplication>
#include <QCoroNetworkReply>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QPointer>
#include <QTimer>

#include <memory>

namespace qm::HTTP {

namespace {

using engine::string;

std::optional<QString> messageOf(const QJsonObject &object, QLatin1String key)
{
    const QJsonValue value = object.value(key);
    if (value.isObject())
        return string(value.toObject(), QLatin1String("message"));
    return std::nullopt;
}

// The providers disagree on where an error's words go; the first rule that finds a string wins.
std::optional<QString> errorMessage(const QJsonDocument &json)
{
    if (!json.isObject())
        return std::nullopt;
    const QJsonObject o = json.object();
    const QLatin1String error("error");
    const QLatin1String detail("detail");
    for (std::optional<QString> found : {messageOf(o, error), string(o, error), messageOf(o, detail), string(o, detail),
                                         string(o, QLatin1String("err_msg")), string(o, QLatin1String("message"))}) {
        if (found)
            return found;
    }
    return std::nullopt;
}

struct ReplyDeleter {
    void operator()(QNetworkReply *reply) const
    {
        reply->disconnect();
        reply->deleteLater();
    }
};

} // namespace

QNetworkAccessManager &session()
{
    static QPointer<QNetworkAccessManager> shared;
    if (!shared) {
        Q_ASSERT(QCoreApplication::instance());
        shared = new QNetworkAccessManager(QCoreApplication::instance());
    }
    return *shared;
}

QCoro::Task<expected<QJsonValue, TranscriptionError>> send(QNetworkRequest request, std::optional<QByteArray> body,
                                                           QString service, HttpLimits limits)
{
    QNetworkAccessManager &manager = session();
    std::unique_ptr<QNetworkReply, ReplyDeleter> reply(body ? manager.post(request, *body) : manager.get(request));

    // The timers belong to the reply, so they stop with it. They abort through the event loop rather than
    // from inside their own signal, because abort() resumes this coroutine at once.
    auto timedOut = std::make_shared<bool>(false);
    auto *idle = new QTimer(reply.get());
    auto *total = new QTimer(reply.get());
    for (auto [timer, limit] : {std::pair{idle, limits.inactivity}, std::pair{total, limits.total}}) {
        timer->setSingleShot(true);
        timer->setTimerType(Qt::PreciseTimer);
        timer->setInterval(limit);
        QObject::connect(timer, &QTimer::timeout, reply.get(), [timedOut, target = reply.get()] {
            *timedOut = true;
            QMetaObject::invokeMethod(target, &QNetworkReply::abort, Qt::QueuedConnection);
        });
        timer->start();
    }
    const auto stillMoving = [idle] { idle->start(); };
    QObject::connect(reply.get(), &QNetworkReply::uploadProgress, idle, stillMoving);
    QObject::connect(reply.get(), &QNetworkReply::downloadProgress, idle, stillMoving);

    QCoro::Task<bool> finished = qCoro(reply.get()).waitForFinished();
    co_await finished;

    if (*timedOut)
        co_return unexpected(TranscriptionError::timedOut(service));
    const QVariant statusAttribute = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
    if (!statusAttribute.isValid())
        co_return unexpected(TranscriptionError::network(service, reply->errorString()));

    const int status = statusAttribute.toInt();
    const QByteArray data = reply->readAll();
    QJsonParseError parseError{};
    const QJsonDocument json = QJsonDocument::fromJson(data, &parseError);
    const bool parsed = parseError.error == QJsonParseError::NoError && !json.isNull();

    if (status < 200 || status > 299) {
        std::optional<QString> message = parsed ? errorMessage(json) : std::nullopt;
        co_return unexpected(
            TranscriptionError::api(service, status, message.value_or(QString::fromUtf8(data.left(300)))));
    }
    if (!parsed)
        co_return unexpected(TranscriptionError::badResponse(service));
    co_return json.isObject() ? QJsonValue(json.object()) : QJsonValue(json.array());
}

} // namespace qm::HTTP
