#pragma once

#include "library/recording.h"
#include "library/result.h"
#include "library/settingsvalues.h"

#include <QList>
#include <QString>
#include <QStringList>

#include <chrono>
#include <optional>

namespace qm::cli {

enum class Command {
    help,
    version,
    record,
    list,
    transcribe,
    exportTranscript,
    sync,
    rename,
    renameSpeaker,
    configGet,
    configSet,
    keySet,
};

enum class ExportFormat { text, markdown, subRip, webVTT, json };

// One parsed command line. Only the fields of `command` are meaningful.
struct Invocation {
    Command command = Command::help;
    QString helpText; // help: what to print

    RecordingSource source = RecordingSource::zoom; // record
    bool video = false;                             // record
    std::optional<std::chrono::milliseconds> limit; // record --for
    bool json = false;                              // list
    QString recording;                              // a reference, see resolveRecording()
    std::optional<TranscriptionProvider> provider;  // transcribe --provider, key set
    ExportFormat format = ExportFormat::text;       // export
    QString outputFile;                             // export -o; empty = standard output
    bool all = false;                               // sync --all
    QString title;                                  // rename
    QString speaker;                                // rename-speaker: the label (or the current name)
    QString newName;                                // rename-speaker
    QString key;                                    // config get/set; empty with get = every key
    QString value;                                  // config set
};

// A command line that doesn't say anything runnable; `message` is printed with a pointer to --help.
struct UsageError {
    QString message;
};

// True when `arguments` (program name first) start with a word (a command, or a mistyped one) or ask for help
// or the version: the program then runs without windows. Options of Qt's own leave it to the tray.
bool wantsCommandLine(const QStringList &arguments);

// Parses a whole command line, program name first. Pure: touches no settings, files or devices.
expected<Invocation, UsageError> parseArguments(const QStringList &arguments);

// "90m", "45s", "1h30m", "1h 30m 15s", "2h"; a bare number counts as minutes. Nothing for zero, negative or
// malformed texts.
std::optional<std::chrono::milliseconds> parseDuration(const QString &text);

// The provider spellings the command line accepts: deepgram, openai, assemblyai, elevenlabs, on-device.
std::optional<TranscriptionProvider> parseProvider(const QString &text);
QString providerWord(TranscriptionProvider provider);

// Finds the one recording `reference` names, tried in this order: its id (or at least the first 8 characters
// of it), its folder (absolute or relative to the working folder), its exact title, a unique prefix of its
// title (titles compared without regard to case). The error sentence lists the candidates when several match.
expected<Recording, QString> resolveRecording(const QString &reference, const QList<Recording> &recordings);

} // namespace qm::cli
