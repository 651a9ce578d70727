#pragma once

#include <QElapsedTimer>
#include <QObject>
#include <QString>

#include <memory>

class QSocketNotifier;

namespace qm::cli {

// Where the command line writes: results on standard output (so `list --json > file` stays clean); errors,
// notes and one status line (meter, progress) on standard error. The status line is rewritten in place when
// standard error is a terminal; otherwise (a pipe, a log file) it is printed as whole lines: at every change of
// an important status, else at most one line every few seconds. Main thread only.
class Console {
public:
    explicit Console(bool terminal);

    // Whether standard error, where the status line goes, is a terminal.
    static bool statusIsTerminal();

    void line(const QString &text);
    void error(const QString &text);
    // Information about the run rather than its result ("Recording into …").
    void note(const QString &text) { error(text); }
    // Writes `text` as it is, without a line break (an export to standard output).
    void raw(const QString &text);

    // `important`: a new step rather than a meter; never held back when printing whole lines.
    void status(const QString &text, bool important);
    // Ends a status line on a terminal so the next output starts on a line of its own.
    void endStatus();

    bool isTerminal() const { return m_terminal; }
    // The width of the terminal standard output goes to, or 0 when it isn't one.
    static int outputWidth();

private:
    bool m_terminal;
    bool m_statusOpen = false;
    QString m_lastStatus;
    QElapsedTimer m_sincePrinted;
};

// `text` with every control character but line breaks and tabs shown as "?", so that text read from files (a
// title, a speaker's name) can't move the cursor, retitle the window or recolour the terminal.
QString printable(const QString &text);
// `text` cut to `width` characters with an ellipsis; unchanged when `width` is 0.
QString fitted(const QString &text, int width);

// "mic [####------]": a level between 0 and 1 drawn as a ten-cell bar.
QString levelBar(const QString &name, float level);
// "1:05", "1:02:03"
QString elapsedText(double seconds);

// Turns SIGINT, SIGTERM and SIGHUP (the terminal closed) into a Qt signal on the main thread, and ignores SIGPIPE
// (output to a reader that went away) meanwhile. The handler only writes the signal's number to a pipe; a socket
// notifier reads it in the event loop. One instance at a time; the default handling is restored when it is
// destroyed.
class StopSignals : public QObject {
    Q_OBJECT

public:
    explicit StopSignals(QObject *parent = nullptr);
    ~StopSignals() override;

    int count() const { return m_count; }

Q_SIGNALS:
    void received(int signalNumber);

private:
    void drain();

    int m_pipe[2] = {-1, -1};
    std::unique_ptr<QSocketNotifier> m_notifier;
    int m_count = 0;
};

} // namespace qm::cli
