#pragma once

#include "ui/library/searchtext.h"

#include <QFileSystemWatcher>
#include <QHash>
#include <QObject>
#include <QSet>
#include <QThread>
#include <QTimer>

#include <atomic>
#include <memory>
#include <optional>

namespace qm {
class RecordingStore;
}

namespace qm::ui {

// The library's search: what the list shows for the search text, worked out on a thread of its own so that
// typing never waits for it. Only the latest text is searched; a search overtaken by newer typing stops.
//
// Results are those of scanLibrary(). Transcripts come from an index (SearchIndex) where its copy is current,
// checked against each transcript file; the others are read directly and queued for indexing, which goes on
// between searches. Without a usable index every search reads the files. A file is checked again at the first
// search after this program changed the library or a folder came or went in the library folder, else at most
// every two seconds, so a transcript rewritten in place by another program (the command line) is seen within
// two seconds.
//
// Main thread only. Watches the store itself; call transcriptsChanged() when transcripts may have been
// rewritten without the store noticing (re-transcription, speaker renames).
class LibrarySearch : public QObject {
    Q_OBJECT

public:
    // `indexPath` is the index database; empty means none.
    LibrarySearch(RecordingStore &store, QString indexPath, QObject *parent = nullptr);
    ~LibrarySearch() override;

    // "$XDG_CACHE_HOME/Quillmoor/search.sqlite".
    static QString defaultIndexPath();

    void setQuery(const QString &typed);
    // The trimmed search text.
    const QString &query() const { return m_query; }
    // What the list shows: nothing for "everything" (an empty query), else the hits of the latest finished search.
    const std::optional<QHash<QUuid, SearchHit>> &hits() const { return m_hits; }
    bool isSearching() const { return m_searching; }

    // Asks for the snippets of transcript hits that have none yet; each comes back through hitChanged().
    void requestSnippet(const QUuid &id);
    void transcriptsChanged();

    // Test and benchmark hooks: the number of transcripts the index holds a current copy of, after the
    // indexing asked for so far has finished (waits for the search thread).
    int waitForIndex();

Q_SIGNALS:
    void hitsChanged();
    void hitChanged(const QUuid &id);
    void searchingChanged(bool searching);

private:
    class Worker;
    void rebuildEntries();
    void search();
    void setSearching(bool searching);
    void sendSnippetRequests();
    void deliverHits(quint64 generation, const QList<SearchHit> &hits);
    void deliverSnippet(quint64 generation, const QUuid &id, int segment, const Snippet &snippet);

    RecordingStore &m_store;
    QString m_query;
    QList<SearchEntry> m_entries;
    std::optional<QHash<QUuid, SearchHit>> m_hits;
    bool m_searching = false;
    std::shared_ptr<std::atomic<quint64>> m_generation;
    quint64 m_changes = 0; // counts the changes this program made to recordings and transcripts
    QSet<QUuid> m_snippetsWanted;
    QSet<QUuid> m_snippetsAsked;
    QTimer m_refresh;
    QFileSystemWatcher m_watcher; // the library folder
    QThread m_thread;
    std::unique_ptr<Worker> m_worker;
};

} // namespace qm::ui
