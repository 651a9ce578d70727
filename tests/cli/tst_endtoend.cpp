// Drives the real quillmoor binary inside the private desktop session: its sound server (with a stand-in Zoom
// and a microphone fed from the "room" sink), its keyring, and a loopback stand-in of Deepgram.

#include "library/recordingstore.h"
#include "support/capture/mediaprobe.h"
#include "support/providers/fakedeepgram.h"

#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QSettings>
#include <QSignalSpy>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>

using namespace qm;
using namespace qm::test;
using namespace Qt::Literals::StringLiterals;

namespace {

// One run of the program, its output gathered while this thread's event loop keeps serving the fake service.
class Quillmoor : public QProcess {
public:
    QByteArray out;
    QByteArray err;

    Quillmoor(const QProcessEnvironment &environment, const QStringList &arguments, const QByteArray &input = {})
    {
        setProcessEnvironment(environment);
        connect(this, &QProcess::readyReadStandardOutput, this, [this] { out += readAllStandardOutput(); });
        connect(this, &QProcess::readyReadStandardError, this, [this] { err += readAllStandardError(); });
        start(QStringLiteral(QM_BINARY), arguments);
        waitForStarted();
        if (!input.isEmpty())
            write(input);
        closeWriteChannel();
    }

    bool finish(int milliseconds = 120000)
    {
        if (state() != QProcess::NotRunning) {
            QSignalSpy finished(this, &QProcess::finished);
            finished.wait(milliseconds);
        }
        out += readAllStandardOutput();
        err += readAllStandardError();
        return state() == QProcess::NotRunning;
    }

    int code() const { return exitStatus() == QProcess::NormalExit ? exitCode() : -1; }
    QByteArray log() const { return "stdout:\n" + out + "\nstderr:\n" + err; }
};

QString sox(const QStringList &arguments)
{
    QProcess process;
    process.start(QStringLiteral("sox"), arguments);
    process.waitForFinished(30000);
    return process.exitCode() == 0 ? QString() : QString::fromUtf8(process.readAllStandardError());
}

} // namespace

class TestEndToEnd : public QObject {
    Q_OBJECT

    QTemporaryDir m_tools; // the stand-in Zoom and the sounds it and the room play
    QString m_zoom;
    FakeDeepgram m_deepgram;
    std::unique_ptr<QTemporaryDir> m_home; // this case's settings, library and Drive folder
    QList<QProcess *> m_players;
    int m_firstUploadOfCase = 0; // the fake tells the two passes of one recording apart by their order

    QString library() const { return m_home->filePath(u"library"_s); }
    QString drive() const { return m_home->filePath(u"drive"_s); }
    QString sound(const QString &name) const { return m_tools.filePath(name); }

    QProcessEnvironment environment() const
    {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(u"XDG_CONFIG_HOME"_s, m_home->filePath(u"config"_s));
        environment.insert(u"QM_DEEPGRAM_URL"_s, m_deepgram.base().toString());
        return environment;
    }

    void configure(const QList<std::pair<QString, QVariant>> &values)
    {
        QSettings ini(m_home->filePath(u"config/app.quillmoor.Quillmoor.conf"_s), QSettings::IniFormat);
        for (const auto &[key, value] : values)
            ini.setValue(key, value);
    }

    std::unique_ptr<Quillmoor> quillmoor(const QStringList &arguments, const QByteArray &input = {})
    {
        auto run = std::make_unique<Quillmoor>(environment(), arguments, input);
        run->finish();
        return run;
    }

    // Small buffers, as a call client uses, so the capture hears the sound when it is played.
    QProcess *play(const QString &program, const QString &sink, const QString &file)
    {
        auto *player = new QProcess(this);
        player->start(program, {u"--file-format"_s, u"--latency-msec=20"_s, u"--device="_s + sink, file});
        player->waitForStarted();
        m_players.append(player);
        return player;
    }

    // The one recording of this case's library, as `list --json` reports it.
    QJsonObject onlyRecording()
    {
        const auto list = quillmoor({u"list"_s, u"--json"_s});
        if (list->code() != 0)
            return {};
        const QJsonArray all = QJsonDocument::fromJson(list->out).object()[u"recordings"_s].toArray();
        return all.size() == 1 ? all.first().toObject() : QJsonObject();
    }

    static QStringList sourceTracks(const QJsonObject &recording)
    {
        return QDir(recording[u"folder"_s].toString() + u"/Source"_s).entryList(QDir::Files, QDir::Name);
    }

    static QString mediaPath(const QJsonObject &recording)
    {
        return recording[u"folder"_s].toString() + u'/' + recording[u"mediaFileName"_s].toString();
    }

    QString driveCopy(const QJsonObject &recording, const QString &file) const
    {
        const QString folderName = QFileInfo(recording[u"folder"_s].toString()).fileName();
        return drive() + u"/Quillmoor/"_s + folderName + u'/' + file;
    }

private Q_SLOTS:
    void initTestCase()
    {
        QProcess pactl;
        pactl.start(u"pactl"_s, {u"info"_s});
        if (!pactl.waitForFinished(10000) || pactl.exitCode() != 0)
            QSKIP("No sound server: run the suite through ./scripts/test.");
        m_zoom = m_tools.filePath(u"zoom"_s);
        QVERIFY(QFile::copy(QStandardPaths::findExecutable(u"paplay"_s), m_zoom));
        QFile::setPermissions(m_zoom, QFile::ReadOwner | QFile::ExeOwner | QFile::WriteOwner);

        // Zoom talks first, then the user answers in the room, so the two passes hear different things. Both
        // have a little background noise: a real line and a real room are never digitally silent.
        QCOMPARE(QProcess::execute(u"espeak-ng"_s, {u"-w"_s, sound(u"meeting-words.wav"_s),
                                                    u"Let's look at the roadmap for next quarter."_s}),
                 0);
        QCOMPARE(QProcess::execute(u"espeak-ng"_s,
                                   {u"-w"_s, sound(u"room-words.wav"_s), u"I agree, that sounds good to me."_s}),
                 0);
        const auto noisy = [](const QString &words, const QString &out, const QString &delay) {
            return sox({u"-m"_s, words, u"|sox -n -r 22050 -c 1 -p synth 10 pinknoise vol 0.05"_s, out, u"pad"_s, delay,
                        u"0"_s});
        };
        QCOMPARE(noisy(sound(u"meeting-words.wav"_s), sound(u"meeting-speech.wav"_s), u"0"_s), QString());
        QCOMPARE(noisy(sound(u"room-words.wav"_s), sound(u"room.wav"_s), u"2.5"_s), QString());
        QCOMPARE(sox({u"-n"_s, u"-r"_s, u"48000"_s, u"-c"_s, u"2"_s, sound(u"idle.wav"_s), u"synth"_s, u"40"_s,
                      u"pinknoise"_s, u"vol"_s, u"0.02"_s}),
                 QString());
        QCOMPARE(sox({u"-n"_s, u"-r"_s, u"48000"_s, u"-c"_s, u"2"_s, sound(u"tone.wav"_s), u"synth"_s, u"30"_s,
                      u"sine"_s, u"440"_s, u"vol"_s, u"0.3"_s}),
                 QString());

        m_deepgram.hearing = [this](const Mp4Audio &, int upload) {
            // The microphone is always the first pass of a recording that has both tracks.
            if ((upload - m_firstUploadOfCase) % 2 == 0)
                return QList<Heard>{{u"I agree."_s, 0.2, 0.9, 0}};
            return QList<Heard>{{u"Let's look at the roadmap."_s, 0.1, 1.0, 0}};
        };
        // The keyring outlives each case's settings.
        init();
        const auto saved = quillmoor({u"key"_s, u"set"_s, u"deepgram"_s}, m_deepgram.key.toUtf8() + '\n');
        QVERIFY2(saved->code() == 0, saved->log().constData());
    }

    void init()
    {
        m_home = std::make_unique<QTemporaryDir>();
        QVERIFY(QDir().mkpath(m_home->filePath(u"config"_s)));
        configure({{u"saveFolderPath"_s, library()},
                   {u"driveSyncEnabled"_s, true},
                   {u"driveRootPath"_s, drive()},
                   {u"provider"_s, u"deepgram"_s},
                   {u"autoTranscribe"_s, false}});
    }

    void cleanup()
    {
        for (QProcess *player : std::as_const(m_players)) {
            player->kill();
            player->waitForFinished(5000);
            delete player;
        }
        m_players.clear();
    }

    // The key goes in through standard input only, is never echoed, and is readable back only from the keyring.
    void keyAndSettings()
    {
        const QByteArray key = "test-key-0123";
        QCOMPARE(m_deepgram.key.toUtf8(), key);
        const auto saved = quillmoor({u"key"_s, u"set"_s, u"deepgram"_s}, key + '\n');
        QVERIFY2(saved->code() == 0, saved->log().constData());
        QVERIFY(saved->out.contains("Key saved in your keyring"));
        QVERIFY(!saved->out.contains(key) && !saved->err.contains(key));
        QProcess lookup;
        lookup.start(u"secret-tool"_s,
                     {u"lookup"_s, u"service"_s, u"app.quillmoor.Quillmoor"_s, u"account"_s, u"apikey.deepgram"_s});
        QVERIFY(lookup.waitForFinished(10000));
        QCOMPARE(lookup.readAllStandardOutput().trimmed(), key);
        QFile ini(m_home->filePath(u"config/app.quillmoor.Quillmoor.conf"_s));
        QVERIFY(ini.open(QIODevice::ReadOnly));
        QVERIFY(!ini.readAll().contains(key));

        const auto onCommandLine = quillmoor({u"key"_s, u"set"_s, u"deepgram"_s, u"other-key"_s});
        QCOMPARE(onCommandLine->code(), 2);

        QCOMPARE(quillmoor({u"config"_s, u"set"_s, u"myName"_s, u"Dana"_s})->code(), 0);
        const auto read = quillmoor({u"config"_s, u"get"_s, u"myName"_s});
        QCOMPARE(read->out, QByteArray("Dana\n"));
        const auto unknown = quillmoor({u"config"_s, u"set"_s, u"myNmae"_s, u"Dana"_s});
        QCOMPARE(unknown->code(), 2);
        QVERIFY2(unknown->err.contains("There is no setting “myNmae”"), unknown->log().constData());
        const auto badValue = quillmoor({u"config"_s, u"set"_s, u"provider"_s, u"Deepgram"_s});
        QVERIFY2(badValue->code() == 2, badValue->log().constData());
    }

    // The whole path: two tracks while the stand-in Zoom and the room speak, the final file, the transcript
    // through the fake service, and the copies in the Drive folder.
    void zoomMeetingEndToEnd()
    {
        configure({{u"autoTranscribe"_s, true}});
        const qsizetype uploadsBefore = m_deepgram.uploads.size();
        m_firstUploadOfCase = int(uploadsBefore);
        play(m_zoom, u"speakers"_s, sound(u"idle.wav"_s)); // Zoom is in a meeting, quiet for now

        Quillmoor recording(environment(), {u"record"_s, u"--source"_s, u"zoom"_s, u"--for"_s, u"8s"_s});
        QTRY_VERIFY2_WITH_TIMEOUT(recording.err.contains("Recording into"), recording.log().constData(), 30000);
        play(m_zoom, u"speakers"_s, sound(u"meeting-speech.wav"_s));
        play(u"paplay"_s, u"room"_s, sound(u"room.wav"_s));
        QVERIFY(recording.finish());
        QVERIFY2(recording.code() == 0, recording.log().constData());
        QVERIFY2(recording.out.contains("Saved: "), recording.log().constData());

        const QJsonObject record = onlyRecording();
        QCOMPARE(record[u"state"_s].toString(), u"ready"_s);
        QCOMPARE(record[u"transcriptState"_s].toString(), u"done"_s);
        QCOMPARE(sourceTracks(record), (QStringList{u"meeting-audio.m4a"_s, u"microphone.m4a"_s}));
        const double seconds = mediaSeconds(mediaPath(record));
        QVERIFY2(seconds > 7.0 && seconds < 9.5, qPrintable(QString::number(seconds)));
        QVERIFY(qAbs(record[u"duration"_s].toDouble() - seconds) < 1.0);

        QCOMPARE(m_deepgram.uploads.size() - uploadsBefore, 2);
        QVERIFY2(m_deepgram.violations.isEmpty(), qPrintable(m_deepgram.violations.join(u'\n')));
        QFile text(record[u"folder"_s].toString() + u"/Transcript.txt"_s);
        QVERIFY(text.open(QIODevice::ReadOnly));
        const QString words = QString::fromUtf8(text.readAll());
        QVERIFY2(words.contains(u"Me: I agree."_s) && words.contains(u"Speaker 1: Let's look at the roadmap."_s),
                 qPrintable(words));
        QVERIFY(QFileInfo::exists(record[u"folder"_s].toString() + u"/transcript.json"_s));
        QVERIFY(QFileInfo::exists(record[u"folder"_s].toString() + u"/Transcript.md"_s));

        QCOMPARE(mediaSeconds(driveCopy(record, record[u"mediaFileName"_s].toString())), seconds);
        QVERIFY(QFileInfo::exists(driveCopy(record, u"Transcript.md"_s)));
    }

    // The desktop program, left to itself in automatic mode: the stand-in Zoom joining a meeting (it opens the
    // microphone) starts a recording, and leaving it stops and saves that recording.
    void automaticModeFollowsTheMeeting()
    {
        configure({{u"zoomStartMode"_s, u"automatic"_s}, {u"autoStopWhenZoomEnds"_s, true}});
        QProcessEnvironment desktop = environment();
        desktop.insert(u"QT_QPA_PLATFORM"_s, u"offscreen"_s);
        Quillmoor app(desktop, {});

        QProcess joined;
        joined.setStandardOutputFile(QProcess::nullDevice());
        joined.start(m_zoom, {u"--record"_s, u"--raw"_s, u"--device=microphone"_s});
        QVERIFY(joined.waitForStarted());
        QProcess *speaking = play(m_zoom, u"speakers"_s, sound(u"idle.wav"_s));
        // Two polls three seconds apart see the meeting.
        QTRY_VERIFY2_WITH_TIMEOUT(QDir(library()).entryList(QDir::Dirs | QDir::NoDotAndDotDot).size() == 1,
                                  app.log().constData(), 20000);
        QTest::qWait(5000);

        joined.kill();
        joined.waitForFinished(5000);
        speaking->kill();
        // Four polls without the meeting end it; the recording is then joined into its final file.
        QTRY_VERIFY_WITH_TIMEOUT(onlyRecording()[u"state"_s].toString() == u"ready"_s, 40000);
        const QJsonObject record = onlyRecording();
        QCOMPARE(record[u"source"_s].toString(), u"zoom"_s);
        QVERIFY2(mediaSeconds(mediaPath(record)) > 4.0, qPrintable(QString::number(mediaSeconds(mediaPath(record)))));
        app.terminate();
        QVERIFY(app.finish(10000));
    }

    void otherSources_data()
    {
        QTest::addColumn<QString>("source");
        QTest::addColumn<QString>("sink"); // where the test plays what should be heard
        QTest::addColumn<bool>("video");
        QTest::addColumn<QStringList>("tracks");
        QTest::newRow("system audio, filmed")
            << u"system"_s << u"speakers"_s << true
            << QStringList{u"meeting-audio.m4a"_s, u"microphone.m4a"_s, u"screen.mov"_s};
        QTest::newRow("in person") << u"in-person"_s << u"room"_s << false << QStringList{u"microphone.m4a"_s};
    }

    void otherSources()
    {
        QFETCH(QString, source);
        QFETCH(QString, sink);
        QFETCH(bool, video);
        configure({{u"provider"_s, u"onDevice"_s}});
        play(u"paplay"_s, sink, sound(u"tone.wav"_s));
        QStringList arguments{u"record"_s, u"--source"_s, source, u"--for"_s, u"4s"_s};
        if (video)
            arguments.append(u"--video"_s);
        const auto recording = quillmoor(arguments);
        QVERIFY2(recording->code() == 0, recording->log().constData());
        const QJsonObject record = onlyRecording();
        QCOMPARE(record[u"state"_s].toString(), u"ready"_s);
        QTEST(sourceTracks(record), "tracks");
        const double seconds = mediaSeconds(mediaPath(record));
        QVERIFY2(seconds > 3.0 && seconds < 5.5, qPrintable(QString::number(seconds)));
        QVERIFY(loudness(mediaPath(record), 1.0).value(2) > 0.05);
        QCOMPARE(mediaPath(record).endsWith(u".mp4"_s), video);
        QCOMPARE(codecName(mediaPath(record), "v").isEmpty(), !video);
        // This run's choice of format doesn't become the stored one.
        QCOMPARE(quillmoor({u"config"_s, u"get"_s, u"captureFormat"_s})->out, QByteArray("audio\n"));
        if (video)
            return;

        // Another engine for one run: the stored choice is left as it was.
        const qsizetype uploadsBefore = m_deepgram.uploads.size();
        m_firstUploadOfCase = int(uploadsBefore);
        const auto transcribed =
            quillmoor({u"transcribe"_s, record[u"folder"_s].toString(), u"--provider"_s, u"deepgram"_s});
        QVERIFY2(transcribed->code() == 0, transcribed->log().constData());
        QCOMPARE(m_deepgram.uploads.size() - uploadsBefore, 1);
        QCOMPARE(quillmoor({u"config"_s, u"get"_s, u"provider"_s})->out, QByteArray("onDevice\n"));
        QCOMPARE(onlyRecording()[u"transcriptState"_s].toString(), u"done"_s);
    }

    void interruptStopsAndSaves()
    {
        play(u"paplay"_s, u"room"_s, sound(u"tone.wav"_s));
        Quillmoor recording(environment(), {u"record"_s, u"--source"_s, u"in-person"_s});
        QTRY_VERIFY2_WITH_TIMEOUT(recording.err.contains("Recording into"), recording.log().constData(), 30000);
        QTest::qWait(3000);
        ::kill(pid_t(recording.processId()), SIGINT);
        QVERIFY(recording.finish());
        QVERIFY2(recording.code() == 0, recording.log().constData());
        const QJsonObject record = onlyRecording();
        QCOMPARE(record[u"state"_s].toString(), u"ready"_s);
        const double seconds = mediaSeconds(mediaPath(record));
        QVERIFY2(seconds > 2.5 && seconds < 4.5, qPrintable(QString::number(seconds)));
    }

    void startFailureLeavesNothing()
    {
        const auto recording = quillmoor({u"record"_s, u"--source"_s, u"zoom"_s, u"--for"_s, u"5s"_s});
        QCOMPARE(recording->code(), 1);
        QVERIFY2(recording->err.contains(
                     "Zoom isn't running. Join your meeting in Zoom first, or use “Record System Audio”."),
                 recording->log().constData());
        QVERIFY(QDir(library()).entryList(QDir::Dirs | QDir::NoDotAndDotDot).isEmpty());
    }

    // A recording whose program was killed is finished by the next command, with what was written so far.
    void killedRecordingIsRecovered()
    {
        play(u"paplay"_s, u"room"_s, sound(u"tone.wav"_s));
        Quillmoor recording(environment(), {u"record"_s, u"--source"_s, u"in-person"_s, u"--for"_s, u"15s"_s});
        QTRY_VERIFY2_WITH_TIMEOUT(recording.err.contains("Recording into"), recording.log().constData(), 30000);
        QTest::qWait(12000);
        recording.kill();
        QVERIFY(recording.finish(10000));

        const auto list = quillmoor({u"list"_s, u"--json"_s});
        QVERIFY2(list->code() == 0, list->log().constData());
        QVERIFY(list->err.contains("Finishing an interrupted recording"));
        const QJsonArray all = QJsonDocument::fromJson(list->out).object()[u"recordings"_s].toArray();
        QCOMPARE(all.size(), 1);
        const QJsonObject record = all.first().toObject();
        QVERIFY2(record[u"state"_s].toString() == u"ready"_s, qPrintable(record[u"lastError"_s].toString()));
        const double seconds = mediaSeconds(mediaPath(record));
        QVERIFY2(seconds >= 10.0 && seconds < 13.5, qPrintable(QString::number(seconds)));
    }

    // Export, renames and speaker names on a library made by hand.
    void editsRoundTrip()
    {
        RecordingStore store([this] { return library(); });
        Recording review = *store.create(RecordingSource::zoom, false);
        review.title = u"Roadmap review"_s;
        review.state = ProcessingState::ready;
        review.transcriptState = TranscriptState::done;
        review.duration = 4;
        QVERIFY(store.save(review));
        Recording planning = *store.create(RecordingSource::inPerson, false);
        planning.title = u"Roadmap planning"_s;
        planning.state = ProcessingState::ready;
        QVERIFY(store.save(planning));
        Transcript transcript;
        transcript.engine = u"Deepgram"_s;
        transcript.createdAt = QDateTime::currentDateTimeUtc();
        transcript.segments = {{QUuid::createUuid(), 0.5, 2.0, u"Speaker 1"_s, u"Let's look at the roadmap."_s},
                               {QUuid::createUuid(), 2.5, 3.0, u"Me"_s, u"I agree."_s}};
        QVERIFY(store.saveTranscript(transcript, review));

        const auto srt = quillmoor({u"export"_s, u"roadmap r"_s, u"--format"_s, u"srt"_s});
        QVERIFY2(srt->code() == 0, srt->log().constData());
        QCOMPARE(QString::fromUtf8(srt->out), transcript.srt());

        const auto ambiguous = quillmoor({u"export"_s, u"Roadmap"_s, u"--format"_s, u"txt"_s});
        QCOMPARE(ambiguous->code(), 1);
        QVERIFY(ambiguous->err.contains("Roadmap review") && ambiguous->err.contains("Roadmap planning"));

        QCOMPARE(quillmoor({u"rename-speaker"_s, u"Roadmap review"_s, u"Speaker 1"_s, u"Dana"_s})->code(), 0);
        QCOMPARE(quillmoor({u"rename"_s, review.folderPath(), u"Quarterly roadmap"_s})->code(), 0);
        const QString exported = m_home->filePath(u"out.md"_s);
        QCOMPARE(quillmoor({u"export"_s, u"Quarterly"_s, u"--format"_s, u"md"_s, u"-o"_s, exported})->code(), 0);
        QFile markdown(exported);
        QVERIFY(markdown.open(QIODevice::ReadOnly));
        const QString md = QString::fromUtf8(markdown.readAll());
        QVERIFY2(md.startsWith(u"# Quarterly roadmap"_s) && md.contains(u"Dana"_s) && !md.contains(u"Speaker 1"_s),
                 qPrintable(md));
        QFile kept(review.folderPath() + u"/Transcript.md"_s);
        QVERIFY(kept.open(QIODevice::ReadOnly));
        QCOMPARE(QString::fromUtf8(kept.readAll()), md);

        const auto nobody = quillmoor({u"rename-speaker"_s, u"Quarterly"_s, u"Speaker 3"_s, u"Sam"_s});
        QCOMPARE(nobody->code(), 1);
        QVERIFY2(nobody->err.contains("Speaker 1 (Dana)"), nobody->log().constData());

        const auto synced = quillmoor({u"sync"_s, u"--all"_s});
        QVERIFY2(synced->code() == 0, synced->log().constData());
        QFile copy(drive() + u"/Quillmoor/"_s + QFileInfo(review.folderPath()).fileName() + u"/Transcript.md"_s);
        QVERIFY(copy.open(QIODevice::ReadOnly));
        QCOMPARE(QString::fromUtf8(copy.readAll()), md);
        // A Drive folder that can't be made: the app's sentence, and a failure.
        configure({{u"driveRootPath"_s, QString(exported + u"/drive"_s)}});
        const auto refused = quillmoor({u"sync"_s, u"Quarterly"_s});
        QCOMPARE(refused->code(), 1);
        QVERIFY2(refused->err.contains("wasn't copied: "), refused->log().constData());
    }
};

QTEST_GUILESS_MAIN(TestEndToEnd)
#include "tst_endtoend.moc"
