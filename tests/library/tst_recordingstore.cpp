#include "library/jsoncoding.h"
#include "library/recordingstore.h"
#include "support/samples.h"

#include <QAbstractItemModelTester>
#include <QDir>
#include <QFile>
#include <QSignalSpy>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

using namespace qm;

namespace {

QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

} // namespace

class TestRecordingStore : public QObject {
    Q_OBJECT

    std::unique_ptr<QTemporaryDir> m_dir;
    QString m_root;
    QDateTime m_now;

    std::unique_ptr<RecordingStore> makeStore()
    {
        auto store = std::make_unique<RecordingStore>([this] { return m_root; }, nullptr, [this] { return m_now; });
        new QAbstractItemModelTester(store.get(), QAbstractItemModelTester::FailureReportingMode::QtTest, store.get());
        return store;
    }

private Q_SLOTS:
    void initTestCase()
    {
        // Keeps the Trash away from the user's own, and on the same file system as the library below.
        QStandardPaths::setTestModeEnabled(true);
        const QString data = QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation);
        QDir().mkpath(data);
        m_dir = std::make_unique<QTemporaryDir>(data + QStringLiteral("/library-XXXXXX"));
        QVERIFY(m_dir->isValid());
    }

    void init()
    {
        m_root = m_dir->filePath(QStringLiteral("Library %1").arg(QString::fromLatin1(QTest::currentTestFunction())));
        m_now = QDateTime(QDate(2025, 3, 4), QTime(9, 7, 30));
    }

    void reloadCreatesMissingRootAndSkipsWhatIsNotARecording()
    {
        auto store = makeStore();
        store->reload();
        QVERIFY(QFileInfo(m_root).isDir());
        QCOMPARE(store->count(), 0);

        const Recording good = test::sampleRecording();
        test::writeRecordingFolder(m_root, QStringLiteral("good"), good);
        const QByteArray unknownState = QByteArray(JsonCoding::encode(good)).replace("\"ready\"", "\"paused\"");
        const QString damaged = test::writeRecordingFolder(m_root, QStringLiteral("unknown state"), unknownState);
        test::writeRecordingFolder(m_root, QStringLiteral("truncated"), JsonCoding::encode(good).left(40));
        QDir(m_root).mkdir(QStringLiteral("foreign folder"));
        QFile plain(QDir(m_root).filePath(QStringLiteral("notes.txt")));
        QVERIFY(plain.open(QIODevice::WriteOnly));
        plain.write("not a recording");
        plain.close();
        test::writeRecordingFolder(m_root, QStringLiteral(".hidden"), test::sampleRecording(QStringLiteral("/")));

        store->reload();
        QCOMPARE(store->count(), 1);
        QCOMPARE(store->recordings().first().id, good.id);
        QCOMPARE(store->recordings().first().folderPath(), QDir(m_root).filePath(QStringLiteral("good")));
        // Damaged metadata is never repaired or moved.
        QCOMPARE(readFile(damaged + QStringLiteral("/recording.json")), unknownState);
    }

    void reloadSortsNewestFirstAndKeepsListingOrderForEqualStarts()
    {
        Recording older = test::sampleRecording();
        Recording newer = test::sampleRecording();
        newer.startedAt = older.startedAt.addSecs(60);
        QList<Recording> twins;
        for (const char *name : {"twin a", "twin b", "twin c"}) {
            Recording twin = test::sampleRecording();
            twin.title = QLatin1String(name);
            twin.startedAt = older.startedAt.addSecs(30);
            test::writeRecordingFolder(m_root, twin.title, twin);
            twins.append(twin);
        }
        test::writeRecordingFolder(m_root, QStringLiteral("older"), older);
        test::writeRecordingFolder(m_root, QStringLiteral("newer"), newer);

        auto store = makeStore();
        QSignalSpy changed(store.get(), &RecordingStore::recordingsChanged);
        store->reload();
        QCOMPARE(changed.count(), 1);
        QCOMPARE(store->count(), 5);
        QCOMPARE(store->recordings().first().id, newer.id);
        QCOMPARE(store->recordings().last().id, older.id);

        // Equal starts stay in the order the directory listed them.
        const QStringList listed = QDir(m_root).entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::NoSort);
        QStringList expected;
        for (const QString &name : listed) {
            if (name.startsWith(QLatin1String("twin")))
                expected.append(name);
        }
        QStringList actual;
        for (int i = 1; i <= 3; ++i)
            actual.append(store->recordings().at(i).title);
        QCOMPARE(actual, expected);
    }

    void createNamesFoldersAndCountsCollisions()
    {
        auto store = makeStore();
        store->reload();
        const auto first = store->create(RecordingSource::zoom, false);
        const auto second = store->create(RecordingSource::zoom, true);
        const auto third = store->create(RecordingSource::zoom, false);
        const auto other = store->create(RecordingSource::inPerson, false);
        QVERIFY(first && second && third && other);

        QCOMPARE(QFileInfo(first->folderPath()).fileName(), QStringLiteral("2025-03-04 09-07 Zoom Meeting"));
        QCOMPARE(QFileInfo(second->folderPath()).fileName(), QStringLiteral("2025-03-04 09-07 Zoom Meeting 2"));
        QCOMPARE(QFileInfo(third->folderPath()).fileName(), QStringLiteral("2025-03-04 09-07 Zoom Meeting 3"));
        QCOMPARE(QFileInfo(other->folderPath()).fileName(), QStringLiteral("2025-03-04 09-07 In-Person Meeting"));
        QVERIFY(QFileInfo(first->folderPath() + QStringLiteral("/Source")).isDir());

        QVERIFY(first->title.startsWith(QStringLiteral("Zoom Meeting – ")));
        QVERIFY(second->hasVideo);
        QCOMPARE(first->state, ProcessingState::recording);
        QCOMPARE(first->startedAt, m_now);

        // The newest is first, and what was written reads back as the same record.
        QCOMPARE(store->recordings().first().id, other->id);
        const auto onDisk =
            JsonCoding::decodeRecording(readFile(first->folderPath() + QStringLiteral("/recording.json")));
        QVERIFY(onDisk);
        QCOMPARE(onDisk->id, first->id);
        QCOMPARE(onDisk->title, first->title);
    }

    void createReportsTheFileSystemsError()
    {
        QFile blocker(m_root);
        QVERIFY(blocker.open(QIODevice::WriteOnly)); // a plain file where the library folder should be
        blocker.close();
        auto store = makeStore();
        const auto made = store->create(RecordingSource::systemAudio, false);
        QVERIFY(!made);
        QVERIFY(made.error().description().contains(QStringLiteral("Online Meeting")));
        QCOMPARE(store->count(), 0);
    }

    void saveReplacesInPlaceOrPutsNewRecordsFirst()
    {
        auto store = makeStore();
        Recording a = test::sampleRecording(test::writeRecordingFolder(m_root, QStringLiteral("a"), QByteArray()));
        Recording b = test::sampleRecording(test::writeRecordingFolder(m_root, QStringLiteral("b"), QByteArray()));
        b.startedAt = a.startedAt.addDays(1);
        QVERIFY(store->save(a));
        QVERIFY(store->save(b));
        QCOMPARE(store->recordings().first().id, b.id);

        // An older record not yet listed still goes first; the next reload sorts it into place.
        Recording old = test::sampleRecording(test::writeRecordingFolder(m_root, QStringLiteral("c"), QByteArray()));
        old.startedAt = a.startedAt.addDays(-10);
        QVERIFY(store->save(old));
        QCOMPARE(store->recordings().first().id, old.id);

        // A known record keeps its row even when its start changes.
        a.title = QStringLiteral("Renamed");
        a.startedAt = a.startedAt.addDays(30);
        QSignalSpy rowChanged(store.get(), &QAbstractItemModel::dataChanged);
        QVERIFY(store->save(a));
        QCOMPARE(store->count(), 3);
        QCOMPARE(store->recordings().at(2).title, QStringLiteral("Renamed"));
        QCOMPARE(rowChanged.count(), 1);
        QCOMPARE(store->recording(a.id)->title, QStringLiteral("Renamed"));
        QVERIFY(!store->recording(QUuid::createUuid()));

        store->reload();
        QCOMPARE(store->recordings().first().id, a.id);
        QCOMPARE(store->recordings().last().id, old.id);
    }

    void deleteMovesTheFolderToTheTrash()
    {
        auto store = makeStore();
        store->reload();
        const auto made = store->create(RecordingSource::zoom, false);
        QVERIFY(made);
        const QString folder = made->folderPath();
        store->deleteRecording(*made);
        QCOMPARE(store->count(), 0);
        QVERIFY(!QFileInfo::exists(folder));
        const QString trash = QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation) +
                              QStringLiteral("/Trash/files/") + QFileInfo(folder).fileName();
        QVERIFY2(QFileInfo(trash + QStringLiteral("/recording.json")).isFile(), qPrintable(trash));
    }

    void transcriptFilesAreWrittenTogetherAndReadBack()
    {
        auto store = makeStore();
        store->reload();
        const auto made = store->create(RecordingSource::systemAudio, false);
        QVERIFY(made);
        Transcript transcript = test::sampleTranscript();
        transcript.speakerNames.insert(QStringLiteral("Speaker 1"), QStringLiteral("Dana"));
        QVERIFY(store->saveTranscript(transcript, *made));

        const QDir folder(made->folderPath());
        QCOMPARE(QString::fromUtf8(readFile(folder.filePath(QStringLiteral("Transcript.md")))),
                 transcript.markdown(*made));
        QCOMPARE(QString::fromUtf8(readFile(folder.filePath(QStringLiteral("Transcript.txt")))),
                 transcript.plainText(true));
        const auto back = store->transcript(*made);
        QVERIFY(back);
        QCOMPARE(back->speakerNames, transcript.speakerNames);
        QCOMPARE(back->segments, transcript.segments);
    }
};

QTEST_GUILESS_MAIN(TestRecordingStore)
#include "tst_recordingstore.moc"
