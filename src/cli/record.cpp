// The record command: start, show the meter until Ctrl-C or the time limit, stop, follow the finishing steps.

#include "app/appcontroller.h"
#include "app/application.h"
#include "app/appsettings.h"
#include "cli/commandline.h"
#include "cli/session.h"

#include <QCoreApplication>
#include <QCoroTimer>
#include <QElapsedTimer>

#include <csignal>
#include <cstdlib>

namespace qm::cli {

namespace {

constexpr std::chrono::milliseconds kMeterInterval{100};

QString tr(const char *text)
{
    return QCoreApplication::translate("qm::cli", text);
}

QString meter(const AppController &controller, RecordingSource source)
{
    QStringList parts{QStringLiteral("● ") + elapsedText(controller.elapsed())};
    if (controller.activeRecordingUsesMicrophone())
        parts.append(levelBar(tr("mic"), controller.micLevel()));
    if (source != RecordingSource::inPerson)
        parts.append(levelBar(tr("meeting"), controller.meetingLevel()));
    return parts.join(QStringLiteral("  "));
}

} // namespace

QCoro::Task<int> Session::record(Invocation invocation)
{
    using Phase = AppController::Phase;
    AppController &control = controller();

    bool stopAsked = false;
    QMetaObject::Connection stopping;
    if (m_stops) {
        stopping = QObject::connect(m_stops, &StopSignals::received, m_stops, [this, &stopAsked, &control](int number) {
            if (!stopAsked && (control.phase() == Phase::starting || control.phase() == Phase::recording)) {
                stopAsked = true;
                return;
            }
            // Only a person pressing Ctrl-C again means "don't wait"; a closed terminal or a service manager
            // repeating itself still gets the recording saved.
            if (number != SIGINT)
                return;
            // Asked twice: leave now. The recording is on disk as "processing" and the next start finishes it.
            m_console.error(tr("Quitting without waiting; the recording is finished the next time Quillmoor starts."));
            std::_Exit(128 + SIGINT);
        });
    }

    control.startRecording(invocation.source, invocation.video);

    auto starting =
        waitWhile([&control] { return control.phase() == Phase::starting; }, [] { return tr("Starting…"); });
    co_await starting;
    if (control.phase() != Phase::recording || !control.active()) {
        QObject::disconnect(stopping);
        m_console.error(control.errorMessage().value_or(tr("The recording couldn't start.")));
        co_return kFailure;
    }

    const QUuid id = control.active()->id;
    m_console.note(tr("Recording into %1").arg(control.active()->folderPath()));
    if (!invocation.limit)
        m_console.note(tr("Press Ctrl-C to stop and save."));
    QElapsedTimer clock;
    clock.start();
    while (control.phase() == Phase::recording) {
        if (stopAsked || (invocation.limit && clock.elapsed() >= invocation.limit->count())) {
            control.stopRecording();
            break;
        }
        m_console.status(meter(control, invocation.source), false);
        auto pause = QCoro::sleepFor(kMeterInterval);
        co_await pause;
    }
    m_console.endStatus();
    // The command line can't pause, so the time since the start is the recorded time, to the millisecond.
    const std::optional<QString> interruption = control.errorMessage();
    m_console.note(tr("Stopped after %1.").arg(elapsedText(double(clock.elapsed()) / 1000.0)));

    auto finishing = followRecording(id);
    co_await finishing;
    QObject::disconnect(stopping);

    int code = reportRecording(id);
    if (interruption) {
        m_console.error(*interruption);
        code = kFailure;
    }
    co_return code;
}

} // namespace qm::cli
