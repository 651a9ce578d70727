#pragma once

#include "library/result.h"
#include "library/transcript.h"
#include "ui/library/searchtext.h"

#include <QByteArray>
#include <QHash>
#include <QString>

#include <memory>
#include <optional>

struct sqlite3;

namespace qm::ui {

// Why the search index could not be used. The search then reads the transcripts themselves.
struct SearchIndexError {
    QString path;
    QString reason; // SQLite's own words

    QString description() const;
};

// The transcript text of the library kept in an SQLite database (a cache: deleting it loses nothing), so a
// search need not read every transcript. Two full-text tables: trigrams with their positions for queries of
// three or more characters, and the set of single characters and pairs of each transcript for shorter ones.
// Segment texts are stored composed and compressed, for snippets and for taking a transcript out again.
//
// Not thread-safe: one thread (the search thread) creates, uses and destroys it. Every answer is exact under
// SearchFold, never a candidate list; the caller decides which transcripts are current (stamp()).
class SearchIndex {
public:
    struct Doc {
        qint64 row = 0;
        QByteArray stamp;
        bool hasText = false; // false: no readable transcript when it was stamped
    };

    // Where a match was found: -1 when only its presence is known.
    using Matches = QHash<qint64, int>;

    SearchIndex(QString path, SearchFold fold);
    ~SearchIndex();
    SearchIndex(const SearchIndex &) = delete;
    SearchIndex &operator=(const SearchIndex &) = delete;

    // Opens the database, creating it, or starting afresh when it is damaged or was written under other folding
    // rules or another layout.
    expected<void, SearchIndexError> open();
    bool isOpen() const { return m_db != nullptr; }
    // Closes and removes the database files.
    void discard();
    const QString &path() const { return m_path; }

    // What the folder's transcript.json is now: size, modification time and file identity; "-" when missing.
    static QByteArray stamp(const QString &folder);
    // The same for `relative` ("<folder name>/transcript.json") inside the open directory `directory`.
    static QByteArray stamp(int directory, const char *relative);
    const Doc *doc(const QString &folder) const;
    qsizetype docCount() const { return m_docs.size(); }

    // Several updates in one transaction are much faster than one each.
    expected<void, SearchIndexError> begin();
    expected<void, SearchIndexError> commit();
    // Replaces what is known of `folder` with `transcript` (none: unreadable or missing) under `stamp`.
    expected<void, SearchIndexError> update(const QString &folder, const QByteArray &stamp,
                                            const std::optional<Transcript> &transcript);
    // Forgets folders that no longer exist on disk.
    expected<void, SearchIndexError> prune();

    // Every indexed transcript with a segment containing `foldedQuery` (not empty, free of the segment
    // separator).
    expected<Matches, SearchIndexError> find(const QString &foldedQuery);
    // The first matching segment of `row`'s transcript and a snippet of it.
    std::optional<std::pair<int, Snippet>> snippet(qint64 row, const QString &foldedQuery);

    // The character that joins segment texts in the index; a query holding it can't be answered here.
    static constexpr char16_t kSeparator = 0x1F;

private:
    struct CloseDatabase {
        void operator()(sqlite3 *db) const;
    };
    expected<void, SearchIndexError> create();
    expected<void, SearchIndexError> loadDocs();
    expected<void, SearchIndexError> removeText(qint64 row);
    std::optional<QString> body(qint64 row);
    SearchIndexError error(const QString &what) const;
    expected<Matches, SearchIndexError> findTrigrams(const QList<uint> &query);
    expected<Matches, SearchIndexError> findShort(const QList<uint> &query);
    // How often the trigram occurs in the index (counted once, then remembered: an order, not a fact).
    qint64 instances(const QString &trigram);

    QString m_path;
    SearchFold m_fold;
    std::unique_ptr<sqlite3, CloseDatabase> m_db;
    QHash<QString, Doc> m_docs;
    QHash<QString, qint64> m_instances;
};

} // namespace qm::ui
