#pragma once

#include "library/recording.h"
#include "library/result.h"
#include "library/transcript.h"

#include <QAbstractListModel>
#include <QDateTime>

#include <functional>
#include <optional>

namespace qm {

// Why a new recording folder could not be made.
struct StoreError {
    QString path;
    QString reason; // the file system's own words

    QString description() const;
};

// Why a recording's metadata or transcript couldn't be written. Nothing was changed on disk or in the list.
struct SaveError {
    QString title;
    QString reason; // the file system's own words

    QString description() const; // "Couldn't save “Standup”: No space left on device"
};

// A folder of the library whose recording.json couldn't be read. It stays out of the list and is never written,
// but it isn't hidden: the front ends say which folders they are and why.
struct UnreadableFolder {
    QString name;   // the folder's name inside the library
    QString reason; // one sentence
};

// Library files larger than this are refused unread: no real metadata or transcript comes near it.
inline constexpr qint64 kLibraryFileSizeLimit = 8 * 1024 * 1024;

// The library: every recording found in the library folder, newest first, and the only code that writes
// recording folders and their metadata. Lives on the main thread; file work is small and synchronous.
//
// Observers see every change twice over: as list-model signals (rows inserted, changed, removed, reset) for
// views, and as one recordingsChanged() per operation for everything else.
class RecordingStore : public QAbstractListModel {
    Q_OBJECT
    Q_PROPERTY(int count READ count NOTIFY recordingsChanged)

public:
    enum Role {
        IdRole = Qt::UserRole + 1,
        TitleRole,
        SourceRole,
        StartedAtRole,
        DurationRole,
        StateRole,
        TranscriptStateRole,
        HasVideoRole,
        FolderRole,
        LastErrorRole,
    };
    Q_ENUM(Role)

    // `libraryRoot` is asked for the library folder on every operation ("~" is expanded), so a changed
    // setting takes effect at the next reload or create. `now` is the clock new recordings are stamped with.
    explicit RecordingStore(std::function<QString()> libraryRoot, QObject *parent = nullptr,
                            std::function<QDateTime()> now = {});

    const QList<Recording> &recordings() const { return m_recordings; }
    int count() const { return int(m_recordings.size()); }
    QString rootPath() const;

    // Rebuilds the list from disk. Folders without a recording.json are not recordings and are skipped; those
    // whose recording.json can't be read are skipped, left as they are and listed in unreadable().
    void reload();
    const QList<UnreadableFolder> &unreadable() const { return m_unreadable; }
    // Makes the folder (and its Source folder) and first metadata file of a new recording, listed first.
    expected<Recording, StoreError> create(RecordingSource source, bool video);
    // Writes the metadata atomically and merges the record into the list (in place if known, else first). When
    // the file can't be written, the old one stays whole and the list is left as it was.
    [[nodiscard]] expected<void, SaveError> save(const Recording &recording);
    // Moves the folder to the Trash and drops the record at once; a failed move is only logged.
    void deleteRecording(const Recording &recording);
    std::optional<Recording> recording(const QUuid &id) const;

    // Writes transcript.json, then Transcript.md and Transcript.txt, each atomically. Fails when transcript.json
    // couldn't be written (the exports are conveniences and are rewritten with it next time).
    [[nodiscard]] expected<void, SaveError> saveTranscript(const Transcript &transcript, const Recording &recording);
    // The transcript saved in the recording's folder, if it can be read.
    std::optional<Transcript> transcript(const Recording &recording) const;
    // The recording's file `name` (read from its own files), when it is a regular file inside its folder; a
    // name that leads elsewhere, through a separator or a symbolic link, gives the sentence that says so.
    static expected<QString, QString> fileInside(const Recording &recording, const QString &name);

    int rowCount(const QModelIndex &parent = QModelIndex()) const override;
    QVariant data(const QModelIndex &index, int role = Qt::DisplayRole) const override;
    QHash<int, QByteArray> roleNames() const override;

Q_SIGNALS:
    void recordingsChanged();

private:
    std::function<QString()> m_libraryRoot;
    std::function<QDateTime()> m_now;
    QList<Recording> m_recordings;
    QList<UnreadableFolder> m_unreadable;
};

// Replaces `path` with `bytes` through a temporary file that is flushed to the disk before a rename, so the file
// is either the old one or the new one, never empty or cut short. The error is the file system's words.
expected<void, QString> writeFileAtomically(const QString &path, const QByteArray &bytes);

// "~" and "~/…" become the home folder.
QString expandHome(const QString &path);

} // namespace qm
