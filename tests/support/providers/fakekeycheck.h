#pragma once

#include "support/providers/loopbackserver.h"

#include <QList>

namespace qm::test {

// One service's key-check request: where it goes, where the key travels, and the service's own answers.
struct KeyRoute {
    QByteArray service;  // "Deepgram", as the service names itself in errors
    QByteArray basePath; // the path its engine's base address already carries ("/v2" for AssemblyAI)
    QByteArray path;     // the full request path
    QByteArray query;
    QByteArray header; // the header carrying the key, and what precedes the key in it
    QByteArray prefix;
    QByteArray accepted; // 200 body
    QByteArray refused;  // 401 body, in the service's own shape
    QByteArray refusal;  // the words a client should take from `refused`
};

// The four cloud services' routes.
const QList<KeyRoute> &keyRoutes();

// Answers every route of `keyRoutes()` on one loopback server: 200 for `key` in the right header, the
// service's 401 for any other key, 404 for an unknown route or a wrong method or query.
class FakeKeyCheck {
public:
    FakeKeyCheck();
    QString key = QStringLiteral("good-key-0123");
    LoopbackServer server;
};

} // namespace qm::test
