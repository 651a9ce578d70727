#include "library/formatters.h"
#include "library/jsoncoding.h"
#include "library/transcript.h"
#include "support/samples.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QTest>

using namespace qm;

namespace {

TranscriptSegment segment(double start, double end, const std::optional<QString> &speaker, const QString &text)
{
    return {QUuid::createUuid(), start, end, speaker, text};
}

Transcript renamed()
{
    Transcript t = test::sampleTranscript();
    t.speakerNames.insert(QStringLiteral("Speaker 1"), QStringLiteral("Dana"));
    return t;
}

Transcript withoutSpeakers()
{
    Transcript t = test::sampleTranscript();
    t.model.reset();
    for (TranscriptSegment &s : t.segments)
        s.speaker.reset();
    return t;
}

// One segment of `speaker` whose words, `seconds` long each, start at `start`.
Transcript spoken(const QStringList &words, double start, double seconds, const QString &speaker)
{
    TranscriptSegment s = segment(start, start + seconds * double(words.size()), speaker, words.join(u' '));
    for (const QString &word : words) {
        s.words.append({start, start + seconds, word});
        start += seconds;
    }
    Transcript t;
    t.segments = {s};
    return t;
}

QJsonObject objectOf(const QByteArray &json)
{
    return QJsonDocument::fromJson(json).object();
}

} // namespace

class TestTranscript : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void speakersInOrderOfFirstAppearance()
    {
        Transcript t;
        t.segments = {segment(0, 1, QStringLiteral("Speaker 2"), {}), segment(1, 2, std::nullopt, {}),
                      segment(2, 3, QStringLiteral("Speaker 1"), {}), segment(3, 4, QStringLiteral("Speaker 2"), {})};
        QCOMPARE(t.speakers(), QStringList({QStringLiteral("Speaker 2"), QStringLiteral("Speaker 1")}));
    }

    void nameFor_data()
    {
        QTest::addColumn<QString>("mapped"); // null: no entry in speakerNames
        QTest::addColumn<QString>("expected");

        QTest::newRow("not renamed") << QString() << QStringLiteral("Speaker 1");
        QTest::newRow("renamed") << QStringLiteral("Dana") << QStringLiteral("Dana");
        QTest::newRow("spaces and tabs trimmed") << QStringLiteral(" \tDana Ross\t ") << QStringLiteral("Dana Ross");
        QTest::newRow("line breaks are not trimmed") << QStringLiteral(" Dana\n") << QStringLiteral("Dana\n");
        QTest::newRow("blank restores the label") << QStringLiteral("  \t ") << QStringLiteral("Speaker 1");
    }

    void nameFor()
    {
        QFETCH(QString, mapped);
        Transcript t;
        if (!mapped.isNull())
            t.speakerNames.insert(QStringLiteral("Speaker 1"), mapped);
        QTEST(t.nameFor(QStringLiteral("Speaker 1")).value_or(QStringLiteral("<none>")), "expected");
        QCOMPARE(t.nameFor(std::nullopt), std::nullopt);
    }

    void plainText_data()
    {
        QTest::addColumn<Transcript>("transcript");
        QTest::addColumn<bool>("timestamps");
        QTest::addColumn<QString>("expected");

        QTest::newRow("timestamps") << renamed() << true
                                    << QStringLiteral("[00:00] Me: Good morning.\n\n[00:04] Dana: Morning, shall we "
                                                      "start?\n\n[1:00:00] Me: That's all.");
        QTest::newRow("no timestamps") << renamed() << false
                                       << QStringLiteral(
                                              "Me: Good morning.\n\nDana: Morning, shall we start?\n\nMe: That's all.");
        QTest::newRow("no speakers") << withoutSpeakers() << true
                                     << QStringLiteral(
                                            "[00:00] Good morning.\n\n[00:04] Morning, shall we start?\n\n[1:00:00] "
                                            "That's all.");
    }

    void plainText()
    {
        QFETCH(Transcript, transcript);
        QFETCH(bool, timestamps);
        QTEST(transcript.plainText(timestamps), "expected");
    }

    void markdown_data()
    {
        QTest::addColumn<Transcript>("transcript");
        QTest::addColumn<QString>("expected"); // %1 stands for the long date

        QTest::newRow("speakers and model")
            << renamed()
            << QStringLiteral("# Weekly sync\n\n- **Date:** %1\n- **Duration:** 1h 2m\n- **Speakers:** Me, Dana\n"
                              "- **Transcribed with:** Deepgram (nova-3)\n\n---\n\n"
                              "**[00:00] Me:** Good morning.\n\n**[00:04] Dana:** Morning, shall we start?\n\n"
                              "**[1:00:00] Me:** That's all.\n\n");
        QTest::newRow("no speakers, no model")
            << withoutSpeakers()
            << QStringLiteral("# Weekly sync\n\n- **Date:** %1\n- **Duration:** 1h 2m\n"
                              "- **Transcribed with:** Deepgram\n\n---\n\n"
                              "**[00:00]:** Good morning.\n\n**[00:04]:** Morning, shall we start?\n\n"
                              "**[1:00:00]:** That's all.\n\n");
    }

    void markdown()
    {
        QFETCH(Transcript, transcript);
        QFETCH(QString, expected);
        const Recording recording = test::sampleRecording();
        QCOMPARE(transcript.markdown(recording), expected.arg(Formatters::longDate(recording.startedAt)));
    }

    void srt_data()
    {
        QTest::addColumn<Transcript>("transcript");
        QTest::addColumn<QString>("expected");

        QTest::newRow("numbered cues") << renamed()
                                       << QStringLiteral(
                                              "1\n00:00:00,000 --> 00:00:04,200\nMe: Good morning.\n\n"
                                              "2\n00:00:04,200 --> 00:00:09,900\nDana: Morning, shall we "
                                              "start?\n\n3\n01:00:00,000 --> 01:00:01,000\nMe: That's all.\n");
        QTest::newRow("empty") << Transcript() << QString();
        // Players skip cues too short to see, so each lasts at least half a second.
        const auto oneCue = [](double end) {
            Transcript t;
            t.segments = {segment(10, end, std::nullopt, QStringLiteral("Hi."))};
            return t;
        };
        const QString stretched = QStringLiteral("1\n00:00:10,000 --> 00:00:10,500\nHi.\n");
        QTest::newRow("zero length") << oneCue(10) << stretched;
        QTest::newRow("end before start") << oneCue(9) << stretched;
        QTest::newRow("long enough") << oneCue(12) << QStringLiteral("1\n00:00:10,000 --> 00:00:12,000\nHi.\n");

        // With words, cues are cut at word boundaries.
        Transcript pause;
        pause.segments = {segment(0, 9, QStringLiteral("Dana"), QStringLiteral("Hello there, this is fine."))};
        pause.segments[0].words = {{0, 1, QStringLiteral("Hello")},
                                   {1, 2, QStringLiteral("there,")},
                                   {6, 7.5, QStringLiteral("this")},
                                   {7.5, 8, QStringLiteral("is")},
                                   {8, 9, QStringLiteral("fine.")}};
        QTest::newRow("words: at most 7 s")
            << pause
            << QStringLiteral("1\n00:00:00,000 --> 00:00:02,000\nDana: Hello there,\n\n"
                              "2\n00:00:06,000 --> 00:00:09,000\nDana: this is fine.\n");
        QTest::newRow("words: two lines of at most 42 characters")
            << spoken(QStringLiteral("Good morning everyone, today we review the plan for the new office.").split(u' '),
                      10, 0.25, QStringLiteral("Dana"))
            << QStringLiteral("1\n00:00:10,000 --> 00:00:13,000\nDana: Good morning everyone, today we\n"
                              "review the plan for the new office.\n");
    }

    void srt()
    {
        QFETCH(Transcript, transcript);
        QTEST(transcript.srt(), "expected");
    }

    // A 40-s segment with words becomes cues of at most 7 s and two lines of 42 characters that together say the
    // whole text.
    void srtCutsLongSegmentsAtWords()
    {
        const QStringList names{QStringLiteral("alpha"), QStringLiteral("bravo"), QStringLiteral("charlie"),
                                QStringLiteral("delta"), QStringLiteral("echo"),  QStringLiteral("foxtrot"),
                                QStringLiteral("kilo")};
        QStringList words;
        for (int i = 0; i < 100; ++i)
            words.append(names[(i * 5) % names.size()] + (i % 9 == 8 ? QStringLiteral(".") : QString()));
        const Transcript t = spoken(words, 3, 0.4, QStringLiteral("Speaker 1"));
        QCOMPARE(t.segments[0].end, 43.0);

        QStringList said;
        const QStringList cues = t.srt().split(QStringLiteral("\n\n"));
        QVERIFY(cues.size() >= 6);
        for (const QString &cue : cues) {
            const QStringList lines = cue.trimmed().split(u'\n');
            QVERIFY2(lines.size() == 3 || lines.size() == 4, qPrintable(cue));
            const QStringList times = lines[1].split(QStringLiteral(" --> "));
            const QTime from = QTime::fromString(times[0], QStringLiteral("HH:mm:ss,zzz"));
            const QTime to = QTime::fromString(times[1], QStringLiteral("HH:mm:ss,zzz"));
            QVERIFY2(from.isValid() && to.isValid() && from.msecsTo(to) <= 7000, qPrintable(cue));
            for (const QString &line : lines.mid(2))
                QVERIFY2(line.size() <= 42, qPrintable(line));
            said.append(lines.mid(2).join(u' ').mid(QStringLiteral("Speaker 1: ").size()));
        }
        QCOMPARE(said.join(u' '), t.segments[0].text);
    }

    void isRightToLeft_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<bool>("expected");

        QTest::newRow("empty") << QString() << false;
        QTest::newRow("digits and punctuation only") << QStringLiteral("12:30 - !") << false;
        QTest::newRow("digits then Hebrew") << QStringLiteral("2025 שלום") << true;
        QTest::newRow("Latin word then Hebrew") << QStringLiteral("hello שלום") << false;
        QTest::newRow("Cyrillic is skipped") << QStringLiteral("Привет שלום") << true;
        QTest::newRow("Hebrew presentation form") << QStringLiteral("\uFB1D") << true;
        QTest::newRow("Chinese") << QStringLiteral("你好") << false;
    }

    void isRightToLeft()
    {
        QFETCH(QString, text);
        QTEST(qm::isRightToLeft(text), "expected");
    }

    void json_data()
    {
        QTest::addColumn<Transcript>("transcript");
        QTest::addColumn<QString>("keys");
        QTest::addColumn<QString>("segmentKeys");

        Transcript bare = withoutSpeakers();
        bare.language.reset();
        QTest::newRow("every value") << renamed()
                                     << QStringLiteral("createdAt engine language model segments speakerNames")
                                     << QStringLiteral("end id speaker start text");
        QTest::newRow("absent values left out")
            << bare << QStringLiteral("createdAt engine segments speakerNames") << QStringLiteral("end id start text");
        Transcript timed = renamed();
        timed.segments[0].words = {{0, 0.5, QStringLiteral("Good")}, {0.5, 1.25, QStringLiteral("morning.")}};
        QTest::newRow("word times") << timed << QStringLiteral("createdAt engine language model segments speakerNames")
                                    << QStringLiteral("end id speaker start text words");
    }

    void json()
    {
        QFETCH(Transcript, transcript);
        const QByteArray json = JsonCoding::encode(transcript);
        const QJsonObject object = objectOf(json);
        QTEST(object.keys().join(u' '), "keys");
        QTEST(object.value(QLatin1String("segments"))[0].toObject().keys().join(u' '), "segmentKeys");
        QCOMPARE(object.value(QLatin1String("createdAt")).toString(), QStringLiteral("2025-03-04T14:01:02Z"));

        const auto decoded = JsonCoding::decodeTranscript(json);
        QVERIFY(decoded.has_value());
        QCOMPARE(*decoded, transcript);
    }

    void jsonDecodeRejects_data()
    {
        QTest::addColumn<QByteArray>("key");
        // The last four only occur in segments.
        for (const char *key : {"engine", "createdAt", "segments", "speakerNames", "id", "start", "end", "text"})
            QTest::addRow("no %s", key) << QByteArray(key);
    }

    void jsonDecodeRejects()
    {
        QFETCH(QByteArray, key);
        QByteArray json = JsonCoding::encode(renamed());
        const QByteArray quoted = '"' + key + "\":";
        QVERIFY(json.contains(quoted));
        json.replace(quoted, QByteArray("\"x" + quoted.mid(1)));
        QVERIFY(!JsonCoding::decodeTranscript(json).has_value());
    }
};

QTEST_APPLESS_MAIN(TestTranscript)
#include "tst_transcript.moc"
