#pragma once

#include <QObject>
#include <QTimer>

#include <memory>

class QSocketNotifier;

namespace qm {
class AppController;
}

namespace qm::ui {

class SessionInhibitor;

// Quits without losing a recording. Every way of ending the program comes here: "Quit", SIGTERM, SIGINT and
// SIGHUP, the desktop session ending (the session manager's save request, logind's PrepareForShutdown).
//
// Idle: quits at once. Recording or stopping: stops and saves the recording, then waits, with no time limit,
// until the capture has stopped and every activity (saving, transcribing, copying) has finished, then quits.
// While anything is being captured or finished, a logind "delay" inhibitor asks the system to wait for it.
//
// Main thread only. Construct once, after the QApplication.
class QuitCoordinator : public QObject {
    Q_OBJECT

public:
    // `quit` ends the event loop; the default is QCoreApplication::quit.
    explicit QuitCoordinator(AppController &controller, std::function<void()> quit = {}, QObject *parent = nullptr);
    ~QuitCoordinator() override;

    // Routes SIGTERM, SIGINT and SIGHUP here. Call once per process.
    void watchSignals();
    // Follows the session manager and logind.
    void watchSession();

    void requestQuit();
    bool isQuitting() const { return m_quitting; }
    // Nothing is being captured or finished.
    bool isSettled() const;

Q_SIGNALS:
    void quittingChanged(bool quitting);

private:
    void check();
    void updateInhibitor();

    AppController &m_controller;
    std::function<void()> m_quit;
    bool m_quitting = false;
    bool m_done = false;
    std::unique_ptr<QSocketNotifier> m_signals;
    std::unique_ptr<SessionInhibitor> m_inhibitor;
};

} // namespace qm::ui
