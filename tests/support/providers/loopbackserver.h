#pragma once

#include <QByteArray>
#include <QElapsedTimer>
#include <QList>
#include <QPair>
#include <QTcpServer>
#include <QUrl>

#include <chrono>
#include <functional>

class QTcpSocket;

namespace qm::test {

// One HTTP/1.1 request as it arrived on the wire.
struct ReceivedRequest {
    QByteArray method;
    QByteArray path;  // without the query
    QByteArray query; // raw, without "?", in the order sent
    QList<QPair<QByteArray, QByteArray>> headers;
    QByteArray body;
    qint64 receivedAtMs = 0; // since the server started, monotonic

    // First header of that name, compared without regard to case; empty when absent.
    QByteArray header(const QByteArray &name) const;
    bool hasHeader(const QByteArray &name) const;
};

// What to answer, and how fast.
struct ScriptedResponse {
    int status = 200;
    QByteArray contentType = "application/json";
    QByteArray body;
    QList<QPair<QByteArray, QByteArray>> extraHeaders;
    std::chrono::milliseconds delay{0};   // before anything is written
    std::chrono::milliseconds trickle{0}; // when set, the body goes out in 8 pieces this far apart

    static ScriptedResponse json(int status, const QByteArray &body);
    static ScriptedResponse text(int status, const QByteArray &contentType, const QByteArray &body);
};

// A small HTTP/1.1 server on 127.0.0.1 (a free port) for tests: reads whole requests (Content-Length bodies,
// keep-alive), hands each to `handler` and writes its answer. Lives on the thread that made it.
class LoopbackServer : public QObject {
    Q_OBJECT

public:
    using Handler = std::function<ScriptedResponse(const ReceivedRequest &)>;

    explicit LoopbackServer(Handler handler, QObject *parent = nullptr);

    // "http://127.0.0.1:<port>" + `path`.
    QUrl url(const QString &path = {}) const;
    quint16 port() const { return m_server.serverPort(); }

    QList<ReceivedRequest> requests; // every request, in arrival order

private:
    void accept();
    void read(QTcpSocket *socket);
    void answer(QTcpSocket *socket, const ScriptedResponse &response);

    QTcpServer m_server;
    Handler m_handler;
    QElapsedTimer m_clock;
};

} // namespace qm::test
