// The library's search against the direct scan on a generated library, through the index and around it, and
// the list model that shows its results.

#include "library/jsoncoding.h"
#include "library/recordingstore.h"
#include "support/samples.h"
#include "ui/library/librarylistmodel.h"
#include "ui/library/librarysearch.h"
#include "ui/library/libraryselection.h"
#include "ui/library/searchindex.h"

#include <QAbstractItemModelTester>
#include <QDir>
#include <QFile>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

using namespace qm;
using namespace qm::ui;

namespace {

struct Sample {
    QString title;
    QStringList segments; // none: no transcript
};

// Titles and transcripts chosen so that each query below separates some recordings from others.
const QList<Sample> kSamples{
    {QStringLiteral("Budget review"), {QStringLiteral("We cut the travel budget."), QStringLiteral("Agreed.")}},
    {QStringLiteral("Design crit"), {QStringLiteral("The BUDGET line moves to Q3."), QStringLiteral("Fine by me")}},
    {QStringLiteral("École d'été"), {QStringLiteral("Rendez-vous à l'ÉCOLE à huit heures.")}},
    {QStringLiteral("Café"), {QStringLiteral("Cafe\u0301 au lait for everyone.")}}, // decomposed é
    {QStringLiteral("פגישת צוות"), {QStringLiteral("שלום לכולם, נתחיל בתקציב."), QStringLiteral("תודה")}},
    {QStringLiteral("Standup"), {QStringLiteral("Nothing new"), QStringLiteral("Zebra crossings are zany.")}},
    {QStringLiteral("No transcript"), {}},
    {QStringLiteral("Empty transcript"), {QString()}},
    {QStringLiteral("Quarterly"), {QStringLiteral("Hello"), QStringLiteral("there")}}, // "othere" spans segments
};

TranscriptSegment segment(const QString &text)
{
    TranscriptSegment s;
    s.end = 1;
    s.speaker = QStringLiteral("Speaker 1");
    s.text = text;
    return s;
}

} // namespace

class TestLibrarySearch : public QObject {
    Q_OBJECT

    std::unique_ptr<QTemporaryDir> m_dir;
    std::unique_ptr<RecordingStore> m_store;
    std::unique_ptr<LibrarySearch> m_search;

    QString root() const { return m_dir->filePath(QStringLiteral("Library")); }
    QString indexPath() const { return m_dir->filePath(QStringLiteral("cache/search.sqlite")); }

    QList<QUuid> searched(const QString &query)
    {
        m_search->setQuery(QString());
        QSignalSpy answered(m_search.get(), &LibrarySearch::hitsChanged);
        m_search->setQuery(query);
        if (searchQuery(query).isEmpty())
            return allIds();
        if (answered.isEmpty() && !answered.wait(20000))
            return {QUuid()};
        QList<QUuid> ids;
        for (const Recording &r : m_store->recordings()) {
            if (m_search->hits()->contains(r.id))
                ids.append(r.id);
        }
        return ids;
    }

    QList<QUuid> scanned(const QString &query) const
    {
        QList<SearchEntry> entries;
        for (const Recording &r : m_store->recordings())
            entries.append({r.id, r.title, r.folderPath()});
        const std::optional<QList<SearchHit>> hits = scanLibrary(entries, query, SearchFold());
        QList<QUuid> ids;
        for (const SearchHit &hit : *hits)
            ids.append(hit.id);
        return ids;
    }

    QList<QUuid> allIds() const
    {
        QList<QUuid> ids;
        for (const Recording &r : m_store->recordings())
            ids.append(r.id);
        return ids;
    }

    Recording byTitle(const QString &title) const
    {
        for (const Recording &r : m_store->recordings()) {
            if (r.title == title)
                return r;
        }
        return {};
    }

    void retranscribe(const QString &title, const QString &text)
    {
        const Recording r = byTitle(title);
        Transcript t = test::sampleTranscript();
        t.segments = {segment(text)};
        QVERIFY(m_store->saveTranscript(t, r).has_value());
    }

private Q_SLOTS:
    void init()
    {
        m_dir = std::make_unique<QTemporaryDir>();
        const QDateTime start(QDate(2025, 5, 1), QTime(9, 0), Qt::UTC);
        for (qsizetype i = 0; i < kSamples.size(); ++i) {
            Recording r = test::sampleRecording();
            r.id = QUuid::createUuid();
            r.title = kSamples.at(i).title;
            r.startedAt = start.addDays(i);
            const QString folder = test::writeRecordingFolder(root(), QStringLiteral("R%1").arg(i), r);
            r.folder = QUrl::fromLocalFile(folder);
            if (kSamples.at(i).segments.isEmpty())
                continue;
            Transcript t = test::sampleTranscript();
            t.segments.clear();
            for (const QString &text : kSamples.at(i).segments)
                t.segments.append(segment(text));
            QVERIFY(writeFileAtomically(folder + QStringLiteral("/transcript.json"), JsonCoding::encode(t)));
        }
        QFile damaged(root() + QStringLiteral("/R6/transcript.json"));
        QVERIFY(damaged.open(QIODevice::WriteOnly) && damaged.write("{ not json") > 0);
        damaged.close();
        m_store = std::make_unique<RecordingStore>([this] { return root(); });
        m_store->reload();
        QCOMPARE(m_store->count(), kSamples.size());
        m_search = std::make_unique<LibrarySearch>(*m_store, indexPath());
    }

    void cleanup()
    {
        m_search.reset();
        m_store.reset();
        m_dir.reset();
    }

    void resultsEqualTheScan_data()
    {
        QTest::addColumn<QString>("change");
        QTest::addColumn<QString>("query");
        QTest::addColumn<int>("expected");
        const QString none;
        QTest::newRow("title") << none << QStringLiteral("review") << 1;
        QTest::newRow("transcript only, any case") << none << QStringLiteral("bUdGeT") << 2;
        QTest::newRow("accent in either case") << none << QStringLiteral("école") << 1;
        QTest::newRow("composed query, decomposed text") << none << QStringLiteral("café au") << 1;
        QTest::newRow("hebrew") << none << QStringLiteral("בתקציב") << 1;
        QTest::newRow("hebrew, two letters") << none << QStringLiteral("תו") << 1;
        QTest::newRow("one letter") << none << QStringLiteral("z") << 2;
        QTest::newRow("two letters") << none << QStringLiteral("ze") << 1;
        QTest::newRow("spaces only") << none << QStringLiteral("   ") << int(kSamples.size());
        QTest::newRow("surrounding spaces") << none << QStringLiteral("  zany ") << 1;
        QTest::newRow("quotes are text") << none << QStringLiteral("\"budget") << 0;
        QTest::newRow("not across segments") << none << QStringLiteral("othere") << 0;
        QTest::newRow("miss") << none << QStringLiteral("xylophone") << 0;
        QTest::newRow("re-transcribed") << QStringLiteral("retranscribe") << QStringLiteral("marmalade") << 1;
        QTest::newRow("re-transcription drops words") << QStringLiteral("retranscribe") << QStringLiteral("zebra") << 0;
        QTest::newRow("renamed") << QStringLiteral("rename") << QStringLiteral("kickoff") << 1;
        QTest::newRow("deleted folder") << QStringLiteral("delete") << QStringLiteral("budget") << 1;
        QTest::newRow("damaged cache") << QStringLiteral("damage cache") << QStringLiteral("budget") << 2;
        QTest::newRow("deleted cache") << QStringLiteral("delete cache") << QStringLiteral("zany") << 1;
    }

    void resultsEqualTheScan()
    {
        QFETCH(QString, change);
        QFETCH(QString, query);
        QFETCH(int, expected);
        QVERIFY(m_search->waitForIndex() > 0);

        if (change == QLatin1String("retranscribe")) {
            retranscribe(QStringLiteral("Standup"), QStringLiteral("Toast with marmalade."));
            m_search->transcriptsChanged();
        } else if (change == QLatin1String("rename")) {
            Recording r = byTitle(QStringLiteral("Quarterly"));
            r.title = QStringLiteral("Kickoff");
            QVERIFY(m_store->save(r).has_value());
        } else if (change == QLatin1String("delete")) {
            // Outside the app: the store still lists it, its transcript is gone.
            QVERIFY(QDir(byTitle(QStringLiteral("Design crit")).folderPath()).removeRecursively());
        } else if (change.endsWith(QLatin1String("cache"))) {
            m_search.reset();
            if (change == QLatin1String("damage cache")) {
                QFile file(indexPath());
                QVERIFY(file.open(QIODevice::ReadWrite));
                QVERIFY(file.seek(4096) && file.write(QByteArray(8192, 'x')) == 8192);
            } else {
                QVERIFY(QFile::remove(indexPath()));
            }
            m_search = std::make_unique<LibrarySearch>(*m_store, indexPath());
        }

        // Straight after the change (transcripts read directly where the index is behind), then once the index
        // has caught up.
        const QList<QUuid> reference = scanned(query);
        QCOMPARE(reference.size(), expected);
        QCOMPARE(searched(query), reference);
        m_search->waitForIndex();
        QCOMPARE(searched(query), reference);
    }

    void indexAnswersLikeTheScan()
    {
        // The index itself, without the per-file checks around it: every indexed transcript is found by each of
        // its own three-letter pieces and by two-letter ones.
        QVERIFY(m_search->waitForIndex() > 0);
        m_search.reset();
        SearchIndex index(indexPath(), SearchFold());
        QVERIFY(index.open().has_value());
        QCOMPARE(index.docCount(), kSamples.size());
        const auto found = index.find(SearchFold()(QStringLiteral("Travel Budget")));
        QVERIFY(found.has_value());
        QCOMPARE(found->size(), 1);
        const auto snippet = index.snippet(found->constBegin().key(), QStringLiteral("travel budget"));
        QVERIFY(snippet);
        QCOMPARE(snippet->first, 0);
        QCOMPARE(snippet->second.text.mid(snippet->second.matchStart, snippet->second.matchLength),
                 QStringLiteral("travel budget"));
    }

    void theListShowsTheHitsUnderTheModelTester()
    {
        LibraryListModel model(*m_store, *m_search);
        QAbstractItemModelTester tester(&model, QAbstractItemModelTester::FailureReportingMode::QtTest);
        LibrarySelection selection(*m_store, model, RecordingStore::IdRole);
        QCOMPARE(model.rowCount(), kSamples.size());

        QSignalSpy answered(m_search.get(), &LibrarySearch::hitsChanged);
        m_search->setQuery(QStringLiteral("budget"));
        QVERIFY(answered.wait(20000));
        QCOMPARE(model.rowCount(), 2);
        const QModelIndex transcriptHit = model.index(1, 0);
        QCOMPARE(transcriptHit.data().toString(), QStringLiteral("Budget review"));
        QVERIFY(model.index(0, 0).data(LibraryListModel::TranscriptHitRole).toBool());
        QVERIFY(model.index(1, 0).data(LibraryListModel::TitleMarkRole).isValid());
        // Snippets of transcript hits found through the index come on request.
        QTRY_VERIFY(model.index(0, 0).data(LibraryListModel::SnippetRole).isValid());
        const auto snippet = model.index(0, 0).data(LibraryListModel::SnippetRole).value<Snippet>();
        QCOMPARE(snippet.text.mid(snippet.matchStart, snippet.matchLength), QStringLiteral("BUDGET"));

        // Deleting the selected recording selects the next one shown; a reload keeps a selection that still exists.
        selection.select(model.idAt(0));
        const QUuid next = model.idAt(1);
        m_store->deleteRecording(*m_store->recording(model.idAt(0)));
        QCOMPARE(selection.selected(), std::optional(next));
        m_store->reload();
        QTRY_COMPARE(model.rowCount(), 1);
        QCOMPARE(selection.selected(), std::optional(next));

        m_search->setQuery(QString());
        QCOMPARE(model.rowCount(), m_store->count());
        model.setActivities({{next, QStringLiteral("Transcribing…")}});
        QCOMPARE(model.index(model.indexOf(next).row(), 0).data(LibraryListModel::StatusRole).value<RowStatus>().text,
                 QStringLiteral("Transcribing…"));
    }
};

QTEST_GUILESS_MAIN(TestLibrarySearch)
#include "tst_librarysearch.moc"
