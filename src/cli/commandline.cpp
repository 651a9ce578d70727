#include "cli/commandline.h"

#include "app/application.h"
#include "cli/arguments.h"
#include "cli/session.h"
#include "cli/terminal.h"

#include <QCoreApplication>
#include <QCoroTask>

#include <memory>

namespace qm::cli {

int run(const QStringList &arguments)
{
    Console console(Console::statusIsTerminal());
    const auto parsed = parseArguments(arguments);
    if (!parsed) {
        console.error(parsed.error().message);
        console.error(QCoreApplication::translate("qm::cli", "Run “quillmoor --help” for the commands."));
        return kUsage;
    }
    const Invocation &invocation = *parsed;
    if (invocation.command == Command::help) {
        console.raw(invocation.helpText);
        return kSuccess;
    }
    if (invocation.command == Command::version) {
        console.line(QStringLiteral("quillmoor ") + QCoreApplication::applicationVersion());
        return kSuccess;
    }

    // Only a recording turns Ctrl-C into "stop and save"; every other command may simply be interrupted.
    std::unique_ptr<StopSignals> stops;
    if (invocation.command == Command::record)
        stops = std::make_unique<StopSignals>();

    Application app(Application::Options{.promptViews = {}, .watchZoom = false});
    Session session(app, console, stops.get());
    auto task = session.execute(invocation);
    return QCoro::waitFor(task);
}

} // namespace qm::cli
