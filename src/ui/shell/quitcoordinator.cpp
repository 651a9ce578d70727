#include "ui/shell/quitcoordinator.h"

#include "app/appcontroller.h"
#include "library/log.h"
#include "ui/shell/sessioninhibitor.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <QGuiApplication>
#include <QSessionManager>
#include <QSocketNotifier>

#include <csignal>
#include <sys/socket.h>
#include <unistd.h>

namespace qm::ui {

namespace {

// The write end of the pipe the signal handler writes to; a handler may do nothing else safely.
int g_signalWriter = -1;

void onSignal(int)
{
    const char byte = 1;
    [[maybe_unused]] const auto written = ::write(g_signalWriter, &byte, 1);
}

} // namespace

QuitCoordinator::QuitCoordinator(AppController &controller, std::function<void()> quit, QObject *parent)
    : QObject(parent), m_controller(controller), m_quit(std::move(quit))
{
    if (!m_quit)
        m_quit = [] { QCoreApplication::quit(); };
    // Queued: between a capture's stop and the first finishing step the controller is briefly idle with nothing
    // running, within one turn of the event loop. Looking only once that turn is over never sees that gap.
    connect(&controller, &AppController::phaseChanged, this, &QuitCoordinator::check, Qt::QueuedConnection);
    connect(&controller, &AppController::activitiesChanged, this, &QuitCoordinator::check, Qt::QueuedConnection);
    connect(&controller, &AppController::isProcessingChanged, this, &QuitCoordinator::check, Qt::QueuedConnection);
}

QuitCoordinator::~QuitCoordinator() = default;

void QuitCoordinator::watchSignals()
{
    int pair[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) {
        logLine(QStringLiteral("signals can't be watched; an interrupted recording is finished at the next start"));
        return;
    }
    g_signalWriter = pair[0];
    m_signals = std::make_unique<QSocketNotifier>(pair[1], QSocketNotifier::Read);
    connect(m_signals.get(), &QSocketNotifier::activated, this, [this, reader = pair[1]] {
        char byte = 0;
        [[maybe_unused]] const auto got = ::read(reader, &byte, 1);
        logLine(QStringLiteral("asked to quit by a signal"));
        requestQuit();
    });
    struct sigaction action = {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    for (int signal : {SIGTERM, SIGINT, SIGHUP})
        ::sigaction(signal, &action, nullptr);
}

void QuitCoordinator::watchSession()
{
    m_inhibitor = std::make_unique<SessionInhibitor>();
    connect(m_inhibitor.get(), &SessionInhibitor::shuttingDown, this, [this] {
        logLine(QStringLiteral("the system is shutting down"));
        requestQuit();
    });
    connect(&m_controller, &AppController::phaseChanged, this, &QuitCoordinator::updateInhibitor, Qt::QueuedConnection);
    connect(&m_controller, &AppController::activitiesChanged, this, &QuitCoordinator::updateInhibitor,
            Qt::QueuedConnection);
    if (auto *gui = qobject_cast<QGuiApplication *>(QCoreApplication::instance())) {
        // The session manager waits while this returns; saving the recording before then is the whole point.
        connect(gui, &QGuiApplication::commitDataRequest, this, [this](QSessionManager &manager) {
            manager.setRestartHint(QSessionManager::RestartNever);
            if (isSettled())
                return;
            logLine(QStringLiteral("the desktop session is ending; saving the recording first"));
            requestQuit();
            QEventLoop wait;
            connect(this, &QuitCoordinator::quittingChanged, &wait, &QEventLoop::quit);
            while (!isSettled())
                wait.processEvents(QEventLoop::WaitForMoreEvents);
        });
    }
    updateInhibitor();
}

bool QuitCoordinator::isSettled() const
{
    const auto phase = m_controller.phase();
    return phase != AppController::Phase::recording && phase != AppController::Phase::stopping &&
           phase != AppController::Phase::starting && m_controller.activities().isEmpty();
}

void QuitCoordinator::requestQuit()
{
    if (!m_quitting) {
        m_quitting = true;
        Q_EMIT quittingChanged(true);
    }
    if (m_controller.phase() == AppController::Phase::recording)
        m_controller.stopRecording();
    check();
}

void QuitCoordinator::check()
{
    if (!m_quitting || m_done)
        return;
    // A start still in progress ends as a recording, which the next check stops.
    if (m_controller.phase() == AppController::Phase::recording) {
        m_controller.stopRecording();
        return;
    }
    if (!isSettled())
        return;
    m_done = true;
    logLine(QStringLiteral("quitting"));
    m_quit();
}

void QuitCoordinator::updateInhibitor()
{
    if (m_inhibitor)
        m_inhibitor->setHeld(!isSettled());
}

} // namespace qm::ui
