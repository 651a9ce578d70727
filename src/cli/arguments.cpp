#include "cli/arguments.h"

#include "cli/settingkeys.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>

namespace qm::cli {

namespace {

QString tr(const char *text)
{
    return QCoreApplication::translate("qm::cli", text);
}

struct CommandInfo {
    const char *name;
    const char *usage;
    const char *summary;
};

const CommandInfo kCommands[] = {
    {"record", "record --source zoom|system|in-person [--video] [--for 90m]",
     "Record until Ctrl-C (or for the given time), then save and transcribe."},
    {"list", "list [--json]", "List the recordings in the library, newest first."},
    {"transcribe", "transcribe <recording> [--provider deepgram|openai|assemblyai|elevenlabs|on-device]",
     "Transcribe a recording again, with the chosen service for this run only."},
    {"export", "export <recording> --format txt|md|srt|vtt|json [-o FILE]",
     "Write the transcript as text, Markdown or subtitles (to standard output without -o)."},
    {"sync", "sync <recording>|--all", "Copy recordings to the Google Drive folder."},
    {"rename", "rename <recording> \"New title\"", "Give a recording a new title."},
    {"rename-speaker", "rename-speaker <recording> \"Speaker 1\" \"Dana\"", "Name a speaker of a transcript."},
    {"config", "config get [KEY] | config set KEY VALUE", "Read or change a setting shared with the app."},
    {"key", "key set PROVIDER", "Save a service's API key in the keyring, read from standard input."},
};

const CommandInfo *findCommand(const QString &name)
{
    for (const CommandInfo &command : kCommands) {
        if (name == QLatin1String(command.name))
            return &command;
    }
    return nullptr;
}

bool isHelpFlag(const QString &word)
{
    return word == QLatin1String("--help") || word == QLatin1String("-h") || word == QLatin1String("help");
}

bool isVersionFlag(const QString &word)
{
    return word == QLatin1String("--version") || word == QLatin1String("-v");
}

QString overallHelp()
{
    QString text = tr("Usage: quillmoor [COMMAND] [OPTIONS]\n\n"
                      "Without a command, Quillmoor starts in the system tray.\n\nCommands:\n");
    for (const CommandInfo &command : kCommands)
        text += QStringLiteral("  quillmoor %1\n      %2\n").arg(QLatin1String(command.usage), tr(command.summary));
    text += tr("\n<recording> is a recording's id, its folder, or the start of its title.\n"
               "Run “quillmoor COMMAND --help” for a command's options.\n");
    return text;
}

UsageError usage(const QString &message)
{
    return UsageError{message};
}

// One sub-command's parser; its help text starts with this command's own usage line.
class SubParser {
public:
    explicit SubParser(const CommandInfo &command) : m_command(command)
    {
        m_parser.setApplicationDescription(tr(command.summary));
        m_parser.addHelpOption();
    }

    QCommandLineParser *operator->() { return &m_parser; }

    // False with `error` set when the words don't parse; `helped` when --help was given.
    bool parse(const QStringList &words, std::optional<UsageError> &error, bool &helped)
    {
        if (!m_parser.parse(QStringList{QStringLiteral("quillmoor")} + words)) {
            error = usage(m_parser.errorText());
            return false;
        }
        helped = m_parser.isSet(QStringLiteral("help")) || m_parser.isSet(QStringLiteral("help-all"));
        return true;
    }

    QString helpText() const
    {
        QString text = m_parser.helpText();
        const qsizetype firstBreak = text.indexOf(u'\n');
        text = text.mid(firstBreak < 0 ? text.size() : firstBreak);
        return QStringLiteral("Usage: quillmoor ") + QLatin1String(m_command.usage) + text;
    }

private:
    const CommandInfo &m_command;
    QCommandLineParser m_parser;
};

std::optional<RecordingSource> parseSource(const QString &text)
{
    if (text == QLatin1String("zoom"))
        return RecordingSource::zoom;
    if (text == QLatin1String("system"))
        return RecordingSource::systemAudio;
    if (text == QLatin1String("in-person"))
        return RecordingSource::inPerson;
    return std::nullopt;
}

std::optional<ExportFormat> parseFormat(const QString &text)
{
    if (text == QLatin1String("txt"))
        return ExportFormat::text;
    if (text == QLatin1String("md"))
        return ExportFormat::markdown;
    if (text == QLatin1String("srt"))
        return ExportFormat::subRip;
    if (text == QLatin1String("vtt"))
        return ExportFormat::webVTT;
    if (text == QLatin1String("json"))
        return ExportFormat::json;
    return std::nullopt;
}

expected<Invocation, UsageError> parseCommand(const CommandInfo &command, const QStringList &words)
{
    const QString name = QLatin1String(command.name);
    SubParser parser(command);
    Invocation out;
    std::optional<UsageError> error;
    bool helped = false;

    const QCommandLineOption sourceOption(QStringLiteral("source"), tr("What to record."), QStringLiteral("source"));
    const QCommandLineOption videoOption(QStringLiteral("video"), tr("Film the screen too."));
    const QCommandLineOption forOption(QStringLiteral("for"), tr("Stop by itself after this long (45s, 90m, 1h30m)."),
                                       QStringLiteral("duration"));
    const QCommandLineOption jsonOption(QStringLiteral("json"), tr("Print the recordings as JSON."));
    const QCommandLineOption providerOption(QStringLiteral("provider"), tr("The service to use for this run."),
                                            QStringLiteral("provider"));
    const QCommandLineOption formatOption(QStringLiteral("format"), tr("txt, md, srt, vtt or json."),
                                          QStringLiteral("format"));
    const QCommandLineOption outputOption({QStringLiteral("o"), QStringLiteral("output")},
                                          tr("Write to this file instead of standard output."), QStringLiteral("file"));
    const QCommandLineOption allOption(QStringLiteral("all"), tr("Every recording that is ready."));

    if (name == QLatin1String("record"))
        parser->addOptions({sourceOption, videoOption, forOption});
    else if (name == QLatin1String("list"))
        parser->addOption(jsonOption);
    else if (name == QLatin1String("transcribe"))
        parser->addOption(providerOption);
    else if (name == QLatin1String("export"))
        parser->addOptions({formatOption, outputOption});
    else if (name == QLatin1String("sync"))
        parser->addOption(allOption);
    // A setting's value may look like an option ("-5"); after "get" or "set" every word is a value.
    if (name == QLatin1String("config"))
        parser->setOptionsAfterPositionalArgumentsMode(QCommandLineParser::ParseAsPositionalArguments);

    if (!parser.parse(words, error, helped))
        return unexpected(*error);
    if (helped) {
        out.command = Command::help;
        out.helpText = parser.helpText();
        if (name == QLatin1String("config"))
            out.helpText += tr("\nSettings:\n  ") + settingKeys().join(QStringLiteral("\n  ")) + u'\n';
        return out;
    }
    const QStringList positional = parser->positionalArguments();
    auto count = [&](qsizetype least, qsizetype most) -> std::optional<UsageError> {
        if (positional.size() < least)
            return usage(tr("“%1” needs more arguments: quillmoor %2").arg(name, QLatin1String(command.usage)));
        if (positional.size() > most)
            return usage(tr("“%1” got too many arguments: quillmoor %2").arg(name, QLatin1String(command.usage)));
        return std::nullopt;
    };

    if (name == QLatin1String("record")) {
        out.command = Command::record;
        if (const auto wrong = count(0, 0))
            return unexpected(*wrong);
        if (!parser->isSet(sourceOption))
            return unexpected(usage(tr("Say what to record: --source zoom, system or in-person.")));
        const std::optional<RecordingSource> source = parseSource(parser->value(sourceOption));
        if (!source)
            return unexpected(
                usage(tr("Unknown source “%1”: use zoom, system or in-person.").arg(parser->value(sourceOption))));
        out.source = *source;
        out.video = parser->isSet(videoOption);
        if (out.video && out.source == RecordingSource::inPerson)
            return unexpected(usage(tr("In-person recordings are audio only; leave out --video.")));
        if (parser->isSet(forOption)) {
            out.limit = parseDuration(parser->value(forOption));
            if (!out.limit)
                return unexpected(
                    usage(tr("“%1” isn't a duration: write it like 45s, 90m or 1h30m.").arg(parser->value(forOption))));
        }
    } else if (name == QLatin1String("list")) {
        out.command = Command::list;
        if (const auto wrong = count(0, 0))
            return unexpected(*wrong);
        out.json = parser->isSet(jsonOption);
    } else if (name == QLatin1String("transcribe")) {
        out.command = Command::transcribe;
        if (const auto wrong = count(1, 1))
            return unexpected(*wrong);
        out.recording = positional.at(0);
        if (parser->isSet(providerOption)) {
            out.provider = parseProvider(parser->value(providerOption));
            if (!out.provider)
                return unexpected(usage(tr("Unknown provider “%1”: use deepgram, openai, assemblyai, elevenlabs or "
                                           "on-device.")
                                            .arg(parser->value(providerOption))));
        }
    } else if (name == QLatin1String("export")) {
        out.command = Command::exportTranscript;
        if (const auto wrong = count(1, 1))
            return unexpected(*wrong);
        out.recording = positional.at(0);
        if (!parser->isSet(formatOption))
            return unexpected(usage(tr("Say which format: --format txt, md, srt, vtt or json.")));
        const std::optional<ExportFormat> format = parseFormat(parser->value(formatOption));
        if (!format)
            return unexpected(
                usage(tr("Unknown format “%1”: use txt, md, srt, vtt or json.").arg(parser->value(formatOption))));
        out.format = *format;
        out.outputFile = parser->value(outputOption);
    } else if (name == QLatin1String("sync")) {
        out.command = Command::sync;
        out.all = parser->isSet(allOption);
        if (out.all == !positional.isEmpty() || positional.size() > 1)
            return unexpected(usage(tr("Name one recording, or use --all: quillmoor sync <recording>|--all")));
        out.recording = positional.value(0);
    } else if (name == QLatin1String("rename")) {
        out.command = Command::rename;
        if (const auto wrong = count(2, 2))
            return unexpected(*wrong);
        out.recording = positional.at(0);
        out.title = positional.at(1).trimmed();
        if (out.title.isEmpty())
            return unexpected(usage(tr("A recording's title can't be empty.")));
    } else if (name == QLatin1String("rename-speaker")) {
        out.command = Command::renameSpeaker;
        if (const auto wrong = count(3, 3))
            return unexpected(*wrong);
        out.recording = positional.at(0);
        out.speaker = positional.at(1);
        out.newName = positional.at(2);
    } else if (name == QLatin1String("config")) {
        const QString action = positional.value(0);
        if (action == QLatin1String("get")) {
            out.command = Command::configGet;
            if (const auto wrong = count(1, 2))
                return unexpected(*wrong);
            out.key = positional.value(1);
        } else if (action == QLatin1String("set")) {
            out.command = Command::configSet;
            if (const auto wrong = count(3, 3))
                return unexpected(*wrong);
            out.key = positional.at(1);
            out.value = positional.at(2);
        } else {
            return unexpected(usage(tr("Use “config get [KEY]” or “config set KEY VALUE”.")));
        }
    } else if (name == QLatin1String("key")) {
        out.command = Command::keySet;
        if (positional.value(0) != QLatin1String("set") || positional.size() != 2)
            return unexpected(usage(tr("Use “key set PROVIDER” and type the key on standard input.")));
        out.provider = parseProvider(positional.at(1));
        if (!out.provider || *out.provider == TranscriptionProvider::onDevice)
            return unexpected(usage(
                tr("Unknown service “%1”: use deepgram, openai, assemblyai or elevenlabs.").arg(positional.at(1))));
    }
    return out;
}

QString shortId(const Recording &recording)
{
    return recording.id.toString(QUuid::WithoutBraces).left(8);
}

QString candidateList(const QList<Recording> &matches)
{
    QStringList lines;
    for (const Recording &match : matches)
        lines.append(QStringLiteral("  %1  %2").arg(shortId(match), match.title));
    return lines.join(u'\n');
}

} // namespace

bool wantsCommandLine(const QStringList &arguments)
{
    if (arguments.size() < 2)
        return false;
    // The tray takes no words of its own, only Qt's options ("-platform xcb", "-session …"); a mistyped
    // command should say so rather than start the tray.
    const QString &first = arguments.at(1);
    // A quillmoor: address comes from the desktop (the URL scheme's handler) and belongs to the running tray.
    if (first.startsWith(QLatin1String("quillmoor:"), Qt::CaseInsensitive))
        return false;
    return !first.startsWith(u'-') || isHelpFlag(first) || isVersionFlag(first);
}

expected<Invocation, UsageError> parseArguments(const QStringList &arguments)
{
    const QString first = arguments.value(1);
    if (isHelpFlag(first) || first.isEmpty()) {
        Invocation out;
        out.command = Command::help;
        out.helpText = overallHelp();
        return out;
    }
    if (isVersionFlag(first)) {
        Invocation out;
        out.command = Command::version;
        return out;
    }
    const CommandInfo *command = findCommand(first);
    if (!command)
        return unexpected(usage(tr("Unknown command “%1”.").arg(first)));
    return parseCommand(*command, arguments.mid(2));
}

std::optional<std::chrono::milliseconds> parseDuration(const QString &text)
{
    static const QRegularExpression pattern(
        QStringLiteral(R"(^\s*(?:(\d+)\s*h)?\s*(?:(\d+)\s*m)?\s*(?:(\d+)\s*s)?\s*$)"));
    const QString trimmed = text.trimmed();
    if (trimmed.isEmpty())
        return std::nullopt;

    bool ok = false;
    const qint64 bare = trimmed.toLongLong(&ok);
    if (ok)
        return bare > 0 && bare < 100000 ? std::optional(std::chrono::minutes(bare)) : std::nullopt;

    const QRegularExpressionMatch match = pattern.match(trimmed);
    if (!match.hasMatch())
        return std::nullopt;
    qint64 seconds = 0;
    const qint64 unit[] = {3600, 60, 1};
    for (int group = 1; group <= 3; ++group) {
        const QString digits = match.captured(group);
        if (digits.isEmpty())
            continue;
        const qint64 number = digits.toLongLong(&ok);
        if (!ok || number > 10000000)
            return std::nullopt;
        seconds += number * unit[group - 1];
    }
    if (seconds <= 0)
        return std::nullopt;
    return std::chrono::seconds(seconds);
}

std::optional<TranscriptionProvider> parseProvider(const QString &text)
{
    // The command line's word ("on-device") and the stored name ("onDevice") mean the same engine.
    const QString word = text.trimmed();
    for (TranscriptionProvider provider : allCases<TranscriptionProvider>()) {
        if (word.compare(providerWord(provider), Qt::CaseInsensitive) == 0 ||
            word.compare(rawValue(provider), Qt::CaseInsensitive) == 0)
            return provider;
    }
    return std::nullopt;
}

QString providerWord(TranscriptionProvider provider)
{
    switch (provider) {
    case TranscriptionProvider::onDevice:
        return QStringLiteral("on-device");
    case TranscriptionProvider::elevenLabs:
        return QStringLiteral("elevenlabs");
    case TranscriptionProvider::assemblyAI:
        return QStringLiteral("assemblyai");
    case TranscriptionProvider::openAI:
        return QStringLiteral("openai");
    case TranscriptionProvider::deepgram:
        return QStringLiteral("deepgram");
    }
    return {};
}

expected<Recording, QString> resolveRecording(const QString &reference, const QList<Recording> &recordings)
{
    const QString wanted = reference.trimmed();
    if (wanted.isEmpty())
        return unexpected(tr("Name a recording: its id, its folder, or the start of its title."));
    auto ambiguous = [&](const QList<Recording> &matches) {
        return unexpected(tr("“%1” matches several recordings; give more of the title, or the id:\n%2")
                              .arg(wanted, candidateList(matches)));
    };

    // Ids first: a title can't be mistaken for one, while a title could begin with hexadecimal letters.
    static const QRegularExpression idLike(QStringLiteral("^\\{?[0-9a-fA-F]{8}[0-9a-fA-F-]*\\}?$"));
    if (idLike.match(wanted).hasMatch()) {
        QString digits = wanted.toLower();
        digits.remove(u'{').remove(u'}');
        QList<Recording> matches;
        for (const Recording &recording : recordings) {
            if (recording.id.toString(QUuid::WithoutBraces).startsWith(digits))
                matches.append(recording);
        }
        if (matches.size() == 1)
            return matches.constFirst();
        if (matches.size() > 1)
            return ambiguous(matches);
    }

    const QFileInfo asFolder(wanted);
    if (asFolder.isDir()) {
        const QString canonical = asFolder.canonicalFilePath();
        for (const Recording &recording : recordings) {
            if (QFileInfo(recording.folderPath()).canonicalFilePath() == canonical)
                return recording;
        }
    }

    QList<Recording> exact;
    QList<Recording> prefixed;
    for (const Recording &recording : recordings) {
        const QString title = recording.title.trimmed();
        if (title.compare(wanted, Qt::CaseInsensitive) == 0)
            exact.append(recording);
        if (title.startsWith(wanted, Qt::CaseInsensitive))
            prefixed.append(recording);
    }
    if (exact.size() == 1)
        return exact.constFirst();
    if (exact.size() > 1)
        return ambiguous(exact);
    if (prefixed.size() == 1)
        return prefixed.constFirst();
    if (prefixed.size() > 1)
        return ambiguous(prefixed);
    return unexpected(tr("No recording matches “%1”. “quillmoor list” shows them all.").arg(wanted));
}

} // namespace qm::cli
