#pragma once

#include "library/transcript.h"

#include <QList>
#include <QLocale>
#include <QString>
#include <QUuid>

#include <functional>
#include <optional>

namespace qm::ui {

// The comparison every library search uses: canonical composition (NFC), then case folding, with the Turkic
// dotted and dotless I where the locale asks for them. Folding keeps the UTF-16 length of composed text, so an
// offset into the folded text is the same offset into the composed original.
class SearchFold {
public:
    explicit SearchFold(const QLocale &locale = QLocale());

    QString operator()(const QString &text) const;
    // Names the folding rules, so that text folded under other rules (another locale, another Qt) is noticed.
    QString flavour() const;

private:
    bool m_turkic = false;
};

// What the search field holds, trimmed at both ends; empty means "list everything".
QString searchQuery(const QString &typed);

// A piece of matching text with the match inside it.
struct Snippet {
    QString text;
    qsizetype matchStart = -1; // within `text`; -1 when nothing is marked
    qsizetype matchLength = 0;

    bool operator==(const Snippet &) const = default;
};

// Up to about `width` characters of `composed` (NFC text) around the match of `length` at `at`, cut at word
// boundaries where it can be, with "…" where text was left out.
Snippet snippetAround(const QString &composed, qsizetype at, qsizetype length, int width = 90);

// Where `foldedQuery` occurs in `text` under SearchFold, or nothing.
std::optional<Snippet> findIn(const QString &text, const QString &foldedQuery, const SearchFold &fold, int width = 90);

// One recording as the search sees it: a copy taken on the main thread, safe to hand to the search thread.
struct SearchEntry {
    QUuid id;
    QString title;
    QString folder;
};

// One recording the search found. A transcript hit carries its first matching segment when the search knows
// it; snippets may also come later (LibrarySearch::snippetReady).
struct SearchHit {
    QUuid id;
    bool inTitle = false;
    int segment = -1;
    std::optional<Snippet> snippet;
};

// Reads "transcript.json" in `folder`; nothing when it is missing or can't be decoded.
std::optional<Transcript> readTranscript(const QString &folder);

// The first segment of `transcript` that contains `foldedQuery`, or -1.
int firstMatchingSegment(const Transcript &transcript, const QString &foldedQuery, const SearchFold &fold);

// The reference search: keeps, in order, each entry whose title contains the query, else whose transcript (read
// from its folder now) has a segment that does. An empty query keeps everything. Stops early, returning nothing,
// as soon as `cancelled` answers true.
std::optional<QList<SearchHit>> scanLibrary(const QList<SearchEntry> &entries, const QString &query,
                                            const SearchFold &fold, const std::function<bool()> &cancelled = {});

} // namespace qm::ui
