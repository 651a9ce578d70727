#include "library/jsoncoding.h"
#include "library/recording.h"
#include "support/samples.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QTest>
#include <QTimeZone>

using namespace qm;

namespace {

// No optional value set; started in a zone two hours east of UTC, with milliseconds the file drops.
Recording minimal()
{
    Recording r;
    r.id = QUuid(QStringLiteral("{0a1b2c3d-4e5f-6a7b-8c9d-0e1f2a3b4c5d}"));
    r.title = QStringLiteral("Standup");
    r.source = RecordingSource::inPerson;
    r.startedAt = QDateTime(QDate(2025, 3, 4), QTime(14, 5, 9, 750), QTimeZone(7200));
    r.duration = 61.5;
    r.state = ProcessingState::processing;
    return r;
}

QJsonObject objectOf(const QByteArray &json)
{
    return QJsonDocument::fromJson(json).object();
}

QByteArray withValue(const QString &key, const QJsonValue &value)
{
    QJsonObject object = objectOf(JsonCoding::encode(minimal()));
    if (value.isUndefined())
        object.remove(key);
    else
        object.insert(key, value);
    return QJsonDocument(object).toJson();
}

} // namespace

class TestRecording : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void encode_data()
    {
        QTest::addColumn<Recording>("recording");
        QTest::addColumn<QString>("keys"); // every key, in the order the file lists them
        QTest::addColumn<QString>("startedAt");
        QTest::addColumn<QString>("enums");

        Recording full = test::sampleRecording(QStringLiteral("/tmp/x"));
        full.id = minimal().id;

        QTest::newRow("no optional values")
            << minimal()
            << QStringLiteral("duration hasMeetingTrack hasMicrophoneTrack hasVideo id source startedAt state title "
                              "transcriptState")
            << QStringLiteral("2025-03-04T12:05:09Z") << QStringLiteral("inPerson processing none");
        QTest::newRow("every value")
            << full
            << QStringLiteral("driveSyncedAt duration hasMeetingTrack hasMicrophoneTrack hasVideo id lastError "
                              "mediaFileName source startedAt state title transcriptEngine transcriptState")
            << QStringLiteral("2025-03-04T12:05:09Z") << QStringLiteral("systemAudio ready done");
    }

    void encode()
    {
        QFETCH(Recording, recording);
        const QByteArray json = JsonCoding::encode(recording);
        QCOMPARE(json, QJsonDocument::fromJson(json).toJson(QJsonDocument::Indented));
        const QJsonObject object = objectOf(json);
        QTEST(object.keys().join(u' '), "keys");
        QTEST(object.value(QLatin1String("startedAt")).toString(), "startedAt");
        QCOMPARE(object.value(QLatin1String("id")).toString(), QStringLiteral("0A1B2C3D-4E5F-6A7B-8C9D-0E1F2A3B4C5D"));
        QStringList enums;
        for (const char *key : {"source", "state", "transcriptState"})
            enums << object.value(QLatin1String(key)).toString();
        QTEST(enums.join(u' '), "enums");
        if (recording.driveSyncedAt)
            QCOMPARE(object.value(QLatin1String("driveSyncedAt")).toString(), QStringLiteral("2025-03-04T14:00:00Z"));

        // Everything but the folder and the milliseconds comes back.
        const auto decoded = JsonCoding::decodeRecording(json);
        QVERIFY(decoded.has_value());
        Recording expected = recording;
        expected.folder = Recording().folder;
        const QTime t = expected.startedAt.time();
        expected.startedAt.setTime(QTime(t.hour(), t.minute(), t.second()));
        QCOMPARE(*decoded, expected);
    }

    void decode_data()
    {
        QTest::addColumn<QString>("key");
        QTest::addColumn<QJsonValue>("value"); // undefined: the key is removed
        QTest::addColumn<bool>("accepted");

        for (const char *key : {"duration", "hasMeetingTrack", "hasMicrophoneTrack", "hasVideo", "id", "source",
                                "startedAt", "state", "title", "transcriptState"})
            QTest::addRow("no %s", key) << QString::fromLatin1(key) << QJsonValue(QJsonValue::Undefined) << false;

        const auto row = [](const char *name, const char *key, const QJsonValue &value, bool accepted) {
            QTest::newRow(name) << QString::fromLatin1(key) << value << accepted;
        };
        row("title is a number", "title", 5, false);
        row("duration is text", "duration", QStringLiteral("61.5"), false);
        row("hasVideo is text", "hasVideo", QStringLiteral("true"), false);
        row("id is not a UUID", "id", QStringLiteral("standup"), false);
        row("startedAt is not a date", "startedAt", QStringLiteral("yesterday"), false);
        row("unknown state", "state", QStringLiteral("paused"), false);
        row("unknown source", "source", QStringLiteral("teams"), false);
        row("raw values match exactly", "source", QStringLiteral("Zoom"), false);
        row("unknown transcriptState", "transcriptState", QStringLiteral("queued"), false);
        row("unknown key", "colour", QStringLiteral("teal"), true);
        for (const char *key : {"mediaFileName", "transcriptEngine", "lastError", "driveSyncedAt"})
            QTest::addRow("null %s", key) << QString::fromLatin1(key) << QJsonValue(QJsonValue::Null) << true;
    }

    void decode()
    {
        QFETCH(QString, key);
        QFETCH(QJsonValue, value);
        QTEST(JsonCoding::decodeRecording(withValue(key, value)).has_value(), "accepted");
    }

    void audioSourceURLs_data()
    {
        QTest::addColumn<bool>("meeting");
        QTest::addColumn<bool>("microphone");
        QTest::addColumn<QString>("expected"); // file names in the Source folder, in order

        QTest::newRow("both, meeting first") << true << true << QStringLiteral("meeting-audio.m4a microphone.m4a");
        QTest::newRow("microphone only") << false << true << QStringLiteral("microphone.m4a");
    }

    void audioSourceURLs()
    {
        QFETCH(bool, meeting);
        QFETCH(bool, microphone);
        Recording r = test::sampleRecording(QStringLiteral("/rec/Weekly sync"));
        r.hasMeetingTrack = meeting;
        r.hasMicrophoneTrack = microphone;
        QStringList names;
        for (const QUrl &url : r.audioSourceURLs())
            names << url.toLocalFile().remove(QLatin1String("/rec/Weekly sync/Source/"));
        QTEST(names.join(u' '), "expected");
    }
};

QTEST_APPLESS_MAIN(TestRecording)
#include "tst_recording.moc"
