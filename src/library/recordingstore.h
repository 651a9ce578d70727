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

    // Rebuilds the list from disk. Entries without a readable recording.json are skipped and left as they are.
    void reload();
    // Makes the folder (and its Source folder) and first metadata file of a new recording, listed first.
    expected<Recording, StoreError> create(RecordingSource source, bool video);
    // Writes the metadata atomically and merges the record into the list (in place if known, else first).
    // A write failure is ignored: the list is still updated and the next save rewrites the file whole.
    void save(const Recording &recording);
    // Moves the folder to the Trash and drops the record at once; a failed move is only logged.
    void deleteRecording(const Recording &recording);
    std::optional<Recording> recording(const QUuid &id) const;

    // Writes transcript.json, Transcript.md and Transcript.txt, each atomically, each failure ignored.
    void saveTranscript(const Transcript &transcript, const Recording &recording);
    // The transcript saved in the recording's folder, if it can be read.
    std::optional<Transcript> transcript(const Recording &recording) const;

    int rowCount(const QModelIndex &parent = QModelIndex()) const override;
    QVariant data(const QModelIndex &index, int role = Qt::DisplayRole) const override;
    QHash<int, QByteArray> roleNames() const override;

Q_SIGNALS:
    void recordingsChanged();

private:
    std::function<QString()> m_libraryRoot;
    std::function<QDateTime()> m_now;
    QList<Recording> m_recordings;
};

// Replaces `path` with `bytes` through a temporary file and a rename. False when that failed.
bool writeFileAtomically(const QString &path, const QByteArray &bytes);

// "~" and "~/…" become the home folder.
QString expandHome(const QString &path);

} // namespace qm
