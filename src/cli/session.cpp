#include "cli/session.h"

#include "app/appcontroller.h"
#include "app/application.h"
#include "app/appsettings.h"
#include "cli/commandline.h"
#include "cli/settingkeys.h"
#include "drive/drivesync.h"
#include "library/formatters.h"
#include "library/jsoncoding.h"
#include "library/recordingstore.h"
#include "library/transcriptexport.h"

#include <QCoreApplication>
#include <QCoroTimer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSaveFile>

#include <termios.h>
#include <unistd.h>

namespace qm::cli {

namespace {

constexpr std::chrono::milliseconds kPollInterval{100};

QString tr(const char *text)
{
    return QCoreApplication::translate("qm::cli", text);
}

QString quoted(const QString &text)
{
    return u'“' + text + u'”';
}

QString stateText(const Recording &recording)
{
    switch (recording.state) {
    case ProcessingState::recording:
        return tr("recording");
    case ProcessingState::processing:
        return tr("saving");
    case ProcessingState::ready:
        return tr("ready");
    case ProcessingState::failed:
        return tr("failed");
    }
    return {};
}

QString transcriptText(const Recording &recording)
{
    switch (recording.transcriptState) {
    case TranscriptState::none:
        return QStringLiteral("-");
    case TranscriptState::running:
        return tr("running");
    case TranscriptState::done:
        return tr("done");
    case TranscriptState::failed:
        return tr("failed");
    }
    return {};
}

// Reads a key from standard input; on a terminal the typing is not shown.
QString readSecret(Console &console, const QString &prompt)
{
    const bool typing = ::isatty(STDIN_FILENO) == 1;
    termios saved = {};
    if (typing) {
        console.error(prompt);
        if (::tcgetattr(STDIN_FILENO, &saved) == 0) {
            termios quiet = saved;
            quiet.c_lflag &= ~tcflag_t(ECHO);
            ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &quiet);
        }
    }
    QFile input;
    QString text;
    if (input.open(STDIN_FILENO, QIODevice::ReadOnly))
        text = QString::fromUtf8(typing ? input.readLine() : input.readAll());
    if (typing) {
        ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &saved);
        console.error(QString());
    }
    return text.trimmed();
}

} // namespace

Session::Session(Application &app, Console &console, StopSignals *stops)
    : m_app(app), m_console(console), m_stops(stops)
{
    // At this point everything in the pipeline was found unfinished by the controller's start-up.
    const auto &activities = controller().activities();
    for (auto it = activities.cbegin(); it != activities.cend(); ++it)
        m_recovered.insert(it.key());
}

AppController &Session::controller()
{
    return m_app.controller();
}

QCoro::Task<int> Session::execute(Invocation invocation)
{
    int code = kSuccess;
    switch (invocation.command) {
    case Command::help:
    case Command::version:
        break;
    case Command::record: {
        auto recording = record(invocation);
        code = co_await recording;
        break;
    }
    case Command::configGet:
        code = configGet(invocation);
        break;
    case Command::configSet:
        code = configSet(invocation);
        break;
    case Command::keySet:
        code = keySet(invocation);
        break;
    default: {
        // Library commands see the library as it is once interrupted recordings are finished.
        auto recovering = finishPipeline();
        co_await recovering;
        QCoro::Task<int> command;
        switch (invocation.command) {
        case Command::list:
            command = list(invocation);
            break;
        case Command::transcribe:
            command = transcribe(invocation);
            break;
        case Command::exportTranscript:
            command = exportTranscript(invocation);
            break;
        case Command::sync:
            command = sync(invocation);
            break;
        case Command::rename:
            command = rename(invocation);
            break;
        default:
            command = renameSpeaker(invocation);
            break;
        }
        code = co_await command;
        break;
    }
    }
    // Whatever this run started or found unfinished is completed before the program ends.
    auto finishing = finishPipeline();
    co_await finishing;
    co_return code;
}

QCoro::Task<> Session::waitWhile(std::function<bool()> busy, std::function<QString()> describe)
{
    bool shown = false;
    while (busy()) {
        const QString text = describe();
        if (!text.isEmpty()) {
            m_console.status(text, true);
            shown = true;
        }
        auto pause = QCoro::sleepFor(kPollInterval);
        co_await pause;
    }
    if (shown)
        m_console.endStatus();
}

QCoro::Task<> Session::finishPipeline()
{
    if (!controller().isProcessing())
        co_return;
    bool recovering = false;
    for (const QUuid &id : controller().activities().keys())
        recovering = recovering || m_recovered.contains(id);
    m_console.note(recovering ? tr("Finishing an interrupted recording…") : tr("Finishing…"));
    auto waiting =
        waitWhile([this] { return controller().isProcessing(); },
                  [this] {
                      QStringList steps;
                      const auto &activities = controller().activities();
                      for (auto it = activities.cbegin(); it != activities.cend(); ++it) {
                          const std::optional<Recording> record = m_app.store().recording(it.key());
                          steps.append((record ? record->title + QStringLiteral(": ") : QString()) + it.value());
                      }
                      return steps.join(QStringLiteral("; "));
                  });
    co_await waiting;
}

QCoro::Task<> Session::followRecording(QUuid id)
{
    auto waiting = waitWhile(
        [this, id] {
            return controller().activities().contains(id) || controller().phase() == AppController::Phase::stopping;
        },
        [this, id] { return controller().activities().value(id); });
    co_await waiting;
}

std::optional<Recording> Session::resolve(const QString &reference)
{
    auto found = resolveRecording(reference, m_app.store().recordings());
    if (found)
        return *found;
    // A folder that is there but can't be read is named as such rather than "no match".
    const QString wanted = QFileInfo(reference).fileName().isEmpty() ? reference : QFileInfo(reference).fileName();
    for (const UnreadableFolder &folder : m_app.store().unreadable()) {
        if (folder.name == wanted || folder.name == reference) {
            m_console.error(tr("%1 can't be read: %2").arg(quoted(folder.name), folder.reason));
            return std::nullopt;
        }
    }
    m_console.error(found.error());
    reportUnreadable();
    return std::nullopt;
}

void Session::reportUnreadable()
{
    const QList<UnreadableFolder> &unreadable = m_app.store().unreadable();
    if (unreadable.isEmpty())
        return;
    QStringList names;
    for (const UnreadableFolder &folder : unreadable)
        names.append(quoted(folder.name) + QStringLiteral(" (") + folder.reason + u')');
    m_console.error(
        QCoreApplication::translate("qm::cli", "%n folder(s) couldn't be read: ", nullptr, int(unreadable.size())) +
        names.join(QStringLiteral("; ")));
}

int Session::reportRecording(const QUuid &id)
{
    const std::optional<Recording> record = m_app.store().recording(id);
    if (!record) {
        m_console.error(tr("The recording was deleted before it was finished."));
        return kFailure;
    }
    if (record->state != ProcessingState::ready) {
        m_console.error(record->lastError.value_or(tr("The recording couldn't be saved.")));
        m_console.note(tr("Folder: %1 (%2)").arg(record->folderPath(), stateText(*record)));
        return kFailure;
    }
    const QString media = QDir(record->folderPath()).filePath(record->mediaFileName.value_or(QString()));
    m_console.line(tr("Saved: %1 (%2)").arg(media, Formatters::duration(record->duration)));
    switch (record->transcriptState) {
    case TranscriptState::done:
        m_console.line(
            tr("Transcript: %1").arg(QDir(record->folderPath()).filePath(QLatin1String(kTranscriptMarkdownFileName))));
        if (record->lastError)
            m_console.error(*record->lastError);
        break;
    case TranscriptState::failed:
        // The recording is saved, which is what this command was for; the transcript can follow later.
        m_console.error(record->lastError.value_or(tr("Transcription failed.")));
        m_console.note(tr("The recording is saved; its transcript is waiting. Run “quillmoor transcribe %1” to try "
                          "again.")
                           .arg(record->id.toString(QUuid::WithoutBraces).left(8)));
        break;
    case TranscriptState::none:
    case TranscriptState::running:
        if (record->lastError)
            m_console.error(*record->lastError);
        break;
    }
    if (record->driveSyncedAt && !record->lastError)
        m_console.line(tr("Copied to Google Drive."));
    return kSuccess;
}

QCoro::Task<int> Session::list(Invocation invocation)
{
    const QList<Recording> &recordings = m_app.store().recordings();
    const QList<UnreadableFolder> &unreadable = m_app.store().unreadable();
    if (invocation.json) {
        QJsonArray array;
        for (const Recording &recording : recordings) {
            QJsonObject object = QJsonDocument::fromJson(JsonCoding::encode(recording)).object();
            object.insert(QStringLiteral("folder"), recording.folderPath());
            array.append(object);
        }
        QJsonArray skipped;
        for (const UnreadableFolder &folder : unreadable)
            skipped.append(QJsonObject{{QStringLiteral("folder"), QDir(m_app.store().rootPath()).filePath(folder.name)},
                                       {QStringLiteral("reason"), folder.reason}});
        const QJsonObject all{{QStringLiteral("recordings"), array}, {QStringLiteral("unreadable"), skipped}};
        m_console.raw(QString::fromUtf8(QJsonDocument(all).toJson(QJsonDocument::Indented)));
        co_return kSuccess;
    }
    if (recordings.isEmpty() && unreadable.isEmpty()) {
        m_console.line(tr("No recordings in %1 yet.").arg(m_app.store().rootPath()));
        co_return kSuccess;
    }
    if (recordings.isEmpty()) {
        reportUnreadable();
        co_return kSuccess;
    }
    const int titleWidth = Console::outputWidth() > 0 ? std::max(12, Console::outputWidth() - 45) : 0;
    m_console.line(QStringLiteral("%1  %2  %3  %4  %5")
                       .arg(tr("ID"), -8)
                       .arg(tr("STATE"), -9)
                       .arg(tr("TRANSCRIPT"), -10)
                       .arg(tr("LENGTH"), 8)
                       .arg(tr("TITLE")));
    for (const Recording &recording : recordings) {
        m_console.line(QStringLiteral("%1  %2  %3  %4  %5")
                           .arg(recording.id.toString(QUuid::WithoutBraces).left(8), -8)
                           .arg(stateText(recording), -9)
                           .arg(transcriptText(recording), -10)
                           .arg(Formatters::duration(recording.duration), 8)
                           .arg(fitted(recording.title, titleWidth)));
    }
    reportUnreadable();
    co_return kSuccess;
}

QCoro::Task<int> Session::transcribe(Invocation invocation)
{
    const std::optional<Recording> record = resolve(invocation.recording);
    if (!record)
        co_return kFailure;
    if (record->state != ProcessingState::ready) {
        m_console.error(tr("%1 has no saved audio to transcribe.").arg(quoted(record->title)));
        co_return kFailure;
    }
    if (record->transcriptState == TranscriptState::running) {
        m_console.error(tr("%1 is already being transcribed.").arg(quoted(record->title)));
        co_return kFailure;
    }

    QCoro::Task<> running = controller().transcribe(record->id, invocation.provider);

    auto following = followRecording(record->id);
    co_await following;
    co_await running;

    const std::optional<Recording> after = m_app.store().recording(record->id);
    if (!after) {
        m_console.error(tr("The recording was deleted while it was being transcribed."));
        co_return kFailure;
    }
    if (after->transcriptState != TranscriptState::done) {
        m_console.error(after->lastError.value_or(tr("Transcription failed.")));
        co_return kFailure;
    }
    m_console.line(
        tr("Transcript: %1").arg(QDir(after->folderPath()).filePath(QLatin1String(kTranscriptMarkdownFileName))));
    co_return kSuccess;
}

QCoro::Task<int> Session::exportTranscript(Invocation invocation)
{
    const std::optional<Recording> record = resolve(invocation.recording);
    if (!record)
        co_return kFailure;
    const std::optional<Transcript> transcript = m_app.store().transcript(*record);
    if (!transcript) {
        m_console.error(tr("%1 has no transcript yet.").arg(quoted(record->title)));
        co_return kFailure;
    }
    QString text;
    switch (invocation.format) {
    case ExportFormat::text:
        text = transcript->plainText(true);
        break;
    case ExportFormat::markdown:
        text = transcript->markdown(*record);
        break;
    case ExportFormat::subRip:
        text = transcript->srt();
        break;
    case ExportFormat::webVTT:
        text = render(TranscriptFormat::webVTT, *transcript, *record);
        break;
    case ExportFormat::json:
        text = render(TranscriptFormat::json, *transcript, *record);
        break;
    }
    if (invocation.outputFile.isEmpty()) {
        m_console.raw(text);
        co_return kSuccess;
    }
    QSaveFile file(invocation.outputFile);
    if (!file.open(QIODevice::WriteOnly) || file.write(text.toUtf8()) < 0 || !file.commit()) {
        m_console.error(tr("Couldn't write %1: %2").arg(quoted(invocation.outputFile), file.errorString()));
        co_return kFailure;
    }
    co_return kSuccess;
}

QCoro::Task<int> Session::sync(Invocation invocation)
{
    QList<Recording> targets;
    if (invocation.all) {
        for (const Recording &recording : m_app.store().recordings()) {
            if (recording.state == ProcessingState::ready)
                targets.append(recording);
        }
        if (targets.isEmpty()) {
            m_console.line(tr("No recording is ready to copy."));
            co_return kSuccess;
        }
    } else {
        const std::optional<Recording> record = resolve(invocation.recording);
        if (!record)
            co_return kFailure;
        if (record->state != ProcessingState::ready) {
            m_console.error(tr("%1 has no saved audio to copy.").arg(quoted(record->title)));
            co_return kFailure;
        }
        targets.append(*record);
    }

    QCoro::Task<> copying = invocation.all ? controller().syncAllToDrive() : controller().syncToDrive(targets[0].id);
    auto waiting = waitWhile([this] { return controller().isProcessing(); },
                             [this] { return controller().activities().values().join(u' '); });
    co_await waiting;
    co_await copying;

    int failures = 0;
    int copied = 0;
    for (const Recording &before : targets) {
        const std::optional<Recording> after = m_app.store().recording(before.id);
        if (after && after->driveSyncedAt && after->driveSyncedAt != before.driveSyncedAt) {
            ++copied;
            continue;
        }
        // A recording with nothing to copy yet is left without an error of its own.
        if (after && after->lastError == before.lastError) {
            const QString nothing = SyncError::nothingToCopy(before.title).description();
            if (invocation.all) {
                m_console.note(nothing);
                continue;
            }
            m_console.error(nothing);
            ++failures;
            continue;
        }
        ++failures;
        const QString why = after ? after->lastError.value_or(QString()) : tr("It was deleted.");
        m_console.error(tr("%1 wasn't copied: %2").arg(quoted(before.title), why));
    }
    const std::optional<QString> root =
        DriveSync::resolvedRoot(DriveSync::DriveOptions::from(m_app.settings()), DriveSync::Places());
    if (copied > 0)
        m_console.line(QCoreApplication::translate("qm::cli", "Copied %n recording(s) to %1.", nullptr, copied)
                           .arg(root.value_or(QString())));
    co_return failures == 0 ? kSuccess : kFailure;
}

QCoro::Task<int> Session::rename(Invocation invocation)
{
    const std::optional<Recording> record = resolve(invocation.recording);
    if (!record)
        co_return kFailure;
    if (const auto renamed = controller().rename(*record, invocation.title); !renamed) {
        m_console.error(renamed.error().description());
        co_return kFailure;
    }
    const std::optional<Recording> after = m_app.store().recording(record->id);
    m_console.line(tr("Renamed to %1.").arg(quoted(after ? after->title : invocation.title)));
    co_return kSuccess;
}

QCoro::Task<int> Session::renameSpeaker(Invocation invocation)
{
    const std::optional<Recording> record = resolve(invocation.recording);
    if (!record)
        co_return kFailure;
    const std::optional<Transcript> transcript = m_app.store().transcript(*record);
    if (!transcript) {
        m_console.error(tr("%1 has no transcript yet.").arg(quoted(record->title)));
        co_return kFailure;
    }
    // A speaker is named by its label ("Speaker 1") or by the name it was given earlier.
    const QStringList labels = transcript->speakers();
    QString label;
    QStringList known;
    for (const QString &each : labels) {
        const QString name = transcript->nameFor(each).value_or(each);
        known.append(name == each ? each : QStringLiteral("%1 (%2)").arg(each, name));
        if (label.isEmpty() && (each.compare(invocation.speaker, Qt::CaseInsensitive) == 0 ||
                                name.compare(invocation.speaker, Qt::CaseInsensitive) == 0))
            label = each;
    }
    if (label.isEmpty()) {
        m_console.error(tr("There is no speaker %1 in %2. Its speakers: %3.")
                            .arg(quoted(invocation.speaker), quoted(record->title), known.join(QStringLiteral(", "))));
        co_return kFailure;
    }
    if (const auto renamed = controller().renameSpeaker(label, invocation.newName.trimmed(), *record); !renamed) {
        m_console.error(renamed.error().description());
        co_return kFailure;
    }
    m_console.line(tr("%1 is now %2.").arg(quoted(label), quoted(invocation.newName.trimmed())));
    co_return kSuccess;
}

int Session::configGet(const Invocation &invocation)
{
    if (invocation.key.isEmpty()) {
        for (const QString &key : settingKeys())
            m_console.line(key + u'=' + settingValue(m_app.settings(), key).value_or(QString()));
        return kSuccess;
    }
    const auto value = settingValue(m_app.settings(), invocation.key);
    if (!value) {
        m_console.error(value.error());
        return kUsage;
    }
    m_console.line(*value);
    return kSuccess;
}

int Session::configSet(const Invocation &invocation)
{
    const auto changed = setSetting(m_app.settings(), invocation.key, invocation.value);
    if (!changed) {
        m_console.error(changed.error());
        return kUsage;
    }
    if (const std::optional<QString> failed = m_app.settings().writeError()) {
        m_console.error(*failed);
        return kFailure;
    }
    return kSuccess;
}

int Session::keySet(const Invocation &invocation)
{
    const TranscriptionProvider provider = *invocation.provider;
    const QString key = readSecret(m_console, tr("Paste your %1 API key and press Enter:").arg(shortName(provider)));
    if (key.isEmpty()) {
        m_console.error(tr("No key was given on standard input; nothing was saved."));
        return kUsage;
    }
    if (!m_app.settings().setAPIKey(key, provider)) {
        m_console.error(tr("No keyring is available, so API keys can't be saved. Install and unlock GNOME Keyring "
                           "or KWallet."));
        return kFailure;
    }
    m_console.line(tr("Key saved in your keyring"));
    return kSuccess;
}

} // namespace qm::cli
