#include "support/providers/loopbackserver.h"

#include <QPointer>
#include <QTcpSocket>
#include <QTimer>

namespace qm::test {

namespace {

QByteArray reasonPhrase(int status)
{
    switch (status) {
    case 200:
        return "OK";
    case 204:
        return "No Content";
    case 400:
        return "Bad Request";
    case 401:
        return "Unauthorized";
    case 402:
        return "Payment Required";
    case 404:
        return "Not Found";
    case 413:
        return "Payload Too Large";
    case 422:
        return "Unprocessable Entity";
    case 429:
        return "Too Many Requests";
    case 500:
        return "Internal Server Error";
    default:
        return "Status";
    }
}

} // namespace

QByteArray ReceivedRequest::header(const QByteArray &name) const
{
    for (const auto &[key, value] : headers) {
        if (key.compare(name, Qt::CaseInsensitive) == 0)
            return value;
    }
    return {};
}

bool ReceivedRequest::hasHeader(const QByteArray &name) const
{
    for (const auto &pair : headers) {
        if (pair.first.compare(name, Qt::CaseInsensitive) == 0)
            return true;
    }
    return false;
}

ScriptedResponse ScriptedResponse::json(int status, const QByteArray &body)
{
    ScriptedResponse r;
    r.status = status;
    r.body = body;
    return r;
}

ScriptedResponse ScriptedResponse::text(int status, const QByteArray &contentType, const QByteArray &body)
{
    ScriptedResponse r;
    r.status = status;
    r.contentType = contentType;
    r.body = body;
    return r;
}

LoopbackServer::LoopbackServer(Handler handler, QObject *parent) : QObject(parent), m_handler(std::move(handler))
{
    m_clock.start();
    connect(&m_server, &QTcpServer::newConnection, this, &LoopbackServer::accept);
    if (!m_server.listen(QHostAddress::LocalHost, 0))
        qFatal("loopback server: %s", qPrintable(m_server.errorString()));
}

QUrl LoopbackServer::url(const QString &path) const
{
    return QUrl(QStringLiteral("http://127.0.0.1:%1%2").arg(m_server.serverPort()).arg(path));
}

void LoopbackServer::accept()
{
    while (QTcpSocket *socket = m_server.nextPendingConnection()) {
        connect(socket, &QTcpSocket::readyRead, this, [this, socket] { read(socket); });
        connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
    }
}

void LoopbackServer::read(QTcpSocket *socket)
{
    // Bytes of a request still incomplete wait in the socket's own property between reads.
    QByteArray buffer = socket->property("pending").toByteArray() + socket->readAll();
    for (;;) {
        const qsizetype headEnd = buffer.indexOf("\r\n\r\n");
        if (headEnd < 0)
            break;
        const QList<QByteArray> lines = buffer.left(headEnd).split('\n');
        const QList<QByteArray> requestLine = lines.first().trimmed().split(' ');
        if (requestLine.size() != 3) {
            socket->disconnectFromHost();
            return;
        }
        ReceivedRequest request;
        request.method = requestLine.at(0);
        const QByteArray target = requestLine.at(1);
        const qsizetype question = target.indexOf('?');
        request.path = question < 0 ? target : target.left(question);
        request.query = question < 0 ? QByteArray() : target.mid(question + 1);
        for (qsizetype i = 1; i < lines.size(); ++i) {
            const QByteArray line = lines.at(i).trimmed();
            const qsizetype colon = line.indexOf(':');
            if (colon > 0)
                request.headers.append({line.left(colon), line.mid(colon + 1).trimmed()});
        }
        if (request.hasHeader("Transfer-Encoding")) {
            answer(socket, ScriptedResponse::text(411, "text/plain", "chunked bodies are not expected here"));
            return;
        }
        const qsizetype length = request.header("Content-Length").toLongLong();
        if (buffer.size() < headEnd + 4 + length)
            break;
        request.body = buffer.mid(headEnd + 4, length);
        buffer.remove(0, headEnd + 4 + length);
        request.receivedAtMs = m_clock.elapsed();
        requests.append(request);
        answer(socket, m_handler(request));
    }
    socket->setProperty("pending", buffer);
}

void LoopbackServer::answer(QTcpSocket *socket, const ScriptedResponse &response)
{
    QByteArray head = "HTTP/1.1 " + QByteArray::number(response.status) + ' ' + reasonPhrase(response.status) + "\r\n";
    if (response.status != 204) {
        head += "Content-Type: " + response.contentType + "\r\n";
        head += "Content-Length: " + QByteArray::number(response.body.size()) + "\r\n";
    }
    for (const auto &[key, value] : response.extraHeaders)
        head += key + ": " + value + "\r\n";
    head += "\r\n";

    QPointer<QTcpSocket> target(socket);
    auto send = [target, head, response] {
        if (!target)
            return;
        target->write(head);
        if (response.trickle.count() == 0 || response.body.isEmpty()) {
            target->write(response.body);
            return;
        }
        const qsizetype piece = std::max<qsizetype>(1, (response.body.size() + 7) / 8);
        for (qsizetype offset = 0, step = 0; offset < response.body.size(); offset += piece, ++step) {
            QTimer::singleShot(response.trickle * (step + 1), target.data(),
                               [target, chunk = response.body.mid(offset, piece)] { target->write(chunk); });
        }
    };
    if (response.delay.count() > 0)
        QTimer::singleShot(response.delay, socket, send);
    else
        send();
}

} // namespace qm::test
