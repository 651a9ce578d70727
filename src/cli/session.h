#pragma once

#include "cli/arguments.h"
#include "cli/terminal.h"

#include <QCoroTask>
#include <QSet>
#include <QUuid>

#include <functional>

namespace qm {
class AppController;
class Application;
} // namespace qm

namespace qm::cli {

// One command run against the application's services. Every command is a task resuming on the main thread;
// the application and the console must outlive it. `stops` is given only to the record command, whose Ctrl-C
// stops and saves instead of ending the program.
class Session {
public:
    Session(Application &app, Console &console, StopSignals *stops);

    QCoro::Task<int> execute(Invocation invocation);

private:
    QCoro::Task<int> record(Invocation invocation);
    QCoro::Task<int> list(Invocation invocation);
    QCoro::Task<int> transcribe(Invocation invocation);
    QCoro::Task<int> exportTranscript(Invocation invocation);
    QCoro::Task<int> sync(Invocation invocation);
    QCoro::Task<int> rename(Invocation invocation);
    QCoro::Task<int> renameSpeaker(Invocation invocation);
    int configGet(const Invocation &invocation);
    int configSet(const Invocation &invocation);
    int keySet(const Invocation &invocation);

    // Polls until `busy` turns false, showing what `describe` says as the status line whenever it changes.
    QCoro::Task<> waitWhile(std::function<bool()> busy, std::function<QString()> describe);
    // Waits for every recording in the finishing pipeline (interrupted ones recovered at start among them).
    QCoro::Task<> finishPipeline();
    // Waits until `id` has left the pipeline, showing its step.
    QCoro::Task<> followRecording(QUuid id);
    // Prints the outcome of a recording that went through the pipeline; the exit code it deserves.
    int reportRecording(const QUuid &id);
    // Names the library's folders that couldn't be read, on standard error; nothing when there are none.
    void reportUnreadable();
    // The recording a command names, or nothing after printing why not.
    std::optional<Recording> resolve(const QString &reference);

    AppController &controller();

    Application &m_app;
    Console &m_console;
    StopSignals *m_stops;
    QSet<QUuid> m_recovered;
};

} // namespace qm::cli
