#pragma once

#include "support/providers/fakeprovider.h"

#include <QMap>

namespace qm::test {

// AssemblyAI's upload, transcript and sentences endpoints under "/v2". A job walks through `statuses`, one
// per poll (the last one repeats); a finished job has utterances only when speaker labels were asked for.
// `outcome` applies to the upload.
class FakeAssemblyAI : public FakeProvider {
public:
    QUrl base() const { return server.url(QStringLiteral("/v2")); }

    QStringList statuses{QStringLiteral("queued"), QStringLiteral("processing"), QStringLiteral("completed")};
    std::optional<QString> jobError; // the "error" text of a job whose status is "error"

    QList<QJsonObject> createdJobs; // every accepted create body
    QList<qint64> pollTimesMs;      // when each poll arrived, on the server's clock
    qint64 createdAtMs = -1;

protected:
    ScriptedResponse handle(const ReceivedRequest &request) override;
    ScriptedResponse refusal() const override;

private:
    ScriptedResponse upload(const ReceivedRequest &request);
    ScriptedResponse create(const ReceivedRequest &request);
    ScriptedResponse poll(const ReceivedRequest &request, const QString &id);
    ScriptedResponse sentences(const ReceivedRequest &request, const QString &id);

    struct Job {
        QJsonObject request;
        QList<Heard> heard;
        double seconds = 0;
        int polls = 0;
    };
    QMap<QString, Mp4Audio> m_files;
    QMap<QString, Job> m_jobs;
};

} // namespace qm::test
