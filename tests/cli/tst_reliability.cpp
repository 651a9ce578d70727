// What the program does with bad input and a hostile world: damaged library files, names that lead out of a
// recording's folder, read-only and full disks (real mounts in a private namespace), real signals, and a
// missing display. Drives the built program in the private desktop session.

#include "library/recordingstore.h"

#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>

using namespace qm;
using namespace Qt::Literals::StringLiterals;

namespace {

struct Run {
    int code = -1;
    QString out;
    QString err;
};

} // namespace

class TestReliability : public QObject {
    Q_OBJECT

    std::unique_ptr<QTemporaryDir> m_home;

    QString library() const { return m_home->filePath(u"library"_s); }

    QProcessEnvironment environment() const
    {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(u"XDG_CONFIG_HOME"_s, m_home->filePath(u"config"_s));
        return environment;
    }

    // The program, or a shell script that prepares a private mount first and runs it as "$Q".
    Run run(const QStringList &arguments, const QString &script = {}, const QProcessEnvironment &environment = {}) const
    {
        QProcess process;
        QProcessEnvironment env = environment.isEmpty() ? this->environment() : environment;
        env.insert(u"Q"_s, QStringLiteral(QM_BINARY));
        env.insert(u"LIB"_s, library());
        process.setProcessEnvironment(env);
        if (script.isEmpty())
            process.start(QStringLiteral(QM_BINARY), arguments);
        else
            process.start(u"unshare"_s, QStringList{u"--user"_s, u"--map-root-user"_s, u"--mount"_s, u"sh"_s, u"-ec"_s,
                                                    script, u"sh"_s} +
                                            arguments);
        process.waitForFinished(120000);
        return {process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1,
                QString::fromUtf8(process.readAllStandardOutput()), QString::fromUtf8(process.readAllStandardError())};
    }

    // One ready recording with a transcript, as the program would have left it.
    Recording makeRecording(const QString &title = u"Standup"_s)
    {
        RecordingStore store([this] { return library(); });
        Recording recording = *store.create(RecordingSource::zoom, false);
        recording.title = title;
        recording.state = ProcessingState::ready;
        recording.duration = 60;
        [&] { QVERIFY(store.save(recording)); }();
        return recording;
    }

    static QByteArray metadata(const Recording &recording)
    {
        QFile file(QDir(recording.folderPath()).filePath(u"recording.json"_s));
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }

    static bool namespacesWork()
    {
        QProcess probe;
        probe.start(u"unshare"_s, {u"--user"_s, u"--map-root-user"_s, u"--mount"_s, u"true"_s});
        return probe.waitForFinished(10000) && probe.exitCode() == 0;
    }

private Q_SLOTS:
    void init()
    {
        m_home = std::make_unique<QTemporaryDir>();
        QDir().mkpath(m_home->filePath(u"config"_s));
        QVERIFY(run({u"config"_s, u"set"_s, u"saveFolderPath"_s, library()}).code == 0);
    }

    // A damaged recording.json leaves its folder out of the list, untouched, and named with the reason.
    void damagedFoldersAreNamedAndLeftAlone_data()
    {
        QTest::addColumn<QString>("key");
        QTest::addColumn<QJsonValue>("value");
        QTest::addColumn<QString>("reason");
        QTest::newRow("a path in mediaFileName")
            << u"mediaFileName"_s << QJsonValue(u"../../../victim.txt"_s) << u"isn't the name of a file"_s;
        QTest::newRow("a text for a number") << u"duration"_s << QJsonValue(u"long"_s) << u"“duration” has the wrong"_s;
        QTest::newRow("an unknown state") << u"state"_s << QJsonValue(u"archived"_s) << u"doesn't know"_s;
        QTest::newRow("a missing flag") << u"hasVideo"_s << QJsonValue(QJsonValue::Undefined) << u"has no “hasVideo”"_s;
        QTest::newRow("an id that isn't one") << u"id"_s << QJsonValue(u"42"_s) << u"“id” has the wrong type"_s;
        QTest::newRow("300 MB of title") << u"title"_s << QJsonValue(QString(9 * 1024 * 1024, u'x')) << u"too large"_s;
    }
    void damagedFoldersAreNamedAndLeftAlone()
    {
        QFETCH(QString, key);
        QFETCH(QJsonValue, value);
        QFETCH(QString, reason);
        const Recording damaged = makeRecording();
        makeRecording(u"Retro"_s);
        QJsonObject object = QJsonDocument::fromJson(metadata(damaged)).object();
        if (value.isUndefined())
            object.remove(key);
        else
            object.insert(key, value);
        const QByteArray bytes = QJsonDocument(object).toJson();
        QFile file(QDir(damaged.folderPath()).filePath(u"recording.json"_s));
        QVERIFY(file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size());
        file.close();
        const QString folder = QFileInfo(damaged.folderPath()).fileName();

        const Run listed = run({u"list"_s});
        QCOMPARE(listed.code, 0);
        QVERIFY2(listed.out.contains(u"Retro"_s) && !listed.out.contains(u"Standup"_s), qPrintable(listed.out));
        QVERIFY2(listed.err.contains(u"couldn't be read: “"_s + folder) && listed.err.contains(reason),
                 qPrintable(listed.err));
        QVERIFY(listed.out.size() + listed.err.size() < 4096);

        const QJsonObject json = QJsonDocument::fromJson(run({u"list"_s, u"--json"_s}).out.toUtf8()).object();
        QCOMPARE(json[u"recordings"_s].toArray().size(), 1);
        QVERIFY(json[u"unreadable"_s].toArray().first()[u"folder"_s].toString().endsWith(folder));

        const Run named = run({u"rename"_s, damaged.folderPath(), u"New"_s});
        QCOMPARE(named.code, 1);
        QVERIFY2(named.err.contains(u"can't be read"_s), qPrintable(named.err));
        QCOMPARE(metadata(damaged), bytes);
    }

    void textFromFilesCantDriveTheTerminal()
    {
        makeRecording(u"Evil\x1b]0;owned\x07\x1b[31mred"_s);
        const Run listed = run({u"list"_s});
        QVERIFY(!listed.out.contains(QChar(0x1b)) && !listed.out.contains(QChar(0x07)));
        QVERIFY2(listed.out.contains(u"Evil?]0;owned??[31mred"_s), qPrintable(listed.out));
    }

    void filesLinkedFromOutsideAreNotCopied()
    {
        Recording recording = makeRecording();
        QFile outside(m_home->filePath(u"private.txt"_s));
        QVERIFY(outside.open(QIODevice::WriteOnly) && outside.write("secret") == 6);
        outside.close();
        QVERIFY(QFile::link(outside.fileName(), QDir(recording.folderPath()).filePath(u"Transcript.md"_s)));
        QVERIFY(run({u"config"_s, u"set"_s, u"driveRootPath"_s, m_home->filePath(u"drive"_s)}).code == 0);

        const Run synced = run({u"sync"_s, u"Standup"_s});
        QCOMPARE(synced.code, 1);
        QVERIFY2(synced.err.contains(u"“Transcript.md” is a link to a file outside"_s), qPrintable(synced.err));
        QVERIFY(!synced.out.contains(u"Copied"_s));
        QVERIFY(!QFileInfo::exists(m_home->filePath(u"drive/Quillmoor/"_s) +
                                   QFileInfo(recording.folderPath()).fileName() + u"/Transcript.md"_s));
    }

    // A change that can't be written fails the command and leaves the old file whole.
    void writesThatCantHappenAreNotClaimed_data()
    {
        QTest::addColumn<QString>("mount");
        QTest::newRow("read-only folder") << u"mount --bind \"$LIB\" \"$LIB\"; mount -o remount,bind,ro \"$LIB\""_s;
        QTest::newRow("full disk") << u"cp -a \"$LIB\" /tmp/qm-lib; mount -t tmpfs -o size=512k tmpfs \"$LIB\"; "
                                      "cp -a /tmp/qm-lib/. \"$LIB\"; rm -rf /tmp/qm-lib; "
                                      "dd if=/dev/zero of=\"$LIB/fill\" bs=4k 2>/dev/null || true"_s;
    }
    void writesThatCantHappenAreNotClaimed()
    {
        QFETCH(QString, mount);
        if (!namespacesWork())
            QSKIP("User namespaces are off here, so no private mount can be made.");
        const Recording recording = makeRecording();
        const QString json = QDir(recording.folderPath()).filePath(u"recording.json"_s);
        // The file's state is read inside the namespace, where the mount is.
        const QString script =
            mount + u"; set +e; \"$Q\" \"$@\"; echo \"exit=$?\" >&2; wc -c < \""_s + json + u"\" >&2"_s;
        const Run renamed = run({u"rename"_s, u"Standup"_s, u"Planning"_s}, script);
        QVERIFY2(renamed.err.contains(u"exit=1"_s), qPrintable(renamed.err));
        QVERIFY2(renamed.err.contains(u"Couldn't save “Planning”"_s), qPrintable(renamed.err));
        QVERIFY(!renamed.out.contains(u"Renamed"_s));
        QVERIFY2(renamed.err.contains(QString::number(metadata(recording).size())), qPrintable(renamed.err));
    }

    void settingsAreCheckedWhereTheyAreSet_data()
    {
        QTest::addColumn<QString>("value");
        QTest::addColumn<int>("code");
        QTest::newRow("too many frames") << u"100000"_s << 2;
        QTest::newRow("negative") << u"-5"_s << 2;
        QTest::newRow("allowed") << u"30"_s << 0;
    }
    void settingsAreCheckedWhereTheyAreSet()
    {
        QFETCH(QString, value);
        QFETCH(int, code);
        const Run set = run({u"config"_s, u"set"_s, u"videoFrameRate"_s, value});
        QCOMPARE(set.code, code);
        if (code != 0)
            QVERIFY2(set.err.contains(u"one of 10, 15, 30"_s), qPrintable(set.err));
    }

    void signalsStopAndSaveARecording_data()
    {
        QTest::addColumn<int>("signal");
        QTest::newRow("the terminal closed") << int(SIGHUP);
        QTest::newRow("terminated") << int(SIGTERM);
    }
    void signalsStopAndSaveARecording()
    {
        QFETCH(int, signal);
        QProcess recording;
        recording.setProcessEnvironment(environment());
        recording.start(QStringLiteral(QM_BINARY), {u"record"_s, u"--source"_s, u"in-person"_s});
        QByteArray err;
        connect(&recording, &QProcess::readyReadStandardError, this, [&] { err += recording.readAllStandardError(); });
        QTRY_VERIFY2_WITH_TIMEOUT(err.contains("Recording into"), err.constData(), 30000);
        QTest::qWait(2500); // some sound into the track
        ::kill(pid_t(recording.processId()), signal);
        QVERIFY(recording.waitForFinished(60000));
        err += recording.readAllStandardError();
        QVERIFY2(recording.exitStatus() == QProcess::NormalExit && recording.exitCode() == 0, err.constData());
        const QJsonArray all =
            QJsonDocument::fromJson(run({u"list"_s, u"--json"_s}).out.toUtf8()).object()[u"recordings"_s].toArray();
        QCOMPARE(all.size(), 1);
        QCOMPARE(all.first()[u"state"_s].toString(), u"ready"_s);
        QVERIFY(all.first()[u"duration"_s].toDouble() >= 2.0);
    }

    void withoutADisplayTheTraySaysWhy()
    {
        QProcessEnvironment bare = environment();
        for (const char *name : {"DISPLAY", "WAYLAND_DISPLAY", "QT_QPA_PLATFORM"})
            bare.remove(QLatin1String(name));
        const Run tray = run({}, {}, bare);
        QCOMPARE(tray.code, 1);
        QVERIFY2(tray.err.contains(u"needs a desktop session"_s), qPrintable(tray.err));
    }
};

QTEST_GUILESS_MAIN(TestReliability)
#include "tst_reliability.moc"
