#include "ui/library/librarysearch.h"

#include "library/log.h"
#include "library/recordingstore.h"
#include "ui/library/searchindex.h"

#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>

#include <fcntl.h>
#include <unistd.h>

namespace qm::ui {

namespace {

// One indexing slice stays short, so a search typed meanwhile waits at most this long for the thread.
constexpr qint64 kSliceMs = 25;
// How long a search trusts what it last saw of a transcript file that this program did not say it changed.
constexpr qint64 kRecheckMs = 2000;

} // namespace

// Everything that runs on the search thread. Its functions are only ever called there, through `context`.
class LibrarySearch::Worker {
public:
    Worker(LibrarySearch *owner, QString indexPath, SearchFold fold, std::shared_ptr<std::atomic<quint64>> latest)
        : m_owner(owner), m_index(std::move(indexPath), fold), m_fold(fold), m_latest(std::move(latest))
    {
        m_clock.start();
    }

    QObject context;

    void refresh(const QList<SearchEntry> &entries)
    {
        m_pending = entries;
        m_pendingAt = 0;
        m_pruned = false;
        schedule();
    }

    void queue(const QList<SearchEntry> &entries)
    {
        m_pending += entries;
        schedule();
    }

    void search(quint64 generation, const QString &query, const QList<SearchEntry> &entries, quint64 changes)
    {
        if (m_latest->load() != generation)
            return;
        if (changes != m_changes) {
            // Something changed in this program: every transcript file is looked at again.
            m_changes = changes;
            for (Known &known : m_known)
                known.checkedAt = -1;
        }
        const qint64 now = m_clock.elapsed();
        Directories directories;
        const QString folded = m_fold(query);
        std::optional<SearchIndex::Matches> matches;
        if (ensureIndex() && !folded.contains(QChar(SearchIndex::kSeparator))) {
            auto found = m_index.find(folded);
            if (found)
                matches = std::move(*found);
            else
                dropIndex(found.error());
        }
        QList<SearchHit> hits;
        QList<SearchEntry> stale;
        for (const SearchEntry &entry : entries) {
            if (m_latest->load() != generation)
                return;
            Known &known = this->known(entry);
            if (known.foldedTitle.contains(folded)) {
                hits.append({entry.id, true, -1, std::nullopt});
                continue;
            }
            // Files are looked at again only after a while: typing a word searches many times a second, and a
            // change made by this program is announced (`changes`) anyway.
            if (known.checkedAt < 0 || now - known.checkedAt > kRecheckMs) {
                known.stamp = SearchIndex::stamp(directories.open(known.parent), known.relative.constData());
                known.checkedAt = now;
            }
            const QByteArray &stamp = known.stamp;
            if (matches) {
                const SearchIndex::Doc *doc = m_index.doc(entry.folder);
                if (doc && doc->stamp == stamp) {
                    if (doc->hasText && matches->contains(doc->row))
                        hits.append({entry.id, false, -1, std::nullopt});
                    continue;
                }
                stale.append(entry);
                known.checkedAt = -1;
            }
            if (const std::optional<Transcript> transcript = readTranscript(entry.folder)) {
                const int segment = firstMatchingSegment(*transcript, folded, m_fold);
                if (segment >= 0)
                    hits.append(
                        {entry.id, false, segment, findIn(transcript->segments.at(segment).text, folded, m_fold)});
            }
        }
        QMetaObject::invokeMethod(
            m_owner, [owner = m_owner, generation, hits] { owner->deliverHits(generation, hits); },
            Qt::QueuedConnection);
        if (!stale.isEmpty())
            queue(stale);
    }

    void snippets(quint64 generation, const QString &query, const QList<SearchEntry> &entries)
    {
        const QString folded = m_fold(query);
        for (const SearchEntry &entry : entries) {
            if (m_latest->load() != generation)
                return;
            std::optional<std::pair<int, Snippet>> found;
            const SearchIndex::Doc *doc = m_index.isOpen() ? m_index.doc(entry.folder) : nullptr;
            if (doc && doc->hasText && doc->stamp == SearchIndex::stamp(entry.folder)) {
                found = m_index.snippet(doc->row, folded);
            } else if (const std::optional<Transcript> transcript = readTranscript(entry.folder)) {
                const int segment = firstMatchingSegment(*transcript, folded, m_fold);
                if (segment >= 0) {
                    if (auto snippet = findIn(transcript->segments.at(segment).text, folded, m_fold))
                        found = std::pair(segment, *snippet);
                }
            }
            if (!found)
                continue;
            QMetaObject::invokeMethod(
                m_owner,
                [owner = m_owner, generation, id = entry.id, found] {
                    owner->deliverSnippet(generation, id, found->first, found->second);
                },
                Qt::QueuedConnection);
        }
    }

    // Indexes everything still pending, now.
    int finish()
    {
        while (m_pendingAt < m_pending.size() || !m_pruned)
            indexSome(std::numeric_limits<qint64>::max());
        return int(m_index.docCount());
    }

private:
    bool ensureIndex()
    {
        if (m_index.path().isEmpty() || m_unusable)
            return false;
        // A cache deleted under us is rebuilt rather than written on unseen.
        if (m_index.isOpen() && !QFile::exists(m_index.path()))
            m_index.discard();
        if (m_index.isOpen())
            return true;
        if (auto opened = m_index.open(); !opened) {
            logLine(opened.error().description());
            m_unusable = true;
            return false;
        }
        return true;
    }

    void dropIndex(const SearchIndexError &error)
    {
        logLine(error.description());
        m_index.discard();
    }

    // What the search remembers of a recording between searches.
    struct Known {
        QString title;
        QString foldedTitle;
        QString folder;
        QString parent;      // the folder holding the recording's folder
        QByteArray relative; // "<folder name>/transcript.json", for stat() relative to `parent`
        QByteArray stamp;
        qint64 checkedAt = -1; // on m_clock; -1: never
    };

    // Open directories for the searches' file checks, closed when the search ends.
    class Directories {
    public:
        Directories() = default;
        Directories(const Directories &) = delete;
        Directories &operator=(const Directories &) = delete;
        ~Directories()
        {
            for (const int fd : std::as_const(m_open))
                ::close(fd);
        }
        int open(const QString &path)
        {
            const auto it = m_open.constFind(path);
            if (it != m_open.cend())
                return *it;
            const int fd = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
            m_open.insert(path, fd);
            return fd;
        }

    private:
        QHash<QString, int> m_open;
    };

    Known &known(const SearchEntry &entry)
    {
        auto it = m_known.find(entry.id);
        if (it == m_known.end() || it->title != entry.title || it->folder != entry.folder)
            it = m_known.insert(entry.id, makeKnown(entry));
        return *it;
    }

    Known makeKnown(const SearchEntry &entry) const
    {
        Known known;
        known.title = entry.title;
        known.folder = entry.folder;
        known.foldedTitle = m_fold(entry.title);
        const QFileInfo folder(entry.folder);
        known.parent = folder.path();
        known.relative = QFile::encodeName(folder.fileName() + u'/' + QLatin1String(kTranscriptFileName));
        return known;
    }

    void schedule()
    {
        if (m_scheduled)
            return;
        m_scheduled = true;
        QMetaObject::invokeMethod(
            &context, [this] { indexSome(kSliceMs); }, Qt::QueuedConnection);
    }

    void indexSome(qint64 budgetMs)
    {
        m_scheduled = false;
        if (!ensureIndex()) {
            m_pending.clear();
            m_pendingAt = 0;
            m_pruned = true;
            return;
        }
        QElapsedTimer clock;
        clock.start();
        if (auto begun = m_index.begin(); !begun) {
            dropIndex(begun.error());
            return;
        }
        while (m_pendingAt < m_pending.size() && clock.elapsed() < budgetMs) {
            const SearchEntry &entry = m_pending.at(m_pendingAt++);
            const QByteArray stamp = SearchIndex::stamp(entry.folder);
            const SearchIndex::Doc *doc = m_index.doc(entry.folder);
            if (doc && doc->stamp == stamp)
                continue;
            if (auto updated = m_index.update(entry.folder, stamp, readTranscript(entry.folder)); !updated) {
                dropIndex(updated.error());
                return;
            }
        }
        if (m_pendingAt >= m_pending.size() && !m_pruned) {
            m_pruned = true;
            if (auto pruned = m_index.prune(); !pruned) {
                dropIndex(pruned.error());
                return;
            }
        }
        if (auto committed = m_index.commit(); !committed) {
            dropIndex(committed.error());
            return;
        }
        if (m_pendingAt < m_pending.size()) {
            schedule();
        } else {
            m_pending.clear();
            m_pendingAt = 0;
        }
    }

    LibrarySearch *m_owner;
    SearchIndex m_index;
    SearchFold m_fold;
    std::shared_ptr<std::atomic<quint64>> m_latest;
    QHash<QUuid, Known> m_known;
    quint64 m_changes = 0;
    QElapsedTimer m_clock;
    QList<SearchEntry> m_pending;
    qsizetype m_pendingAt = 0;
    bool m_pruned = true;
    bool m_scheduled = false;
    bool m_unusable = false;
};

LibrarySearch::LibrarySearch(RecordingStore &store, QString indexPath, QObject *parent)
    : QObject(parent), m_store(store), m_generation(std::make_shared<std::atomic<quint64>>(0))
{
    m_thread.setObjectName(QStringLiteral("app.quillmoor.search"));
    m_worker = std::make_unique<Worker>(this, std::move(indexPath), SearchFold(), m_generation);
    m_worker->context.moveToThread(&m_thread);
    m_thread.start(QThread::LowPriority);

    m_refresh.setSingleShot(true);
    m_refresh.setInterval(300);
    connect(&m_refresh, &QTimer::timeout, this, [this] {
        QMetaObject::invokeMethod(
            &m_worker->context, [worker = m_worker.get(), entries = m_entries] { worker->refresh(entries); },
            Qt::QueuedConnection);
    });
    connect(&store, &RecordingStore::recordingsChanged, this, [this] {
        ++m_changes;
        rebuildEntries();
        if (!m_query.isEmpty())
            search();
        m_refresh.start();
    });
    connect(&store, &QAbstractItemModel::modelReset, this, [this] {
        ++m_changes;
        rebuildEntries();
        if (!m_query.isEmpty())
            search();
        m_refresh.start();
    });
    // Folders removed or added beside the program (in a file manager, by another program) count as changes.
    connect(&m_watcher, &QFileSystemWatcher::directoryChanged, this, [this] {
        ++m_changes;
        if (!m_query.isEmpty())
            search();
        m_refresh.start();
    });
    rebuildEntries();
    m_refresh.start(0);
}

LibrarySearch::~LibrarySearch()
{
    m_generation->fetch_add(1);
    m_thread.quit();
    m_thread.wait();
}

QString LibrarySearch::defaultIndexPath()
{
    return QStandardPaths::writableLocation(QStandardPaths::GenericCacheLocation) +
           QStringLiteral("/Quillmoor/search.sqlite");
}

void LibrarySearch::rebuildEntries()
{
    const QString root = m_store.rootPath();
    if (m_watcher.directories() != QStringList{root}) {
        if (!m_watcher.directories().isEmpty())
            m_watcher.removePaths(m_watcher.directories());
        if (QFileInfo::exists(root))
            m_watcher.addPath(root);
    }
    QList<SearchEntry> entries;
    entries.reserve(m_store.count());
    for (const Recording &recording : m_store.recordings())
        entries.append({recording.id, recording.title, recording.folderPath()});
    m_entries = std::move(entries);
}

void LibrarySearch::setQuery(const QString &typed)
{
    const QString query = searchQuery(typed);
    if (query == m_query)
        return;
    m_query = query;
    if (m_query.isEmpty()) {
        m_generation->fetch_add(1);
        m_hits.reset();
        setSearching(false);
        Q_EMIT hitsChanged();
        return;
    }
    search();
}

void LibrarySearch::transcriptsChanged()
{
    ++m_changes;
    if (!m_query.isEmpty())
        search();
    m_refresh.start();
}

void LibrarySearch::search()
{
    const quint64 generation = m_generation->fetch_add(1) + 1;
    m_snippetsWanted.clear();
    m_snippetsAsked.clear();
    setSearching(true);
    QMetaObject::invokeMethod(
        &m_worker->context,
        [worker = m_worker.get(), generation, query = m_query, entries = m_entries, changes = m_changes] {
            worker->search(generation, query, entries, changes);
        },
        Qt::QueuedConnection);
}

void LibrarySearch::deliverHits(quint64 generation, const QList<SearchHit> &hits)
{
    if (generation != m_generation->load())
        return;
    QHash<QUuid, SearchHit> byId;
    byId.reserve(hits.size());
    for (const SearchHit &hit : hits)
        byId.insert(hit.id, hit);
    m_hits = std::move(byId);
    setSearching(false);
    Q_EMIT hitsChanged();
}

void LibrarySearch::deliverSnippet(quint64 generation, const QUuid &id, int segment, const Snippet &snippet)
{
    if (generation != m_generation->load() || !m_hits)
        return;
    const auto it = m_hits->find(id);
    if (it == m_hits->end())
        return;
    it->segment = segment;
    it->snippet = snippet;
    Q_EMIT hitChanged(id);
}

void LibrarySearch::requestSnippet(const QUuid &id)
{
    if (!m_hits || m_snippetsAsked.contains(id))
        return;
    const auto hit = m_hits->constFind(id);
    if (hit == m_hits->cend() || hit->inTitle || hit->snippet)
        return;
    m_snippetsAsked.insert(id);
    if (m_snippetsWanted.isEmpty())
        QTimer::singleShot(0, this, &LibrarySearch::sendSnippetRequests);
    m_snippetsWanted.insert(id);
}

void LibrarySearch::sendSnippetRequests()
{
    QList<SearchEntry> wanted;
    for (const SearchEntry &entry : std::as_const(m_entries)) {
        if (m_snippetsWanted.contains(entry.id))
            wanted.append(entry);
    }
    m_snippetsWanted.clear();
    if (wanted.isEmpty())
        return;
    QMetaObject::invokeMethod(
        &m_worker->context,
        [worker = m_worker.get(), generation = m_generation->load(), query = m_query, wanted] {
            worker->snippets(generation, query, wanted);
        },
        Qt::QueuedConnection);
}

void LibrarySearch::setSearching(bool searching)
{
    if (searching == m_searching)
        return;
    m_searching = searching;
    Q_EMIT searchingChanged(searching);
}

int LibrarySearch::waitForIndex()
{
    int count = 0;
    m_refresh.stop();
    QMetaObject::invokeMethod(
        &m_worker->context,
        [worker = m_worker.get(), entries = m_entries, &count] {
            worker->refresh(entries);
            count = worker->finish();
        },
        Qt::BlockingQueuedConnection);
    return count;
}

} // namespace qm::ui
