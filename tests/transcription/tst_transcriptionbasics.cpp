#include "support/providers/segmentlines.h"
#include "transcription/multipartform.h"
#include "transcription/segmenttidy.h"
#include "transcription/transcriptionservice.h"
#include "transcription/wordgrouping.h"

#include <QTest>

using namespace qm;
using namespace qm::test;

namespace {

using Speaker = std::optional<QString>;

TimedWord word(const char *text, double start, double end, Speaker speaker = std::nullopt)
{
    return {QString::fromUtf8(text), start, end, speaker};
}

TranscriptSegment segment(double start, double end, const QString &text, Speaker speaker = std::nullopt)
{
    return {QUuid::createUuid(), start, end, speaker, text};
}

const Speaker A = QStringLiteral("A");
const Speaker B = QStringLiteral("B");

} // namespace

Q_DECLARE_METATYPE(QList<TimedWord>)
Q_DECLARE_METATYPE(QList<TranscriptSegment>)

class TestTranscriptionBasics : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void groupWords_data()
    {
        QTest::addColumn<QList<TimedWord>>("words");
        QTest::addColumn<QStringList>("expected");

        QTest::newRow("punctuation as its own word attaches without a space")
            << QList<TimedWord>{word("Hello", 0, 0.4, A), word(",", 0.4, 0.45, A), word("world", 0.5, 0.9, A)}
            << QStringList{QStringLiteral("0-0.9 A: Hello, world")};
        QTest::newRow("a pause of exactly 1.5 s keeps the words together")
            << QList<TimedWord>{word("one", 0, 1), word("two", 2.5, 3)}
            << QStringList{QStringLiteral("0-3 -: one two")};
        QTest::newRow("1.51 s splits") << QList<TimedWord>{word("one", 0, 1), word("two", 2.51, 3)}
                                       << QStringList{QStringLiteral("0-1 -: one"), QStringLiteral("2.51-3 -: two")};
        QTest::newRow("a change of speaker splits")
            << QList<TimedWord>{word("one", 0, 1, A), word("two", 1, 2, B), word("three", 2, 3, B)}
            << QStringList{QStringLiteral("0-1 A: one"), QStringLiteral("1-3 B: two three")};
        // One word per second from 0 s; the last word of the run is `last`.
        const auto run = [](int seconds, const char *last) {
            QList<TimedWord> words;
            for (int i = 0; i < seconds - 1; ++i)
                words.append(word("w", i, i + 1));
            words.append(word(last, seconds - 1, seconds));
            return words;
        };
        const QString body40 = QStringLiteral("w ").repeated(39);
        const QString body41 = QStringLiteral("w ").repeated(40);
        QTest::newRow("over 40 s a sentence end closes the segment")
            << run(41, "end.") + QList<TimedWord>{word("Next", 41, 42)}
            << QStringList{QStringLiteral("0-41 -: ") + body41 + QStringLiteral("end."),
                           QStringLiteral("41-42 -: Next")};
        QTest::newRow("over 40 s without a sentence end it grows")
            << run(41, "end") + QList<TimedWord>{word("Next", 41, 42)}
            << QStringList{QStringLiteral("0-42 -: ") + body41 + QStringLiteral("end Next")};
        QTest::newRow("at 40 s exactly a sentence end does not close it")
            << run(40, "end.") + QList<TimedWord>{word("Next", 40, 41)}
            << QStringList{QStringLiteral("0-41 -: ") + body40 + QStringLiteral("end. Next")};
        QTest::newRow("blank words neither split nor extend")
            << QList<TimedWord>{word("one", 0, 1), word(" \t", 1, 9), word("two", 2, 2.5)}
            << QStringList{QStringLiteral("0-2.5 -: one two")};
        QTest::newRow("an overlap continues and the end follows the last word")
            << QList<TimedWord>{word("one", 0, 2), word("two", 1.5, 1.8)}
            << QStringList{QStringLiteral("0-1.8 -: one two")};
        QTest::newRow("all blank") << QList<TimedWord>{word("  ", 0, 1)} << QStringList{};
    }
    void groupWords()
    {
        QFETCH(QList<TimedWord>, words);
        QFETCH(QStringList, expected);
        QCOMPARE(segmentLines(qm::groupWords(words, QStringLiteral(" "))), expected);
    }

    void tidy_data()
    {
        QTest::addColumn<QList<TranscriptSegment>>("segments");
        QTest::addColumn<QStringList>("expected");

        const QString tenChars = QStringLiteral("abcdefghij");
        QTest::newRow("gap of 1.49 s merges")
            << QList<TranscriptSegment>{segment(0, 1, QStringLiteral("a"), A), segment(2.49, 3, QStringLiteral("b"), A)}
            << QStringList{QStringLiteral("0-3 A: a b")};
        QTest::newRow("gap of 1.5 s does not")
            << QList<TranscriptSegment>{segment(0, 1, QStringLiteral("a"), A), segment(2.5, 3, QStringLiteral("b"), A)}
            << QStringList{QStringLiteral("0-1 A: a"), QStringLiteral("2.5-3 A: b")};
        QTest::newRow("different speakers never merge")
            << QList<TranscriptSegment>{segment(0, 1, QStringLiteral("a"), A), segment(1, 2, QStringLiteral("b"), B)}
            << QStringList{QStringLiteral("0-1 A: a"), QStringLiteral("1-2 B: b")};
        QTest::newRow("a span reaching 45 s stops the run")
            << QList<TranscriptSegment>{segment(0, 20, QStringLiteral("a")), segment(20, 44.9, QStringLiteral("b")),
                                        segment(45, 46, QStringLiteral("c"))}
            << QStringList{QStringLiteral("0-44.9 -: a b"), QStringLiteral("45-46 -: c")};
        QTest::newRow("599 characters merge, 600 do not")
            << QList<TranscriptSegment>{segment(0, 1, tenChars.repeated(59)),
                                        segment(1, 2, QStringLiteral("123456789")), segment(2, 3, QStringLiteral("x"))}
            << QStringList{QStringLiteral("0-2 -: ") + tenChars.repeated(59) + QStringLiteral(" 123456789"),
                           QStringLiteral("2-3 -: x")};
        QTest::newRow("characters are counted as a reader sees them")
            << QList<TranscriptSegment>{segment(0, 1, QString(QStringLiteral("e\u0301")).repeated(590)),
                                        segment(1, 2, QStringLiteral("123456789"))}
            << QStringList{QStringLiteral("0-2 -: ") + QString(QStringLiteral("e\u0301")).repeated(590) +
                           QStringLiteral(" 123456789")};
        QTest::newRow("an overlap merges and keeps the later end")
            << QList<TranscriptSegment>{segment(0, 5, QStringLiteral("a")), segment(1, 3, QStringLiteral("b"))}
            << QStringList{QStringLiteral("0-5 -: a b")};
        QTest::newRow("blank texts vanish and texts are trimmed")
            << QList<TranscriptSegment>{segment(0, 1, QStringLiteral(" \n ")),
                                        segment(5, 6, QStringLiteral("\t hi \n"))}
            << QStringList{QStringLiteral("5-6 -: hi")};
    }
    void tidy()
    {
        QFETCH(QList<TranscriptSegment>, segments);
        QFETCH(QStringList, expected);
        const QList<TranscriptSegment> out = qm::tidy(segments);
        QCOMPARE(segmentLines(out), expected);
        if (!out.isEmpty() && !segments.isEmpty() && !segments.first().text.trimmed().isEmpty())
            QCOMPARE(out.first().id, segments.first().id);
    }

    // A provider's words stay with the segment they were grouped into, punctuation with its word, and tidy's
    // merge keeps both segments' words.
    void wordsTravelWithTheirSegments()
    {
        const QList<TranscriptSegment> grouped = qm::groupWords(
            {word("Hello", 0, 0.4), word(",", 0.4, 0.45), word("world", 0.5, 0.9), word("Again", 3, 3.5)},
            QStringLiteral(" "));
        QCOMPARE(grouped.size(), 2);
        QCOMPARE(grouped[0].words,
                 (QList<TranscriptWord>{{0, 0.45, QStringLiteral("Hello,")}, {0.5, 0.9, QStringLiteral("world")}}));
        QList<TranscriptSegment> close = grouped;
        close[1].start = 1.0;
        const QList<TranscriptSegment> merged = qm::tidy(close);
        QCOMPARE(merged.size(), 1);
        QCOMPARE(merged[0].words, grouped[0].words + grouped[1].words);
    }

    void normalizeSpeakersNumbersInOrderOfFirstAppearance()
    {
        QList<TranscriptSegment> segments{segment(0, 1, QStringLiteral("x"), A), segment(1, 2, QStringLiteral("x"), B),
                                          segment(2, 3, QStringLiteral("x")), segment(3, 4, QStringLiteral("x"), A),
                                          segment(4, 5, QStringLiteral("x"), QStringLiteral("speaker_7"))};
        normalizeSpeakers(segments);
        QStringList labels;
        for (const TranscriptSegment &s : segments)
            labels.append(s.speaker.value_or(QStringLiteral("-")));
        QCOMPARE(labels, (QStringList{QStringLiteral("Speaker 1"), QStringLiteral("Speaker 2"), QStringLiteral("-"),
                                      QStringLiteral("Speaker 1"), QStringLiteral("Speaker 3")}));
    }

    // The loopback services read every form byte for byte; what they can't see is a boundary that never changes
    // and so could turn up inside the audio.
    void everyFormHasItsOwnBoundary()
    {
        const QString boundary = MultipartForm::withNewBoundary().boundary;
        QVERIFY(boundary.startsWith(QLatin1String("Quillmoor-")));
        QVERIFY(boundary != MultipartForm::withNewBoundary().boundary);
    }

    void plan_data()
    {
        QTest::addColumn<TranscriptionProvider>("provider");
        QTest::addColumn<bool>("labelMyVoice");
        QTest::addColumn<bool>("microphone");
        QTest::addColumn<bool>("detectSpeakers");
        QTest::addColumn<QString>("myName");
        QTest::addColumn<QStringList>("expected"); // per job: "files|speaker|diarize|label"

        const auto cloud = TranscriptionProvider::deepgram;
        const auto local = TranscriptionProvider::onDevice;
        QTest::newRow("blank name becomes Me, no diarization gives Participants")
            << cloud << true << true << false << QStringLiteral("   ")
            << QStringList{QStringLiteral("microphone.m4a|Me|0|your microphone"),
                           QStringLiteral("meeting-audio.m4a|Participants|0|meeting audio")};
        QTest::newRow("on-device never diarizes")
            << local << true << true << true << QString()
            << QStringList{QStringLiteral("microphone.m4a|Me|0|your microphone"),
                           QStringLiteral("meeting-audio.m4a|Participants|0|meeting audio")};
        QTest::newRow("label off: one pass over both tracks")
            << cloud << false << true << true << QString()
            << QStringList{QStringLiteral("meeting-audio.m4a,microphone.m4a|-|1|recording")};
    }
    void plan()
    {
        QFETCH(TranscriptionProvider, provider);
        QFETCH(bool, labelMyVoice);
        QFETCH(bool, microphone);
        QFETCH(bool, detectSpeakers);
        QFETCH(QString, myName);
        QFETCH(QStringList, expected);

        Recording recording;
        recording.folder = QUrl::fromLocalFile(QStringLiteral("/library/2026-01-05 10-00 Zoom Meeting"));
        recording.hasMeetingTrack = true;
        recording.hasMicrophoneTrack = microphone;
        TranscriptionOptions options{provider, TranscriptionLanguage::automatic, detectSpeakers, labelMyVoice, myName,
                                     {}};

        QStringList jobs;
        for (const TranscriptionService::Job &job : TranscriptionService::plan(recording, options)) {
            QStringList files;
            for (const QUrl &source : job.sources) {
                QVERIFY(source.toLocalFile().startsWith(recording.folderPath() + QLatin1String("/Source/")));
                files.append(source.fileName());
            }
            jobs.append(QStringLiteral("%1|%2|%3|%4")
                            .arg(files.join(u','), job.fixedSpeaker.value_or(QStringLiteral("-")))
                            .arg(int(job.diarize))
                            .arg(job.label));
        }
        QCOMPARE(jobs, expected);
    }
};

QTEST_GUILESS_MAIN(TestTranscriptionBasics)
#include "tst_transcriptionbasics.moc"
