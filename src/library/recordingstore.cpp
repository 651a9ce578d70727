#include "library/recordingstore.h"

#include "library/formatters.h"
#include "library/jsoncoding.h"
#include "library/log.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include <unistd.h>

namespace qm {

QString StoreError::description() const
{
    return QCoreApplication::translate("RecordingStore", "Couldn't create the recording folder “%1”: %2")
        .arg(path, reason);
}

QString SaveError::description() const
{
    return QCoreApplication::translate("RecordingStore", "Couldn't save “%1”: %2").arg(title, reason);
}

expected<void, QString> writeFileAtomically(const QString &path, const QByteArray &bytes)
{
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        return unexpected(file.errorString());
    // A full disk may accept the bytes into the cache and refuse them only when they reach it; flushing and
    // syncing the temporary file first makes that refusal come before the rename, not after.
    if (file.write(bytes) != bytes.size() || !file.flush()) {
        const QString reason = file.errorString();
        file.cancelWriting();
        return unexpected(reason);
    }
    if (::fsync(file.handle()) != 0) {
        const QString reason = QString::fromLocal8Bit(std::strerror(errno));
        file.cancelWriting();
        return unexpected(reason);
    }
    if (!file.commit())
        return unexpected(file.errorString());
    return {};
}

QString expandHome(const QString &path)
{
    if (path == QLatin1String("~"))
        return QDir::homePath();
    if (path.startsWith(QLatin1String("~/")))
        return QDir::homePath() + path.mid(1);
    return path;
}

RecordingStore::RecordingStore(std::function<QString()> libraryRoot, QObject *parent, std::function<QDateTime()> now)
    : QAbstractListModel(parent), m_libraryRoot(std::move(libraryRoot)), m_now(std::move(now))
{
    if (!m_now)
        m_now = [] { return QDateTime::currentDateTime(); };
}

QString RecordingStore::rootPath() const
{
    return QDir::cleanPath(expandHome(m_libraryRoot()));
}

void RecordingStore::reload()
{
    const QString root = rootPath();
    QDir().mkpath(root);

    QList<Recording> found;
    QList<UnreadableFolder> unreadable;
    const QDir dir(root);
    // No sorting here: equal start times keep the listing order, the stable sort below does the rest.
    const QStringList entries = dir.entryList(QDir::AllEntries | QDir::NoDotAndDotDot, QDir::NoSort);
    found.reserve(entries.size());
    for (const QString &entry : entries) {
        const QString folder = dir.filePath(entry);
        QFile file(folder + u'/' + QLatin1String(kMetadataFileName));
        if (!file.exists())
            continue;
        if (file.size() > kLibraryFileSizeLimit) {
            unreadable.append(
                {entry, QCoreApplication::translate("RecordingStore", "its recording.json is too large")});
            continue;
        }
        if (!file.open(QIODevice::ReadOnly)) {
            unreadable.append({entry, file.errorString()});
            continue;
        }
        auto decoded = JsonCoding::decodeRecording(file.read(kLibraryFileSizeLimit));
        if (!decoded) {
            unreadable.append({entry, decoded.error().description()});
            continue;
        }
        decoded->folder = QUrl::fromLocalFile(folder);
        found.append(std::move(*decoded));
    }
    std::sort(unreadable.begin(), unreadable.end(),
              [](const UnreadableFolder &a, const UnreadableFolder &b) { return a.name < b.name; });
    m_unreadable = std::move(unreadable);
    std::stable_sort(found.begin(), found.end(),
                     [](const Recording &a, const Recording &b) { return a.startedAt > b.startedAt; });

    beginResetModel();
    m_recordings = std::move(found);
    endResetModel();
    Q_EMIT recordingsChanged();
}

expected<Recording, StoreError> RecordingStore::create(RecordingSource source, bool video)
{
    const QDateTime now = m_now();
    const QString word = defaultTitleWord(source);
    const QString base = Formatters::folderDate(now) + u' ' + word;
    const QDir root(rootPath());

    QString candidate = root.filePath(base);
    for (int n = 2; QFileInfo(candidate).exists() || QFileInfo(candidate).isSymLink(); ++n)
        candidate = root.filePath(base + u' ' + QString::number(n));

    std::error_code error;
    std::filesystem::create_directories(
        std::filesystem::path(QString(candidate + u'/' + QLatin1String(kSourceFolderName)).toStdString()), error);
    if (error)
        return unexpected(StoreError{candidate, QString::fromLocal8Bit(error.message())});

    Recording recording;
    recording.id = QUuid::createUuid();
    recording.title = word + QStringLiteral(" – ") + Formatters::shortDate(now, QLocale(), now);
    recording.source = source;
    recording.startedAt = now;
    recording.hasVideo = video;
    recording.folder = QUrl::fromLocalFile(candidate);
    if (auto saved = save(recording); !saved) {
        QDir(candidate).removeRecursively();
        return unexpected(StoreError{candidate, saved.error().reason});
    }
    return recording;
}

expected<void, SaveError> RecordingStore::save(const Recording &recording)
{
    const auto written = writeFileAtomically(QDir(recording.folderPath()).filePath(QLatin1String(kMetadataFileName)),
                                             JsonCoding::encode(recording));
    if (!written) {
        logLine(QStringLiteral("couldn't save %1: %2").arg(recording.folderPath(), written.error()));
        return unexpected(SaveError{recording.title, written.error()});
    }

    const auto it = std::find_if(m_recordings.begin(), m_recordings.end(),
                                 [&](const Recording &r) { return r.id == recording.id; });
    if (it != m_recordings.end()) {
        *it = recording;
        const QModelIndex changed = index(int(it - m_recordings.begin()));
        Q_EMIT dataChanged(changed, changed);
    } else {
        beginInsertRows({}, 0, 0);
        m_recordings.prepend(recording);
        endInsertRows();
    }
    Q_EMIT recordingsChanged();
    return {};
}

void RecordingStore::deleteRecording(const Recording &recording)
{
    const QString folder = recording.folderPath();
    QFile trash(folder);
    if (!trash.moveToTrash())
        logLine(QStringLiteral("couldn't move %1 to the Trash: %2").arg(folder, trash.errorString()));

    bool removed = false;
    for (qsizetype row = m_recordings.size() - 1; row >= 0; --row) {
        if (m_recordings.at(row).id != recording.id)
            continue;
        beginRemoveRows({}, int(row), int(row));
        m_recordings.removeAt(row);
        endRemoveRows();
        removed = true;
    }
    if (removed)
        Q_EMIT recordingsChanged();
}

std::optional<Recording> RecordingStore::recording(const QUuid &id) const
{
    for (const Recording &r : m_recordings) {
        if (r.id == id)
            return r;
    }
    return std::nullopt;
}

expected<void, SaveError> RecordingStore::saveTranscript(const Transcript &transcript, const Recording &recording)
{
    const QDir folder(recording.folderPath());
    const auto written =
        writeFileAtomically(folder.filePath(QLatin1String(kTranscriptFileName)), JsonCoding::encode(transcript));
    if (!written) {
        logLine(QStringLiteral("couldn't save the transcript of %1: %2").arg(recording.folderPath(), written.error()));
        return unexpected(SaveError{recording.title, written.error()});
    }
    // The exports are made again from transcript.json whenever it changes; a failed one is only logged.
    const QList<QPair<const char *, QByteArray>> exports{
        {kTranscriptMarkdownFileName, transcript.markdown(recording).toUtf8()},
        {kTranscriptTextFileName, transcript.plainText(true).toUtf8()}};
    for (const auto &[name, bytes] : exports) {
        if (const auto exported = writeFileAtomically(folder.filePath(QLatin1String(name)), bytes); !exported)
            logLine(QStringLiteral("couldn't write %1 of %2: %3")
                        .arg(QLatin1String(name), recording.folderPath(), exported.error()));
    }
    return {};
}

expected<QString, QString> RecordingStore::fileInside(const Recording &recording, const QString &name)
{
    const auto refuse = [&name](const char *why) {
        return unexpected(QCoreApplication::translate("RecordingStore", why).arg(name));
    };
    if (!JsonCoding::isPlainFileName(name))
        return refuse("“%1” isn't the name of a file in the recording's folder.");
    const QString path = QDir(recording.folderPath()).filePath(name);
    const QFileInfo info(path);
    if (info.isSymLink()) {
        const QString target = info.canonicalFilePath();
        const QString folder = QFileInfo(recording.folderPath()).canonicalFilePath();
        if (target.isEmpty() || folder.isEmpty() || !target.startsWith(folder + u'/'))
            return refuse("“%1” is a link to a file outside the recording's folder, so it was left alone.");
    }
    if (!info.exists())
        return refuse("“%1” is missing from the recording's folder.");
    if (!info.isFile())
        return refuse("“%1” in the recording's folder isn't a regular file.");
    return path;
}

std::optional<Transcript> RecordingStore::transcript(const Recording &recording) const
{
    QFile file(QDir(recording.folderPath()).filePath(QLatin1String(kTranscriptFileName)));
    if (file.size() > kLibraryFileSizeLimit || !file.open(QIODevice::ReadOnly))
        return std::nullopt;
    auto decoded = JsonCoding::decodeTranscript(file.read(kLibraryFileSizeLimit));
    if (!decoded)
        return std::nullopt;
    return std::move(*decoded);
}

int RecordingStore::rowCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : count();
}

QVariant RecordingStore::data(const QModelIndex &index, int role) const
{
    if (!checkIndex(index, CheckIndexOption::IndexIsValid | CheckIndexOption::ParentIsInvalid))
        return {};
    const Recording &r = m_recordings.at(index.row());
    switch (role) {
    case Qt::DisplayRole:
    case TitleRole:
        return r.title;
    case IdRole:
        return r.id;
    case SourceRole:
        return rawValue(r.source);
    case StartedAtRole:
        return r.startedAt;
    case DurationRole:
        return r.duration;
    case StateRole:
        return rawValue(r.state);
    case TranscriptStateRole:
        return rawValue(r.transcriptState);
    case HasVideoRole:
        return r.hasVideo;
    case FolderRole:
        return r.folderPath();
    case LastErrorRole:
        return r.lastError ? QVariant(*r.lastError) : QVariant();
    default:
        return {};
    }
}

QHash<int, QByteArray> RecordingStore::roleNames() const
{
    return {
        {IdRole, "id"},
        {TitleRole, "title"},
        {SourceRole, "source"},
        {StartedAtRole, "startedAt"},
        {DurationRole, "duration"},
        {StateRole, "state"},
        {TranscriptStateRole, "transcriptState"},
        {HasVideoRole, "hasVideo"},
        {FolderRole, "folder"},
        {LastErrorRole, "lastError"},
    };
}

} // namespace qm
