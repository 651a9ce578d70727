#pragma once

#include "support/providers/loopbackserver.h"
#include "support/providers/mp4probe.h"
#include "support/providers/multipartreader.h"

#include <QJsonObject>
#include <QStringList>

#include <chrono>
#include <functional>

namespace qm::test {

// One stretch of speech the fake "hears" in an upload; `speaker` counts from 0, -1 for none.
struct Heard {
    QString text;
    double start = 0;
    double end = 0;
    int speaker = -1;
};

// A word of a heard stretch, with its share of the stretch's time.
using HeardWord = Heard;
QList<HeardWord> wordsOf(const QList<Heard> &heard);

// How a fake answers the request that carries the audio.
enum class Outcome {
    success,
    refused, // the provider's refusal()
    slow,    // success, after `slowDelay`
};

// Base of the loopback imitations of the four services. Each checks what the real service would check
// (method, path, key, query or form, that the upload is AAC in MPEG-4 of a plausible bit rate) and answers
// as the real service does, or as the scenario says. Problems the real service would reject are answered
// as it would answer them and also listed in `violations`, so a test can tell a faithful request from one
// that merely got some answer.
class FakeProvider {
public:
    FakeProvider();
    virtual ~FakeProvider() = default;
    FakeProvider(const FakeProvider &) = delete;
    FakeProvider &operator=(const FakeProvider &) = delete;

    QUrl base() const { return server.url(); }

    QString key = QStringLiteral("test-key-0123");
    Outcome outcome = Outcome::success;
    std::chrono::milliseconds slowDelay{3000};
    // What each upload contains; by default `script`, whatever the audio.
    QList<Heard> script;
    std::function<QList<Heard>(const Mp4Audio &audio, int upload)> hearing;
    // Lets a test bend a faithful success body at a given path before it is sent.
    std::function<void(const QByteArray &path, QJsonObject &body)> tamper;

    QStringList violations;
    // Every accepted form, one entry per field in order: "name=value", or "name=@file;type" for a file.
    QList<QByteArrayList> forms;
    QList<Mp4Audio> uploads; // every accepted audio upload, in order
    LoopbackServer server;

protected:
    virtual ScriptedResponse handle(const ReceivedRequest &request) = 0;
    // The provider's answer for Outcome::refused.
    virtual ScriptedResponse refusal() const = 0;

    // Records a protocol mistake and returns the answer the real service would give to it.
    ScriptedResponse reject(const QString &why, ScriptedResponse answer);
    // Checks the audio bytes; on success records them and returns nothing.
    std::optional<Mp4Audio> acceptAudio(const QByteArray &bytes);
    // The answer the scenario puts in place of `success` (which it delays when slow).
    ScriptedResponse scripted(ScriptedResponse success) const;
    QList<Heard> heardIn(const Mp4Audio &audio);
    ScriptedResponse json(const QByteArray &path, QJsonObject body) const;
    void recordForm(const QList<FormPart> &parts);
};

QByteArray jsonBytes(const QJsonObject &object);

} // namespace qm::test
