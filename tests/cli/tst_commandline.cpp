#include "app/appsettings.h"
#include "app/keychain.h"
#include "cli/arguments.h"
#include "cli/settingkeys.h"
#include "cli/terminal.h"

#include <QDir>
#include <QSettings>
#include <QTemporaryDir>
#include <QTest>

using namespace qm;
using namespace qm::cli;
using namespace Qt::Literals::StringLiterals;

namespace {

// The fields a command uses, in one line, so a table row can say what a command line means.
QString summary(const Invocation &i)
{
    switch (i.command) {
    case Command::help:
        return QStringLiteral("help");
    case Command::version:
        return QStringLiteral("version");
    case Command::record:
        return QStringLiteral("record %1 %2 %3")
            .arg(rawValue(i.source), i.video ? QStringLiteral("video") : QStringLiteral("audio"),
                 i.limit ? QString::number(std::chrono::duration_cast<std::chrono::seconds>(*i.limit).count())
                         : QStringLiteral("-"));
    case Command::list:
        return i.json ? QStringLiteral("list json") : QStringLiteral("list");
    case Command::transcribe:
        return QStringLiteral("transcribe %1 %2").arg(i.recording, i.provider ? rawValue(*i.provider) : u"-"_s);
    case Command::exportTranscript:
        return QStringLiteral("export %1 %2 %3").arg(i.recording).arg(int(i.format)).arg(i.outputFile);
    case Command::sync:
        return i.all ? QStringLiteral("sync --all") : QStringLiteral("sync ") + i.recording;
    case Command::rename:
        return QStringLiteral("rename %1|%2").arg(i.recording, i.title);
    case Command::renameSpeaker:
        return QStringLiteral("rename-speaker %1|%2|%3").arg(i.recording, i.speaker, i.newName);
    case Command::configGet:
        return QStringLiteral("config get ") + i.key;
    case Command::configSet:
        return QStringLiteral("config set %1=%2").arg(i.key, i.value);
    case Command::keySet:
        return QStringLiteral("key set ") + rawValue(*i.provider);
    }
    return {};
}

Recording made(const char *id, const QString &title, const QString &folder)
{
    Recording r;
    r.id = QUuid::fromString(QLatin1String(id));
    r.title = title;
    r.folder = QUrl::fromLocalFile(folder);
    return r;
}

} // namespace

class TestCommandLine : public QObject {
    Q_OBJECT

    QTemporaryDir m_dir;
    QList<Recording> m_library;

private Q_SLOTS:
    void initTestCase()
    {
        const char *ids[] = {"1a2b3c4d-0000-4000-8000-000000000001", "1a2b3c4e-0000-4000-8000-000000000002",
                             "deadbeef-0000-4000-8000-000000000003", "deadbeef-1111-4000-8000-000000000004"};
        const QString titles[] = {QStringLiteral("Weekly standup"), QStringLiteral("Weekly planning"),
                                  QStringLiteral("Design review"), QStringLiteral("Design review 2")};
        for (int i = 0; i < 4; ++i) {
            const QString folder = m_dir.filePath(QStringLiteral("rec %1").arg(i));
            QVERIFY(QDir().mkpath(folder));
            m_library.append(made(ids[i], titles[i], folder));
        }
    }

    void parsing_data()
    {
        QTest::addColumn<QStringList>("words");
        QTest::addColumn<QString>("meaning"); // the summary, or "usage: " and part of the error

        auto row = [](const char *name, QStringList words, const char *meaning) {
            QTest::newRow(name) << words << QString::fromUtf8(meaning);
        };
        row("record with a limit", {u"record"_s, u"--source"_s, u"zoom"_s, u"--for"_s, u"90m"_s},
            "record zoom audio 5400");
        row("record system video", {u"record"_s, u"--source=system"_s, u"--video"_s}, "record systemAudio video -");
        row("in-person can't film", {u"record"_s, u"--source"_s, u"in-person"_s, u"--video"_s}, "usage: audio only");
        row("record needs a source", {u"record"_s}, "usage: --source");
        row("unknown source", {u"record"_s, u"--source"_s, u"mars"_s}, "usage: “mars”");
        row("bad limit", {u"record"_s, u"--source"_s, u"zoom"_s, u"--for"_s, u"soon"_s}, "usage: “soon”");
        row("unknown option", {u"list"_s, u"--colour"_s}, "usage: colour");
        row("list as JSON", {u"list"_s, u"--json"_s}, "list json");
        row("provider for one run", {u"transcribe"_s, u"Weekly"_s, u"--provider"_s, u"on-device"_s},
            "transcribe Weekly onDevice");
        row("provider as stored", {u"transcribe"_s, u"Weekly"_s, u"--provider"_s, u"onDevice"_s},
            "transcribe Weekly onDevice");
        row("unknown provider", {u"transcribe"_s, u"x"_s, u"--provider"_s, u"whisper"_s}, "usage: “whisper”");
        row("export to a file", {u"export"_s, u"x"_s, u"--format"_s, u"srt"_s, u"-o"_s, u"out.srt"_s},
            "export x 2 out.srt");
        row("export needs a format", {u"export"_s, u"x"_s}, "usage: --format");
        row("sync all", {u"sync"_s, u"--all"_s}, "sync --all");
        row("sync one", {u"sync"_s, u"Weekly"_s}, "sync Weekly");
        row("sync both", {u"sync"_s, u"Weekly"_s, u"--all"_s}, "usage: --all");
        row("sync nothing", {u"sync"_s}, "usage: --all");
        row("rename", {u"rename"_s, u"Weekly"_s, u" New title "_s}, "rename Weekly|New title");
        row("rename to nothing", {u"rename"_s, u"Weekly"_s, u"  "_s}, "usage: empty");
        row("rename a speaker", {u"rename-speaker"_s, u"x"_s, u"Speaker 1"_s, u"Dana"_s},
            "rename-speaker x|Speaker 1|Dana");
        row("every setting", {u"config"_s, u"get"_s}, "config get ");
        row("set a setting", {u"config"_s, u"set"_s, u"myName"_s, u"Dana"_s}, "config set myName=Dana");
        row("set without a value", {u"config"_s, u"set"_s, u"myName"_s}, "usage: more arguments");
        row("key from standard input", {u"key"_s, u"set"_s, u"deepgram"_s}, "key set deepgram");
        row("key on the command line", {u"key"_s, u"set"_s, u"deepgram"_s, u"sk-123"_s}, "usage: standard input");
        row("no key for on-device", {u"key"_s, u"set"_s, u"on-device"_s}, "usage: “on-device”");
        row("unknown command", {u"frobnicate"_s}, "usage: “frobnicate”");
        row("version", {u"--version"_s}, "version");
        row("command help", {u"record"_s, u"--help"_s}, "help");
    }

    void parsing()
    {
        QFETCH(QStringList, words);
        QFETCH(QString, meaning);
        const auto parsed = parseArguments(QStringList{u"quillmoor"_s} + words);
        if (meaning.startsWith(u"usage: ")) {
            QVERIFY2(!parsed, qPrintable(parsed ? summary(*parsed) : QString()));
            QVERIFY2(parsed.error().message.contains(meaning.mid(7)), qPrintable(parsed.error().message));
            return;
        }
        QVERIFY2(parsed, qPrintable(parsed ? QString() : parsed.error().message));
        QCOMPARE(summary(*parsed), meaning);
        if (parsed->command == Command::help)
            QVERIFY(parsed->helpText.startsWith(u"Usage: quillmoor record --source"));
    }

    void commandLineOrWindows_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<bool>("commandLine");
        QTest::newRow("tray") << QStringList{u"quillmoor"_s} << false;
        QTest::newRow("Qt's own options") << QStringList{u"quillmoor"_s, u"-platform"_s, u"xcb"_s} << false;
        QTest::newRow("command") << QStringList{u"quillmoor"_s, u"list"_s} << true;
        QTest::newRow("mistyped command") << QStringList{u"quillmoor"_s, u"recrod"_s} << true;
        QTest::newRow("help") << QStringList{u"quillmoor"_s, u"--help"_s} << true;
        QTest::newRow("sign-in address") << QStringList{u"quillmoor"_s, u"quillmoor://signin?code=1"_s} << false;
        QTest::newRow("version") << QStringList{u"quillmoor"_s, u"--version"_s} << true;
    }

    void commandLineOrWindows()
    {
        QFETCH(QStringList, arguments);
        QTEST(wantsCommandLine(arguments), "commandLine");
    }

    void durations_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<int>("seconds"); // 0: refused
        QTest::newRow("seconds") << u"45s"_s << 45;
        QTest::newRow("minutes") << u"90m"_s << 5400;
        QTest::newRow("hours and minutes") << u"1h30m"_s << 5400;
        QTest::newRow("spaced") << u"1h 30m 15s"_s << 5415;
        QTest::newRow("bare number is minutes") << u"90"_s << 5400;
        QTest::newRow("zero") << u"0s"_s << 0;
        QTest::newRow("negative") << u"-5m"_s << 0;
        QTest::newRow("fraction") << u"1.5h"_s << 0;
        QTest::newRow("units out of order") << u"30m1h"_s << 0;
        QTest::newRow("no unit after the last number") << u"1h30"_s << 0;
        QTest::newRow("empty") << QString() << 0;
    }

    void durations()
    {
        QFETCH(QString, text);
        QFETCH(int, seconds);
        const auto parsed = parseDuration(text);
        if (seconds == 0)
            QVERIFY(!parsed);
        else
            QCOMPARE(parsed, std::optional<std::chrono::milliseconds>(std::chrono::seconds(seconds)));
    }

    void recordingReferences_data()
    {
        QTest::addColumn<QString>("reference");
        QTest::addColumn<QString>("found"); // a title, or "error: " and part of the sentence

        QTest::newRow("whole id") << u"1a2b3c4d-0000-4000-8000-000000000001"_s << u"Weekly standup"_s;
        QTest::newRow("id in braces") << u"{1A2B3C4E-0000-4000-8000-000000000002}"_s << u"Weekly planning"_s;
        QTest::newRow("first 8 of the id") << u"1a2b3c4e"_s << u"Weekly planning"_s;
        QTest::newRow("shared id start") << u"deadbeef"_s << u"error: Design review 2"_s;
        QTest::newRow("too short for an id") << u"1a2b3c4"_s << u"error: No recording"_s;
        QTest::newRow("folder") << m_dir.filePath(u"rec 2"_s) << u"Design review"_s;
        QTest::newRow("folder, trailing slash") << m_dir.filePath(u"rec 3/"_s) << u"Design review 2"_s;
        QTest::newRow("title prefix, any case") << u"weekly s"_s << u"Weekly standup"_s;
        QTest::newRow("ambiguous prefix") << u"Weekly"_s << u"error: Weekly planning"_s;
        QTest::newRow("exact title beats longer ones") << u"design review"_s << u"Design review"_s;
        QTest::newRow("nothing") << u"Retro"_s << u"error: No recording matches “Retro”"_s;
        QTest::newRow("blank") << u"  "_s << u"error: Name a recording"_s;
    }

    void recordingReferences()
    {
        QFETCH(QString, reference);
        QFETCH(QString, found);
        const auto resolved = resolveRecording(reference, m_library);
        if (found.startsWith(u"error: ")) {
            QVERIFY(!resolved);
            QVERIFY2(resolved.error().contains(found.mid(7)), qPrintable(resolved.error()));
            return;
        }
        QVERIFY2(resolved, qPrintable(resolved ? QString() : resolved.error()));
        QCOMPARE(resolved->title, found);
    }

    // Values go through the settings object into the file the app reads; wrong keys and values are refused.
    void settings_data()
    {
        QTest::addColumn<QString>("key");
        QTest::addColumn<QString>("value");
        QTest::addColumn<QString>("readBack"); // "error: …" when refused

        QTest::newRow("flag") << u"autoTranscribe"_s << u"false"_s << u"false"_s;
        QTest::newRow("flag as a number") << u"driveSyncEnabled"_s << u"1"_s << u"true"_s;
        QTest::newRow("flag, wrong word") << u"driveSyncEnabled"_s << u"yes please"_s << u"error: true or false"_s;
        QTest::newRow("choice") << u"provider"_s << u"deepgram"_s << u"deepgram"_s;
        QTest::newRow("choice, as written only") << u"provider"_s << u"Deepgram"_s << u"error: onDevice"_s;
        QTest::newRow("provider, command-line word") << u"provider"_s << u"on-device"_s << u"onDevice"_s;
        QTest::newRow("language auto") << u"language"_s << u"auto"_s << u"auto"_s;
        QTest::newRow("number") << u"videoFrameRate"_s << u"30"_s << u"30"_s;
        QTest::newRow("not an offered rate") << u"videoFrameRate"_s << u"fast"_s << u"error: one of 10, 15, 30"_s;
        QTest::newRow("text") << u"driveRootPath"_s << u"/media/drive"_s << u"/media/drive"_s;
        QTest::newRow("a provider's model") << u"models/deepgram"_s << u"nova-3"_s << u"nova-3"_s;
        QTest::newRow("on-device model by name") << u"models/onDevice"_s << u"small.en"_s << u"small.en"_s;
        QTest::newRow("on-device model on disk") << u"models/onDevice"_s << QDir::tempPath() << QDir::tempPath();
        QTest::newRow("on-device model unknown") << u"models/onDevice"_s << u"huge"_s << u"error: “huge”"_s;
        QTest::newRow("unknown key") << u"autoTranscibe"_s << u"true"_s << u"error: no setting “autoTranscibe”"_s;
    }

    void settings()
    {
        QFETCH(QString, key);
        QFETCH(QString, value);
        QFETCH(QString, readBack);
        QTemporaryDir config;
        Keychain keychain(std::chrono::seconds(1));
        {
            AppSettings settings(keychain, config.path(), config.path());
            const auto changed = setSetting(settings, key, value);
            if (readBack.startsWith(u"error: ")) {
                QVERIFY(!changed);
                QVERIFY2(changed.error().contains(readBack.mid(7)), qPrintable(changed.error()));
                return;
            }
            QVERIFY2(changed, qPrintable(changed ? QString() : changed.error()));
        }
        // A fresh settings object reads what the file now holds.
        AppSettings reread(keychain, config.path(), config.path());
        QCOMPARE(settingValue(reread, key).value_or(u"?"_s), readBack);
    }

    void configHelpListsTheKeys()
    {
        const auto parsed = parseArguments({u"quillmoor"_s, u"config"_s, u"--help"_s});
        QVERIFY(parsed && parsed->command == Command::help);
        for (const QString &key : settingKeys())
            QVERIFY2(parsed->helpText.contains(u"\n  "_s + key + u'\n'), qPrintable(key));
    }

    void meterTexts()
    {
        QCOMPARE(elapsedText(0), u"0:00"_s);
        QCOMPARE(elapsedText(65.9), u"1:05"_s);
        QCOMPARE(elapsedText(3723), u"1:02:03"_s);
        QCOMPARE(levelBar(u"mic"_s, 0.0f), u"mic [----------]"_s);
        QCOMPARE(levelBar(u"mic"_s, 0.46f), u"mic [#####-----]"_s);
        QCOMPARE(levelBar(u"mic"_s, 1.7f), u"mic [##########]"_s);
    }
};

QTEST_GUILESS_MAIN(TestCommandLine)
#include "tst_commandline.moc"
