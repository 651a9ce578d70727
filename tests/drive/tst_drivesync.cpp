#include "drive/drivesync.h"

#include <QCoroTask>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

using namespace qm;
using namespace Qt::Literals::StringLiterals;
using namespace qm::DriveSync;

namespace {

// A mountinfo line as the kernel writes it; `point` and `source` already escaped.
QString mount(const QString &point, const QString &type, const QString &source,
              const QString &optional = u"shared:70"_s)
{
    return u"120 30 0:52 / %1 rw,nosuid,nodev,relatime %2 - %3 %4 rw,user_id=1000,group_id=1000"_s.arg(point, optional,
                                                                                                       type, source);
}

const QString kRootMount = u"22 1 8:1 / / rw,relatime shared:1 - ext4 /dev/sda1 rw"_s;
const QString kDriveConfig = u"[gdrive]\ntype = drive\nscope = drive\n\n[photos]\ntype=s3\nprovider = AWS\n"_s;

bool write(const QString &path, const QByteArray &bytes)
{
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size();
}

QByteArray read(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

} // namespace

class TestDriveSync : public QObject {
    Q_OBJECT

    std::unique_ptr<QTemporaryDir> m_dir;
    Recording m_recording;

    QString path(const QString &relative) const { return m_dir->filePath(relative); }
    Places places() const { return {path(u"mountinfo"_s), path(u"rclone.conf"_s), path(u"home"_s)}; }
    DriveOptions options(const QString &root = {}) const
    {
        DriveOptions o;
        o.driveRootPath = root;
        return o;
    }
    expected<void, SyncError> runSync(const DriveOptions &o)
    {
        return QCoro::waitFor(DriveSync::sync(m_recording, o, places()));
    }

private Q_SLOTS:
    void init()
    {
        m_dir = std::make_unique<QTemporaryDir>();
        QVERIFY(QDir().mkpath(path(u"home"_s)));
        // A finished recording with its media and a Markdown transcript, but no text export yet.
        const QString folder = path(u"Library/2026-03-02 10-00 Weekly sync"_s);
        QVERIFY(write(folder + u"/Weekly sync.m4a"_s, "media"));
        QVERIFY(write(folder + u"/Transcript.md"_s, "# Weekly sync"));
        QVERIFY(write(folder + u"/recording.json"_s, "{}"));
        QVERIFY(write(folder + u"/Source/microphone.m4a"_s, "track"));
        m_recording = Recording();
        m_recording.folder = QUrl::fromLocalFile(folder);
        m_recording.mediaFileName = u"Weekly sync.m4a"_s;
    }

    void detectsDriveFoldersInOrder_data()
    {
        QTest::addColumn<QStringList>("mounts");
        QTest::addColumn<QString>("config"); // null: no configuration file
        QTest::addColumn<QStringList>("insync");
        QTest::addColumn<QStringList>("expected"); // "~" is the home folder

        const QString rclone = u"fuse.rclone"_s;
        const QString ocamlfuse = u"fuse.google-drive-ocamlfuse"_s;
        QTest::newRow("only rclone remotes of type drive")
            << QStringList{kRootMount, mount(u"/mnt/photos"_s, rclone, u"photos:"_s),
                           mount(u"/mnt/gdrive"_s, rclone, u"gdrive:Work/Notes"_s),
                           mount(u"/mnt/adhoc"_s, rclone, u":drive,scope=drive:"_s, {}),
                           mount(u"/mnt/unknown"_s, rclone, u"elsewhere:"_s)}
            << kDriveConfig << QStringList() << QStringList{u"/mnt/gdrive"_s, u"/mnt/adhoc"_s};
        QTest::newRow("escaped mount points are decoded")
            << QStringList{mount(u"/home/me/Google\\040Drive\\011\\134x"_s, ocamlfuse, u"google-drive-ocamlfuse"_s,
                                 u"shared:3 master:1"_s)}
            << kDriveConfig << QStringList() << QStringList{u"/home/me/Google Drive\t\\x"_s};
        QTest::newRow("mounts as listed, then Insync")
            << QStringList{mount(u"/mnt/b"_s, ocamlfuse, u"google-drive-ocamlfuse"_s),
                           mount(u"/mnt/a"_s, rclone, u"gdrive:"_s)}
            << kDriveConfig << QStringList{u"me@example.com/My Drive/Notes"_s}
            << QStringList{u"/mnt/b"_s, u"/mnt/a"_s, u"~/Insync/me@example.com/My Drive"_s};
        QTest::newRow("no rclone configuration; older Insync")
            << QStringList{mount(u"/mnt/photos"_s, rclone, u"photos:"_s)} << QString()
            << QStringList{u"old@example.com/Notes"_s} << QStringList{u"/mnt/photos"_s, u"~/Insync/old@example.com"_s};
    }

    void detectsDriveFoldersInOrder()
    {
        QFETCH(QStringList, mounts);
        QFETCH(QString, config);
        QFETCH(QStringList, insync);
        QFETCH(QStringList, expected);
        QVERIFY(write(places().mountInfo, (mounts.join(QLatin1Char('\n')) + QLatin1Char('\n')).toUtf8()));
        if (!config.isNull())
            QVERIFY(write(places().rcloneConfig, config.toUtf8()));
        for (const QString &folder : insync)
            QVERIFY(QDir().mkpath(places().home + u"/Insync/"_s + folder));
        expected.replaceInStrings(QRegularExpression(u"^~"_s), places().home);
        QCOMPARE(detectedRoots(places()), expected);
    }

    void theChosenFolderWins()
    {
        QVERIFY(write(places().mountInfo, mount(u"/mnt/gdrive"_s, u"fuse.rclone"_s, u"gdrive:"_s).toUtf8()));
        QVERIFY(write(places().rcloneConfig, kDriveConfig.toUtf8()));
        QCOMPARE(resolvedRoot(options(u" \t/data/My Drive "_s), places()), u"/data/My Drive"_s);
        QCOMPARE(resolvedRoot(options(u"   "_s), places()), u"/mnt/gdrive"_s);
    }

    void driveNotFoundSaysHowToConnect()
    {
        const auto synced = runSync(options());
        QVERIFY(!synced);
        QCOMPARE(synced.error().kind, SyncError::Kind::driveNotFound);
        QCOMPARE(synced.error().description(),
                 QStringLiteral("No Google Drive folder was found. Connect Google Drive with rclone, Insync or your "
                                "desktop's online accounts, or choose your Drive folder in Settings."));
    }

    void copiesWhatTheOptionsInclude_data()
    {
        QTest::addColumn<QString>("subfolder");
        QTest::addColumn<bool>("media");
        QTest::addColumn<bool>("transcript");
        QTest::addColumn<QString>("destination"); // inside the Drive root
        QTest::addColumn<QStringList>("files");

        const QString name = u"2026-03-02 10-00 Weekly sync"_s;
        // Transcript.txt doesn't exist yet and is skipped.
        QTest::newRow("everything, default subfolder") << u"Quillmoor"_s << true << true << u"Quillmoor/"_s + name
                                                       << QStringList{u"Transcript.md"_s, u"Weekly sync.m4a"_s};
        QTest::newRow("nested subfolder, media only")
            << u" a/b\t"_s << true << false << u"a/b/"_s + name << QStringList{u"Weekly sync.m4a"_s};
        QTest::newRow("no subfolder, transcript only")
            << u"  "_s << false << true << name << QStringList{u"Transcript.md"_s};
        QTest::newRow("nothing included: the folder still appears")
            << u"Quillmoor"_s << false << false << u"Quillmoor/"_s + name << QStringList();
    }

    void copiesWhatTheOptionsInclude()
    {
        QFETCH(QString, subfolder);
        QFETCH(bool, media);
        QFETCH(bool, transcript);
        QFETCH(QString, destination);
        QFETCH(QStringList, files);
        DriveOptions o = options(path(u"Drive"_s));
        o.driveSubfolder = subfolder;
        o.driveIncludeMedia = media;
        o.driveIncludeTranscript = transcript;
        const auto synced = runSync(o);
        QVERIFY2(synced, synced ? "" : qPrintable(synced.error().description()));
        const QDir copy(path(u"Drive/"_s) + destination);
        QVERIFY(copy.exists());
        QCOMPARE(copy.entryList(QDir::AllEntries | QDir::NoDotAndDotDot, QDir::Name), files);
    }

    void aSecondSyncReplacesTheCopies()
    {
        const DriveOptions o = options(path(u"Drive"_s));
        QVERIFY(runSync(o));
        QVERIFY(write(path(u"Library/2026-03-02 10-00 Weekly sync/Transcript.md"_s), "# Renamed"));

        // Resumes where it was awaited, with the copying done elsewhere.
        QThread *resumedOn = nullptr;
        auto again = [&]() -> QCoro::Task<expected<void, SyncError>> {
            auto task = DriveSync::sync(m_recording, o, places());
            auto result = co_await task;
            resumedOn = QThread::currentThread();
            co_return result;
        };
        QVERIFY(QCoro::waitFor(again()));
        QCOMPARE(resumedOn, QThread::currentThread());

        const QDir copy(path(u"Drive/Quillmoor/2026-03-02 10-00 Weekly sync"_s));
        QCOMPARE(copy.entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot, QDir::Name),
                 (QStringList{u"Transcript.md"_s, u"Weekly sync.m4a"_s}));
        QCOMPARE(read(copy.filePath(u"Transcript.md"_s)), QByteArray("# Renamed"));
    }

    void failuresNameWhatWasRefused()
    {
        // Permissions don't stop root, so refusals come from the shape of the tree: a file where a folder must
        // go, and a folder where a file must go.
        QVERIFY(write(path(u"Drive/Quillmoor"_s), "not a folder"));
        auto synced = runSync(options(path(u"Drive"_s)));
        QVERIFY(!synced);
        QCOMPARE(synced.error().kind, SyncError::Kind::fileSystem);
        QCOMPARE(synced.error().description(),
                 u"Couldn't create the folder “%1” in Google Drive: Not a directory."_s.arg(
                     path(u"Drive/Quillmoor/2026-03-02 10-00 Weekly sync"_s)));

        const QString destination = path(u"Elsewhere/Quillmoor/2026-03-02 10-00 Weekly sync"_s);
        QVERIFY(write(destination + u"/Transcript.md/keep"_s, "occupied"));
        synced = runSync(options(path(u"Elsewhere"_s)));
        QVERIFY(!synced);
        QVERIFY2(synced.error().description().startsWith(u"Couldn't copy “Transcript.md” to Google Drive: "_s),
                 qPrintable(synced.error().description()));
        // The media file came first in the list and stays.
        QCOMPARE(read(destination + u"/Weekly sync.m4a"_s), QByteArray("media"));
    }
};

QTEST_GUILESS_MAIN(TestDriveSync)
#include "tst_drivesync.moc"
