// The two export formats beyond the transcript's own renderings: WebVTT and JSON with speaker names applied.

#include "library/jsoncoding.h"
#include "library/transcriptexport.h"
#include "support/samples.h"

#include <QTest>

using namespace qm;

class TestTranscriptExport : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void webVTT()
    {
        Transcript t = test::sampleTranscript();
        t.speakerNames.insert(QStringLiteral("Speaker 1"), QStringLiteral("Ada <PM>"));
        t.segments[0].text = QStringLiteral("Good morning &\nwelcome.");
        t.segments[2].end = t.segments[2].start; // a cue shorter than half a second is stretched
        QCOMPARE(qm::webVTT(t), QStringLiteral("WEBVTT\n"
                                               "\n00:00:00.000 --> 00:00:04.200\n<v Me>Good morning &amp; welcome.\n"
                                               "\n00:00:04.200 --> 00:00:09.900\n<v Ada &lt;PM&gt;>Morning, shall we "
                                               "start?\n"
                                               "\n01:00:00.000 --> 01:00:00.500\n<v Me>That's all.\n"));
        QCOMPARE(extension(TranscriptFormat::webVTT), QStringLiteral("vtt"));
    }

    void jsonCarriesDisplayNames()
    {
        Transcript t = test::sampleTranscript();
        t.speakerNames.insert(QStringLiteral("Speaker 1"), QStringLiteral("Ada"));
        const auto decoded =
            JsonCoding::decodeTranscript(render(TranscriptFormat::json, t, test::sampleRecording()).toUtf8());
        QVERIFY(decoded.has_value());
        QCOMPARE(decoded->segments.at(1).speaker, std::optional(QStringLiteral("Ada")));
        QCOMPARE(decoded->segments.at(0).speaker, std::optional(QStringLiteral("Me")));
        QVERIFY(decoded->speakerNames.isEmpty());
        QCOMPARE(decoded->segments.at(1).text, t.segments.at(1).text);
    }
};

QTEST_GUILESS_MAIN(TestTranscriptExport)
#include "tst_transcriptexport.moc"
