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
#include <filesystem>

namespace qm {

QString StoreError::description() const
{
    return QCoreApplication::translate("RecordingStore", "Couldn't create the recording folder “%1”: %2")
        .arg(path, reason);
}

bool writeFileAtomically(const QString &path, const QByteArray &bytes)
{
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        return false;
    if (file.write(bytes) != bytes.size()) {
        file.cancelWriting();
        return false;
    }
    return file.commit();
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
    const QDir dir(root);
    // No sorting here: equal start times keep the listing order, the stable sort below does the rest.
    const QStringList entries = dir.entryList(QDir::AllEntries | QDir::NoDotAndDotDot, QDir::NoSort);
    found.reserve(entries.size());
    for (const QString &entry : entries) {
        const QString folder = dir.filePath(entry);
        QFile file(folder + u'/' + QLatin1String(kMetadataFileName));
        if (!file.open(QIODevice::ReadOnly))
            continue;
        auto decoded = JsonCoding::decodeRecording(file.readAll());
        if (!decoded)
            continue;
        decoded->folder = QUrl::fromLocalFile(folder);
        found.append(std::move(*decoded));
    }
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
    save(recording);
    return recording;
}

void RecordingStore::save(const Recording &recording)
{
    writeFileAtomically(QDir(recording.folderPath()).filePath(QLatin1String(kMetadataFileName)),
                        JsonCoding::encode(recording));

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

void RecordingStore::saveTranscript(const Transcript &transcript, const Recording &recording)
{
    const QDir folder(recording.folderPath());
    writeFileAtomically(folder.filePath(QLatin1String(kTranscriptFileName)), JsonCoding::encode(transcript));
    writeFileAtomically(folder.filePath(QLatin1String(kTranscriptMarkdownFileName)),
                        transcript.markdown(recording).toUtf8());
    writeFileAtomically(folder.filePath(QLatin1String(kTranscriptTextFileName)), transcript.plainText(true).toUtf8());
}

std::optional<Transcript> RecordingStore::transcript(const Recording &recording) const
{
    QFile file(QDir(recording.folderPath()).filePath(QLatin1String(kTranscriptFileName)));
    if (!file.open(QIODevice::ReadOnly))
        return std::nullopt;
    auto decoded = JsonCoding::decodeTranscript(file.readAll());
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
