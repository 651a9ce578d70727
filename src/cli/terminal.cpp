#include "cli/terminal.h"

#include <QSocketNotifier>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace qm::cli {

namespace {

constexpr qint64 kMeterLineInterval = 5000; // ms between meter lines when not on a terminal
constexpr int kStopSignals[] = {SIGINT, SIGTERM, SIGHUP};

int g_signalPipe = -1;

void onSignal(int number)
{
    const int saved = errno;
    const unsigned char byte = static_cast<unsigned char>(number);
    if (g_signalPipe >= 0) [[maybe_unused]]
        const auto written = ::write(g_signalPipe, &byte, 1);
    errno = saved;
}

void write(std::FILE *stream, const QString &text)
{
    const QByteArray bytes = text.toLocal8Bit();
    std::fwrite(bytes.constData(), 1, std::size_t(bytes.size()), stream);
    std::fflush(stream);
}

} // namespace

Console::Console(bool terminal) : m_terminal(terminal) {}

bool Console::statusIsTerminal()
{
    return ::isatty(STDERR_FILENO) == 1;
}

QString printable(const QString &text)
{
    QString out = text;
    for (QChar &c : out) {
        if (c != u'\n' && c != u'\t' && (c.category() == QChar::Other_Control || c == QChar(0x7f)))
            c = u'?';
    }
    return out;
}

QString fitted(const QString &text, int width)
{
    if (width <= 0 || text.size() <= width)
        return text;
    return text.left(std::max(0, width - 1)) + u'…';
}

int Console::outputWidth()
{
    winsize size = {};
    if (::isatty(STDOUT_FILENO) != 1 || ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0)
        return 0;
    return size.ws_col;
}

void Console::line(const QString &text)
{
    endStatus();
    write(stdout, printable(text) + u'\n');
}

void Console::error(const QString &text)
{
    endStatus();
    write(stderr, printable(text) + u'\n');
}

void Console::raw(const QString &text)
{
    endStatus();
    write(stdout, text);
}

void Console::status(const QString &text, bool important)
{
    if (m_terminal) {
        if (text == m_lastStatus && m_statusOpen)
            return;
        // Carriage return, the text, then erase whatever a longer earlier line left on the right.
        write(stderr, u'\r' + printable(text) + QStringLiteral("\x1b[K"));
        m_statusOpen = true;
        m_lastStatus = text;
        return;
    }
    if (text == m_lastStatus)
        return;
    if (!important && m_sincePrinted.isValid() && m_sincePrinted.elapsed() < kMeterLineInterval)
        return;
    write(stderr, printable(text) + u'\n');
    m_lastStatus = text;
    m_sincePrinted.start();
}

void Console::endStatus()
{
    if (m_terminal && m_statusOpen)
        write(stderr, QStringLiteral("\n"));
    m_statusOpen = false;
    m_lastStatus.clear();
}

QString levelBar(const QString &name, float level)
{
    constexpr int cells = 10;
    const int lit = std::clamp(int(std::lround(double(level) * cells)), 0, cells);
    return name + QStringLiteral(" [") + QString(lit, u'#') + QString(cells - lit, u'-') + u']';
}

QString elapsedText(double seconds)
{
    const qint64 whole = seconds > 0 ? qint64(seconds) : 0;
    const qint64 hours = whole / 3600;
    const QString minutesAndSeconds =
        QStringLiteral("%1:%2").arg((whole / 60) % 60).arg(whole % 60, 2, 10, QLatin1Char('0'));
    if (hours == 0)
        return minutesAndSeconds;
    return QStringLiteral("%1:%2").arg(hours).arg(minutesAndSeconds.rightJustified(5, u'0'));
}

StopSignals::StopSignals(QObject *parent) : QObject(parent)
{
    if (::pipe2(m_pipe, O_CLOEXEC | O_NONBLOCK) != 0)
        return;
    g_signalPipe = m_pipe[1];
    m_notifier = std::make_unique<QSocketNotifier>(m_pipe[0], QSocketNotifier::Read);
    connect(m_notifier.get(), &QSocketNotifier::activated, this, &StopSignals::drain);

    struct sigaction action = {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    for (int signal : kStopSignals)
        sigaction(signal, &action, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
}

StopSignals::~StopSignals()
{
    for (int signal : kStopSignals)
        std::signal(signal, SIG_DFL);
    std::signal(SIGPIPE, SIG_DFL);
    g_signalPipe = -1;
    m_notifier.reset();
    for (int end : m_pipe) {
        if (end >= 0)
            ::close(end);
    }
}

void StopSignals::drain()
{
    unsigned char byte = 0;
    while (::read(m_pipe[0], &byte, 1) == 1) {
        ++m_count;
        Q_EMIT received(int(byte));
    }
}

} // namespace qm::cli
