#include "roundtrip.h"

#include <QDir>
#include <QFile>
#include <QTest>

using namespace qm;

namespace {

QDir regressionsDir()
{
    return QDir(qEnvironmentVariable("QM_TEST_DATA") + QStringLiteral("/fuzz-regressions"));
}

QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

} // namespace

// Every input the fuzzers kept, fed again to the decoder its name starts with.
class TestFuzzRegressions : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void replay_data()
    {
        QTest::addColumn<QString>("path");
        const QFileInfoList files = regressionsDir().entryInfoList(QDir::Files, QDir::Name);
        QVERIFY2(!files.isEmpty(), qPrintable(QStringLiteral("nothing in ") + regressionsDir().path()));
        for (const QFileInfo &file : files)
            QTest::newRow(qPrintable(file.fileName())) << file.filePath();
    }

    void replay()
    {
        QFETCH(QString, path);
        const QString name = QFileInfo(path).fileName();
        const QByteArray json = readFile(path);
        QString failure;
        if (name.startsWith(QLatin1String("recording-")))
            failure = fuzz::recordingRoundTripFailure(json);
        else if (name.startsWith(QLatin1String("transcript-")))
            failure = fuzz::transcriptRoundTripFailure(json);
        else
            QFAIL("the name must start with recording- or transcript- to pick a decoder");
        QVERIFY2(failure.isEmpty(), qPrintable(failure));
    }

    // Without an accepted input the replay above only proves that the decoders reject things.
    void samplesReachTheRoundTrip()
    {
        const QDir dir = regressionsDir();
        QVERIFY(JsonCoding::decodeRecording(readFile(dir.filePath(QStringLiteral("recording-valid.json")))));
        QVERIFY(JsonCoding::decodeRecording(readFile(dir.filePath(QStringLiteral("recording-offset-dates.json")))));
        QVERIFY(JsonCoding::decodeTranscript(readFile(dir.filePath(QStringLiteral("transcript-valid.json")))));
    }
};

QTEST_GUILESS_MAIN(TestFuzzRegressions)
#include "tst_fuzzregressions.moc"
