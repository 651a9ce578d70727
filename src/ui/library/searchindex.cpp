#include "ui/library/searchindex.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <algorithm>
#include <vector>

namespace qm::ui {

namespace {

constexpr int kLayout = 2;

struct FinalizeStatement {
    void operator()(sqlite3_stmt *statement) const { sqlite3_finalize(statement); }
};
using Statement = std::unique_ptr<sqlite3_stmt, FinalizeStatement>;

Statement prepare(sqlite3 *db, const char *sql)
{
    sqlite3_stmt *statement = nullptr;
    if (sqlite3_prepare_v2(db, sql, -1, &statement, nullptr) != SQLITE_OK)
        return {};
    return Statement(statement);
}

void bindText(sqlite3_stmt *statement, int index, const QString &text)
{
    const QByteArray utf8 = text.toUtf8();
    sqlite3_bind_text(statement, index, utf8.constData(), int(utf8.size()), SQLITE_TRANSIENT);
}

QString columnText(sqlite3_stmt *statement, int column)
{
    const auto *data = static_cast<const char *>(sqlite3_column_blob(statement, column));
    return QString::fromUtf8(data, sqlite3_column_bytes(statement, column));
}

QByteArray columnBytes(sqlite3_stmt *statement, int column)
{
    const auto *data = static_cast<const char *>(sqlite3_column_blob(statement, column));
    return QByteArray(data, sqlite3_column_bytes(statement, column));
}

// The segment texts of a transcript, composed, joined by the separator.
QString bodyOf(const Transcript &transcript)
{
    QStringList texts;
    texts.reserve(transcript.segments.size());
    for (const TranscriptSegment &segment : transcript.segments)
        texts.append(segment.text.normalized(QString::NormalizationForm_C));
    return texts.join(QChar(SearchIndex::kSeparator));
}

// Tokens for the single characters and the pairs of adjacent characters within each segment, as words of the
// ascii tokenizer ("u61", "b61x62").
QString gramsOf(const QString &foldedBody)
{
    // Nearly all text is ASCII: its characters and pairs are marked in bitmaps, the rest collected and sorted.
    std::vector<bool> single(128), pair(128 * 128);
    std::vector<quint64> other;
    constexpr quint64 kPair = quint64(1) << 63;
    const QList<uint> points = foldedBody.toUcs4();
    for (qsizetype i = 0; i < points.size(); ++i) {
        const uint c = points.at(i);
        if (c == SearchIndex::kSeparator)
            continue;
        if (c < 128)
            single[c] = true;
        else
            other.push_back(c);
        if (i + 1 < points.size() && points.at(i + 1) != SearchIndex::kSeparator) {
            const uint next = points.at(i + 1);
            if (c < 128 && next < 128)
                pair[c * 128 + next] = true;
            else
                other.push_back(kPair | (quint64(c) << 21) | next);
        }
    }
    for (uint c = 0; c < 128; ++c) {
        if (single[c])
            other.push_back(c);
        for (uint next = 0; next < 128; ++next) {
            if (pair[c * 128 + next])
                other.push_back(kPair | (quint64(c) << 21) | next);
        }
    }
    std::sort(other.begin(), other.end());
    other.erase(std::unique(other.begin(), other.end()), other.end());
    QString tokens;
    tokens.reserve(qsizetype(other.size()) * 9);
    for (const quint64 gram : other) {
        if (!tokens.isEmpty())
            tokens += u' ';
        if (gram & kPair)
            tokens += u'b' + QString::number((gram >> 21) & 0x1FFFFF, 16) + u'x' + QString::number(gram & 0x1FFFFF, 16);
        else
            tokens += u'u' + QString::number(gram, 16);
    }
    return tokens;
}

QString gramToken(const QList<uint> &query)
{
    if (query.size() == 1)
        return u'u' + QString::number(query.at(0), 16);
    return u'b' + QString::number(query.at(0), 16) + u'x' + QString::number(query.at(1), 16);
}

// qm_first(fts, offsets): the first position at which the query begins with every phrase (one trigram each) at
// its offset from there, or -1. `offsets` is a text of comma-separated numbers, one per phrase.
void firstMatch(const Fts5ExtensionApi *api, Fts5Context *context, sqlite3_context *result, int count,
                sqlite3_value **values)
{
    if (count != 1) {
        sqlite3_result_error(result, "qm_first takes the offsets", -1);
        return;
    }
    const QByteArray text(reinterpret_cast<const char *>(sqlite3_value_text(values[0])));
    std::vector<int> offsets;
    for (const QByteArray &part : text.split(','))
        offsets.push_back(part.toInt());
    const int phrases = api->xPhraseCount(context);
    if (phrases != int(offsets.size()) || phrases == 0) {
        sqlite3_result_int(result, -1);
        return;
    }
    struct Cursor {
        Fts5PhraseIter iter;
        int column = 0;
        int at = -1;
    };
    std::vector<Cursor> cursors(static_cast<std::size_t>(phrases), Cursor{});
    for (int i = 0; i < phrases; ++i)
        api->xPhraseFirst(context, i, &cursors[std::size_t(i)].iter, &cursors[std::size_t(i)].column,
                          &cursors[std::size_t(i)].at);
    // Positions only grow, so every other phrase's cursor only moves forward: a merge that stops at the first
    // place where all of them line up.
    // The first phrase leads (the caller puts the rarest first); `start` is where the query would begin.
    Cursor &lead = cursors.front();
    while (lead.at >= 0) {
        const int start = lead.at - offsets.front();
        bool all = start >= 0;
        for (int i = 1; all && i < phrases; ++i) {
            Cursor &other = cursors[std::size_t(i)];
            const int wanted = start + offsets[std::size_t(i)];
            while (other.at >= 0 && other.at < wanted)
                api->xPhraseNext(context, &other.iter, &other.column, &other.at);
            if (other.at < 0) {
                sqlite3_result_int(result, -1);
                return;
            }
            if (other.at != wanted) {
                all = false;
                break;
            }
        }
        if (all) {
            sqlite3_result_int(result, start);
            return;
        }
        api->xPhraseNext(context, &lead.iter, &lead.column, &lead.at);
    }
    sqlite3_result_int(result, -1);
}

bool registerFirstMatch(sqlite3 *db)
{
    fts5_api *api = nullptr;
    Statement statement = prepare(db, "SELECT fts5(?1)");
    if (!statement)
        return false;
    sqlite3_bind_pointer(statement.get(), 1, static_cast<void *>(&api), "fts5_api_ptr", nullptr);
    sqlite3_step(statement.get());
    if (!api)
        return false;
    return api->xCreateFunction(api, "qm_first", nullptr, &firstMatch, nullptr) == SQLITE_OK;
}

} // namespace

QString SearchIndexError::description() const
{
    return QCoreApplication::translate("SearchIndex", "The search index “%1” can't be used: %2").arg(path, reason);
}

void SearchIndex::CloseDatabase::operator()(sqlite3 *db) const
{
    sqlite3_close_v2(db);
}

SearchIndex::SearchIndex(QString path, SearchFold fold) : m_path(std::move(path)), m_fold(std::move(fold)) {}

SearchIndex::~SearchIndex() = default;

SearchIndexError SearchIndex::error(const QString &what) const
{
    const QString reason = m_db ? QString::fromUtf8(sqlite3_errmsg(m_db.get())) : QString();
    return {m_path, reason.isEmpty() ? what : what + QStringLiteral(": ") + reason};
}

expected<void, SearchIndexError> SearchIndex::open()
{
    m_db.reset();
    m_docs.clear();
    QDir().mkpath(QFileInfo(m_path).absolutePath());
    for (int attempt = 0; attempt < 2; ++attempt) {
        sqlite3 *db = nullptr;
        const int opened = sqlite3_open_v2(QFile::encodeName(m_path).constData(), &db,
                                           SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
        m_db.reset(db);
        if (opened == SQLITE_OK) {
            auto ready = create();
            if (ready)
                ready = loadDocs();
            if (ready)
                return {};
            if (attempt == 1)
                return ready;
        } else if (attempt == 1) {
            return unexpected(error(QStringLiteral("open")));
        }
        // Damaged, or from other rules: it is only a cache, so start again.
        discard();
    }
    return unexpected(error(QStringLiteral("open")));
}

void SearchIndex::discard()
{
    m_db.reset();
    m_docs.clear();
    for (const char *suffix : {"", "-wal", "-shm", "-journal"})
        QFile::remove(m_path + QLatin1String(suffix));
}

expected<void, SearchIndexError> SearchIndex::create()
{
    sqlite3 *db = m_db.get();
    sqlite3_busy_timeout(db, 2000);
    if (!registerFirstMatch(db))
        return unexpected(error(QStringLiteral("no FTS5")));
    const QString flavour = QStringLiteral("%1 %2").arg(kLayout).arg(m_fold.flavour());
    if (Statement read = prepare(db, "SELECT value FROM meta WHERE key = 'layout'")) {
        if (sqlite3_step(read.get()) == SQLITE_ROW && columnText(read.get(), 0) == flavour)
            return {};
        return unexpected(SearchIndexError{m_path, QStringLiteral("written under other rules")});
    }
    // Large pages suit the long lists of common trigrams; the database is a cache, so a crash may lose the
    // last transaction without harm.
    const QByteArray schema = "PRAGMA page_size = 16384;"
                              "PRAGMA journal_mode = WAL;"
                              "BEGIN;"
                              "CREATE TABLE meta (key TEXT PRIMARY KEY, value TEXT);"
                              "CREATE TABLE docs (id INTEGER PRIMARY KEY, folder TEXT UNIQUE NOT NULL, "
                              "stamp BLOB NOT NULL, body BLOB);"
                              "CREATE VIRTUAL TABLE fts USING fts5(body, content='', detail=full, "
                              "tokenize='trigram case_sensitive 1');"
                              "CREATE VIRTUAL TABLE grams USING fts5(g, content='', detail=none, tokenize='ascii');"
                              "INSERT INTO meta VALUES ('layout', '" +
                              flavour.toUtf8() + "');COMMIT;";
    if (sqlite3_exec(db, schema.constData(), nullptr, nullptr, nullptr) != SQLITE_OK)
        return unexpected(error(QStringLiteral("create")));
    return {};
}

expected<void, SearchIndexError> SearchIndex::loadDocs()
{
    sqlite3 *db = m_db.get();
    sqlite3_exec(db,
                 "PRAGMA journal_mode = WAL; PRAGMA synchronous = NORMAL; PRAGMA cache_size = -65536;"
                 "PRAGMA mmap_size = 1073741824;"
                 "CREATE VIRTUAL TABLE IF NOT EXISTS temp.qm_vocab USING fts5vocab(main, 'fts', 'row');",
                 nullptr, nullptr, nullptr);
    m_instances.clear();
    Statement read = prepare(db, "SELECT id, folder, stamp, body IS NOT NULL FROM docs");
    if (!read)
        return unexpected(error(QStringLiteral("read")));
    int step = SQLITE_ROW;
    while ((step = sqlite3_step(read.get())) == SQLITE_ROW) {
        m_docs.insert(columnText(read.get(), 1), Doc{sqlite3_column_int64(read.get(), 0), columnBytes(read.get(), 2),
                                                     sqlite3_column_int(read.get(), 3) != 0});
    }
    if (step != SQLITE_DONE)
        return unexpected(error(QStringLiteral("read")));
    return {};
}

QByteArray SearchIndex::stamp(int directory, const char *relative)
{
    struct stat info {};
    if (::fstatat(directory, relative, &info, 0) != 0)
        return QByteArrayLiteral("-");
    const qint64 fields[] = {qint64(info.st_size), qint64(info.st_mtim.tv_sec) * 1'000'000'000 + info.st_mtim.tv_nsec,
                             qint64(info.st_ino)};
    return QByteArray(reinterpret_cast<const char *>(fields), sizeof fields);
}

QByteArray SearchIndex::stamp(const QString &folder)
{
    const QByteArray path = QFile::encodeName(folder + u'/' + QLatin1String(kTranscriptFileName));
    return stamp(AT_FDCWD, path.constData());
}

const SearchIndex::Doc *SearchIndex::doc(const QString &folder) const
{
    const auto it = m_docs.constFind(folder);
    return it == m_docs.cend() ? nullptr : &*it;
}

expected<void, SearchIndexError> SearchIndex::begin()
{
    if (!m_db || sqlite3_exec(m_db.get(), "BEGIN", nullptr, nullptr, nullptr) != SQLITE_OK)
        return unexpected(error(QStringLiteral("begin")));
    return {};
}

expected<void, SearchIndexError> SearchIndex::commit()
{
    if (!m_db || sqlite3_exec(m_db.get(), "COMMIT", nullptr, nullptr, nullptr) != SQLITE_OK) {
        if (m_db)
            sqlite3_exec(m_db.get(), "ROLLBACK", nullptr, nullptr, nullptr);
        // What the rolled-back transaction changed is no longer true of the database.
        m_docs.clear();
        if (m_db)
            loadDocs();
        return unexpected(error(QStringLiteral("commit")));
    }
    return {};
}

std::optional<QString> SearchIndex::body(qint64 row)
{
    Statement read = prepare(m_db.get(), "SELECT body FROM docs WHERE id = ?1");
    if (!read)
        return std::nullopt;
    sqlite3_bind_int64(read.get(), 1, row);
    if (sqlite3_step(read.get()) != SQLITE_ROW || sqlite3_column_type(read.get(), 0) == SQLITE_NULL)
        return std::nullopt;
    const QByteArray packed = columnBytes(read.get(), 0);
    const QByteArray utf8 = qUncompress(packed);
    if (utf8.isEmpty() && !packed.isEmpty())
        return std::nullopt;
    return QString::fromUtf8(utf8);
}

expected<void, SearchIndexError> SearchIndex::removeText(qint64 row)
{
    // Contentless tables forget a row only when told exactly what was indexed for it.
    const std::optional<QString> old = body(row);
    if (!old)
        return unexpected(error(QStringLiteral("read an indexed transcript")));
    const QString folded = m_fold(*old);
    Statement text = prepare(m_db.get(), "INSERT INTO fts(fts, rowid, body) VALUES('delete', ?1, ?2)");
    Statement grams = prepare(m_db.get(), "INSERT INTO grams(grams, rowid, g) VALUES('delete', ?1, ?2)");
    if (!text || !grams)
        return unexpected(error(QStringLiteral("prepare")));
    sqlite3_bind_int64(text.get(), 1, row);
    bindText(text.get(), 2, folded);
    sqlite3_bind_int64(grams.get(), 1, row);
    bindText(grams.get(), 2, gramsOf(folded));
    if (sqlite3_step(text.get()) != SQLITE_DONE || sqlite3_step(grams.get()) != SQLITE_DONE)
        return unexpected(error(QStringLiteral("remove a transcript")));
    return {};
}

expected<void, SearchIndexError> SearchIndex::update(const QString &folder, const QByteArray &stamp,
                                                     const std::optional<Transcript> &transcript)
{
    if (!m_db)
        return unexpected(error(QStringLiteral("closed")));
    const auto known = m_docs.constFind(folder);
    if (known != m_docs.cend() && known->hasText) {
        if (auto removed = removeText(known->row); !removed)
            return removed;
    }

    const std::optional<QString> text =
        transcript && !transcript->segments.isEmpty() ? std::optional(bodyOf(*transcript)) : std::nullopt;
    Statement write = prepare(m_db.get(), "INSERT INTO docs(id, folder, stamp, body) VALUES(?1, ?2, ?3, ?4) "
                                          "ON CONFLICT(folder) DO UPDATE SET stamp = ?3, body = ?4 RETURNING id");
    if (!write)
        return unexpected(error(QStringLiteral("prepare")));
    if (known != m_docs.cend())
        sqlite3_bind_int64(write.get(), 1, known->row);
    else
        sqlite3_bind_null(write.get(), 1);
    bindText(write.get(), 2, folder);
    sqlite3_bind_blob(write.get(), 3, stamp.constData(), int(stamp.size()), SQLITE_TRANSIENT);
    if (text) {
        const QByteArray packed = qCompress(text->toUtf8(), 6);
        sqlite3_bind_blob(write.get(), 4, packed.constData(), int(packed.size()), SQLITE_TRANSIENT);
    } else {
        sqlite3_bind_null(write.get(), 4);
    }
    if (sqlite3_step(write.get()) != SQLITE_ROW)
        return unexpected(error(QStringLiteral("write")));
    const qint64 row = sqlite3_column_int64(write.get(), 0);
    write.reset();

    if (text) {
        const QString folded = m_fold(*text);
        Statement insertText = prepare(m_db.get(), "INSERT INTO fts(rowid, body) VALUES(?1, ?2)");
        Statement insertGrams = prepare(m_db.get(), "INSERT INTO grams(rowid, g) VALUES(?1, ?2)");
        if (!insertText || !insertGrams)
            return unexpected(error(QStringLiteral("prepare")));
        sqlite3_bind_int64(insertText.get(), 1, row);
        bindText(insertText.get(), 2, folded);
        sqlite3_bind_int64(insertGrams.get(), 1, row);
        bindText(insertGrams.get(), 2, gramsOf(folded));
        if (sqlite3_step(insertText.get()) != SQLITE_DONE || sqlite3_step(insertGrams.get()) != SQLITE_DONE)
            return unexpected(error(QStringLiteral("index")));
    }
    m_docs.insert(folder, Doc{row, stamp, text.has_value()});
    return {};
}

expected<void, SearchIndexError> SearchIndex::prune()
{
    QList<QString> gone;
    for (auto it = m_docs.cbegin(); it != m_docs.cend(); ++it) {
        if (!QFileInfo::exists(it.key()))
            gone.append(it.key());
    }
    for (const QString &folder : gone) {
        const Doc doc = m_docs.value(folder);
        if (doc.hasText) {
            if (auto removed = removeText(doc.row); !removed)
                return removed;
        }
        Statement drop = prepare(m_db.get(), "DELETE FROM docs WHERE id = ?1");
        if (!drop)
            return unexpected(error(QStringLiteral("prepare")));
        sqlite3_bind_int64(drop.get(), 1, doc.row);
        if (sqlite3_step(drop.get()) != SQLITE_DONE)
            return unexpected(error(QStringLiteral("forget a folder")));
        m_docs.remove(folder);
    }
    return {};
}

expected<SearchIndex::Matches, SearchIndexError> SearchIndex::find(const QString &foldedQuery)
{
    if (!m_db)
        return unexpected(error(QStringLiteral("closed")));
    const QList<uint> points = foldedQuery.toUcs4();
    if (points.isEmpty() || points.contains(uint(kSeparator)))
        return unexpected(SearchIndexError{m_path, QStringLiteral("a query the index can't answer")});
    return points.size() < 3 ? findShort(points) : findTrigrams(points);
}

expected<SearchIndex::Matches, SearchIndexError> SearchIndex::findTrigrams(const QList<uint> &query)
{
    // Trigrams every three characters, and the last three, cover the query; their positions prove it.
    QList<qsizetype> offsets;
    for (qsizetype at = 0; at + 3 <= query.size(); at += 3)
        offsets.append(at);
    if (offsets.last() + 3 < query.size())
        offsets.append(query.size() - 3);
    // The rarest trigrams first: the check of a transcript that lacks the query then stops early, having read
    // only their short position lists. How rare they are is counted once per trigram and kept.
    QList<std::pair<qint64, qsizetype>> order;
    for (const qsizetype at : offsets)
        order.append({instances(QString::fromUcs4(reinterpret_cast<const char32_t *>(query.constData() + at), 3)), at});
    std::stable_sort(order.begin(), order.end(), [](const auto &a, const auto &b) { return a.first < b.first; });
    QString expression;
    QByteArray offsetText;
    for (const auto &[count, at] : order) {
        QString trigram = QString::fromUcs4(reinterpret_cast<const char32_t *>(query.constData() + at), 3);
        trigram.replace(u'"', QStringLiteral("\"\""));
        if (!expression.isEmpty()) {
            expression += u' ';
            offsetText += ',';
        }
        expression += u'"' + trigram + u'"';
        offsetText += QByteArray::number(at);
    }
    Statement read = prepare(m_db.get(), "SELECT rowid, qm_first(fts, ?2) FROM fts WHERE fts MATCH ?1");
    if (!read)
        return unexpected(error(QStringLiteral("prepare")));
    bindText(read.get(), 1, expression);
    sqlite3_bind_text(read.get(), 2, offsetText.constData(), int(offsetText.size()), SQLITE_TRANSIENT);
    Matches matches;
    int step = SQLITE_ROW;
    while ((step = sqlite3_step(read.get())) == SQLITE_ROW) {
        const int at = sqlite3_column_int(read.get(), 1);
        if (at >= 0)
            matches.insert(sqlite3_column_int64(read.get(), 0), at);
    }
    if (step != SQLITE_DONE)
        return unexpected(error(QStringLiteral("search")));
    return matches;
}

qint64 SearchIndex::instances(const QString &trigram)
{
    const auto known = m_instances.constFind(trigram);
    if (known != m_instances.cend())
        return *known;
    qint64 count = 0;
    if (Statement read = prepare(m_db.get(), "SELECT cnt FROM temp.qm_vocab WHERE term = ?1")) {
        bindText(read.get(), 1, trigram);
        if (sqlite3_step(read.get()) == SQLITE_ROW)
            count = sqlite3_column_int64(read.get(), 0);
    }
    m_instances.insert(trigram, count);
    return count;
}

expected<SearchIndex::Matches, SearchIndexError> SearchIndex::findShort(const QList<uint> &query)
{
    Statement read = prepare(m_db.get(), "SELECT rowid FROM grams WHERE grams MATCH ?1");
    if (!read)
        return unexpected(error(QStringLiteral("prepare")));
    bindText(read.get(), 1, gramToken(query));
    Matches matches;
    int step = SQLITE_ROW;
    while ((step = sqlite3_step(read.get())) == SQLITE_ROW)
        matches.insert(sqlite3_column_int64(read.get(), 0), -1);
    if (step != SQLITE_DONE)
        return unexpected(error(QStringLiteral("search")));
    return matches;
}

std::optional<std::pair<int, Snippet>> SearchIndex::snippet(qint64 row, const QString &foldedQuery)
{
    if (!m_db)
        return std::nullopt;
    const std::optional<QString> text = body(row);
    if (!text)
        return std::nullopt;
    const QList<QStringView> segments = QStringView(*text).split(QChar(kSeparator));
    for (qsizetype i = 0; i < segments.size(); ++i) {
        if (std::optional<Snippet> found = findIn(segments.at(i).toString(), foldedQuery, m_fold))
            return std::pair(int(i), *found);
    }
    return std::nullopt;
}

} // namespace qm::ui
