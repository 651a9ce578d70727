#include "capture/captureengine.h"
#include "capture/proc/zoomprocesses.h"
#include "capture/pulse/pulsesoundserver.h"
#include "capture/x11/x11screensource.h"
#include "support/capture/mediaprobe.h"

#include <QCoroTask>
#include <QDir>
#include <QProcess>
#include <QScopeGuard>
#include <QSignalSpy>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

#include <cmath>

using namespace qm;
using namespace qm::test;

namespace {

// A command line's words; none of the arguments in this file contains a space.
QStringList words(const char *line)
{
    return QString::fromLatin1(line).split(u' ');
}

bool pactl(const QString &line, QByteArray *output = nullptr)
{
    QProcess process;
    process.start(QStringLiteral("pactl"), line.split(u' '));
    process.waitForFinished(10000);
    if (output)
        *output = process.readAllStandardOutput().trimmed();
    return process.exitCode() == 0;
}

// A sound server module, loaded for as long as this lives.
struct Module {
    explicit Module(const char *arguments) { pactl(QStringLiteral("load-module ") + QLatin1String(arguments), &id); }
    ~Module() { unload(); }
    bool unload()
    {
        return !id.isEmpty() && pactl(QStringLiteral("unload-module ") + QString::fromLatin1(std::exchange(id, {})));
    }
    QByteArray id;
};

// Energy of one frequency in a mono 8 kHz decode of `path`, relative to the whole signal. Measured over short
// blocks (Goertzel on each) and summed: separate streams start at unrelated phases and a player's underrun shifts
// the phase, which would cancel a single measurement over the whole file.
double share(const QString &path, double hz)
{
    const QByteArray pcm = monoPcm(path, 8000);
    const auto *x = reinterpret_cast<const float *>(pcm.constData());
    const qsizetype n = pcm.size() / 4;
    constexpr qsizetype block = 800; // 0.1 s: bins 10 Hz wide, far narrower than 440 to 1500 Hz
    const double coefficient = 2 * std::cos(2 * M_PI * hz / 8000.0);
    double power = 0, total = 0;
    for (qsizetype start = 0; start + block <= n; start += block) {
        double s1 = 0, s2 = 0;
        for (qsizetype i = start; i < start + block; ++i) {
            const double s0 = x[i] + coefficient * s1 - s2;
            s2 = s1;
            s1 = s0;
            total += double(x[i]) * x[i];
        }
        power += (s1 * s1 + s2 * s2 - coefficient * s1 * s2) * 2 / double(block);
    }
    return total > 0 ? power / total : 0;
}

} // namespace

class TestPulseCapture : public QObject {
    Q_OBJECT

    QTemporaryDir m_dir;
    MonotonicClock m_clock;
    ProcZoomProcesses m_processes;
    QString m_zoom; // paplay under the Zoom client's name

    QString sound(const QString &name, const QString &synth) const
    {
        const QString path = m_dir.filePath(name);
        if (!QFileInfo::exists(path)) {
            QProcess sox;
            sox.start(QStringLiteral("sox"),
                      (words("-n -r 48000 -c 2") << path << QStringLiteral("synth")) + synth.split(u' '));
            sox.waitForFinished(30000);
        }
        return path;
    }

    // Plays with small buffers, as a call client does: a player that buffers seconds ahead lets the server
    // render (and rewind) far ahead of real time, which a per-stream monitor can't follow exactly.
    QProcess *play(const QString &program, const QString &sink, const QString &file)
    {
        auto *player = new QProcess(this);
        // The tool picks raw or file mode from the name it was started under: a copy called "zoom" would play
        // the file's bytes as raw 16-bit 44.1 kHz noise unless told the input is a sound file.
        player->start(program, words("--file-format --latency-msec=20") << QStringLiteral("--device=") + sink << file);
        player->waitForStarted();
        return player;
    }

    CaptureConfiguration configuration(const QString &name, RecordingSource source, bool microphone)
    {
        Recording recording;
        recording.source = source;
        recording.folder = QUrl::fromLocalFile(m_dir.filePath(name));
        CaptureConfiguration c = CaptureConfiguration::forRecording(recording);
        c.includeMicrophone = microphone;
        return c;
    }

    static QString track(const CaptureConfiguration &c, bool meeting = true)
    {
        return (meeting ? c.meetingTrackURL : c.microphoneTrackURL).toLocalFile();
    }

private Q_SLOTS:
    void initTestCase()
    {
        if (!pactl(QStringLiteral("info")))
            QSKIP("No sound server: run the suite through ./scripts/test.");
        m_zoom = m_dir.filePath(QStringLiteral("zoom"));
        QVERIFY(QFile::copy(QStandardPaths::findExecutable(QStringLiteral("paplay")), m_zoom));
        QFile::setPermissions(m_zoom, QFile::ReadOwner | QFile::ExeOwner | QFile::WriteOwner);
    }

    void onlyZoomIsHeardAndItsStreamsAreFollowed()
    {
        // An output of its own, so that nothing but the two players below plays into it.
        const Module call("module-null-sink sink_name=call rate=48000");
        QVERIFY(!call.id.isEmpty());
        const QString low = sound(QStringLiteral("low.wav"), QStringLiteral("2 sine 440"));
        const QString high = sound(QStringLiteral("high.wav"), QStringLiteral("5 sine 1500"));
        QProcess *zoom = play(m_zoom, QStringLiteral("call"), low);
        QTest::qWait(300);

        PulseSoundServer server(m_clock);
        CaptureEngine engine(server, nullptr, m_processes, m_clock);
        const CaptureConfiguration c = configuration(QStringLiteral("Zoom recording"), RecordingSource::zoom, false);
        const auto started = QCoro::waitFor(engine.start(c));
        QVERIFY2(started, started ? "" : qPrintable(started.error().description()));
        QProcess *other = play(QStringLiteral("paplay"), QStringLiteral("call"), high);
        zoom->waitForFinished(10000);
        // Zoom closes its stream and opens a new one, as it does when the audio device is switched.
        QProcess *again = play(m_zoom, QStringLiteral("call"), low);
        again->waitForFinished(10000);
        other->waitForFinished(10000);
        const CaptureResult result = QCoro::waitFor(engine.stop());
        QVERIFY(result.meeting);

        QVERIFY2(share(track(c), 440) > 0.3, qPrintable(QString::number(share(track(c), 440))));
        QVERIFY2(share(track(c), 1500) < 0.01, qPrintable(QString::number(share(track(c), 1500))));
        // Both of Zoom's streams made it in: about 4 s of tone, not 2.
        const QVector<double> levels = loudness(track(c), 0.5);
        const auto loud = std::count_if(levels.begin(), levels.end(), [](double level) { return level > 0.1; });
        QVERIFY2(loud >= 6, qPrintable(QString::number(loud)));
    }

    void systemAudioFollowsAChangeOfOutput()
    {
        const Module headphones("module-null-sink sink_name=headphones rate=48000");
        QVERIFY(!headphones.id.isEmpty());
        auto restore = qScopeGuard([] { pactl(QStringLiteral("set-default-sink speakers")); });
        const QString tone = sound(QStringLiteral("tone1.wav"), QStringLiteral("1 sine 660"));

        PulseSoundServer server(m_clock);
        CaptureEngine engine(server, nullptr, m_processes, m_clock);
        const CaptureConfiguration c = configuration(QStringLiteral("system"), RecordingSource::systemAudio, false);
        QVERIFY(QCoro::waitFor(engine.start(c)));
        play(QStringLiteral("paplay"), QStringLiteral("speakers"), tone)->waitForFinished(10000);
        QVERIFY(pactl(QStringLiteral("set-default-sink headphones")));
        QTest::qWait(300);
        play(QStringLiteral("paplay"), QStringLiteral("headphones"), tone)->waitForFinished(10000);
        QVERIFY(QCoro::waitFor(engine.stop()).meeting);

        const QVector<double> levels = loudness(track(c), 0.25);
        const auto loud = std::count_if(levels.begin(), levels.end(), [](double level) { return level > 0.1; });
        QVERIFY2(loud >= 7, qPrintable(QString::number(loud))); // both seconds of tone, one per output
    }

    void tracksStartedTogetherStayAligned()
    {
        // A real input that hears exactly what the speakers play, so one click reaches both tracks.
        const Module echo("module-remap-source master=speakers.monitor source_name=echo channels=1");
        QVERIFY(!echo.id.isEmpty());
        const QString click = sound(QStringLiteral("click.wav"), QStringLiteral("0.02 square 1000"));

        PulseSoundServer server(m_clock);
        CaptureEngine engine(server, nullptr, m_processes, m_clock);
        CaptureConfiguration c = configuration(QStringLiteral("aligned"), RecordingSource::systemAudio, true);
        c.microphoneID = QStringLiteral("echo");
        QVERIFY(QCoro::waitFor(engine.start(c)));
        QTest::qWait(700);
        play(QStringLiteral("paplay"), QStringLiteral("speakers"), click)->waitForFinished(10000);
        QTest::qWait(500);
        const CaptureResult result = QCoro::waitFor(engine.stop());
        QVERIFY(result.meeting && result.microphone);

        const double meeting = onset(track(c), 0.2f);
        const double microphone = onset(track(c, false), 0.2f);
        QVERIFY2(meeting > 0.3 && std::fabs(meeting - microphone) < 0.02,
                 qPrintable(QStringLiteral("meeting %1 s, microphone %2 s").arg(meeting).arg(microphone)));
    }

    void anUnpluggedMicrophoneIsReported()
    {
        Module usb("module-remap-source master=room.monitor source_name=usb_mic");
        QVERIFY(!usb.id.isEmpty());
        PulseSoundServer server(m_clock);
        CaptureEngine engine(server, nullptr, m_processes, m_clock);
        QSignalSpy failures(&engine, &CaptureEngine::failed);
        CaptureConfiguration c = configuration(QStringLiteral("unplugged"), RecordingSource::inPerson, true);
        c.microphoneID = QStringLiteral("usb_mic");
        QVERIFY(QCoro::waitFor(engine.start(c)));
        QTest::qWait(500);
        QVERIFY(usb.unload());
        QTRY_COMPARE_WITH_TIMEOUT(failures.count(), 1, 5000);
        QCOMPARE(failures.first().first().toString(),
                 QStringLiteral("The microphone stopped sending sound. Was it unplugged?"));
        QVERIFY(QCoro::waitFor(engine.stop()).microphone); // what was recorded before is kept
    }

    void screenAndSoundAreCapturedTogether()
    {
        if (qEnvironmentVariableIsEmpty("DISPLAY"))
            QSKIP("No X display: run the suite through ./scripts/test.");
        // A window of one known colour over the whole screen (there is no window manager to move it).
        QProcess painter;
        painter.start(QStringLiteral("xmessage"), words("-bg #1e50c8 -geometry 1920x1080+0+0") << QStringLiteral(" "));
        QVERIFY(painter.waitForStarted());
        auto close = qScopeGuard([&] {
            painter.kill();
            painter.waitForFinished();
        });
        QTest::qWait(500);
        const QString tone = sound(QStringLiteral("tone2.wav"), QStringLiteral("2 sine 550"));
        PulseSoundServer server(m_clock);
        X11ScreenSource screen;
        CaptureEngine engine(server, &screen, m_processes, m_clock);
        CaptureConfiguration c = configuration(QStringLiteral("filmed"), RecordingSource::systemAudio, false);
        c.captureVideo = true;
        c.frameRate = 10;
        const auto started = QCoro::waitFor(engine.start(c));
        QVERIFY2(started, started ? "" : qPrintable(started.error().description()));
        QVERIFY(!engine.videoDescription().isEmpty());
        play(QStringLiteral("paplay"), QStringLiteral("speakers"), tone)->waitForFinished(10000);
        const CaptureResult result = QCoro::waitFor(engine.stop());
        QVERIFY(result.meeting && result.screen);

        const QString movie = c.screenURL.toLocalFile();
        QCOMPARE(codecName(movie, "v"), QStringLiteral("h264"));
        QVERIFY2(std::fabs(mediaSeconds(movie) - mediaSeconds(track(c))) < 0.5,
                 qPrintable(QStringLiteral("%1 vs %2").arg(mediaSeconds(movie)).arg(mediaSeconds(track(c)))));
        QProcess frame;
        frame.start(QStringLiteral("ffmpeg"), QStringList{QStringLiteral("-i"), movie} +
                                                  words("-v error -frames:v 1 -f rawvideo -pix_fmt rgb24 -"));
        frame.waitForFinished(60000);
        const QByteArray rgb = frame.readAllStandardOutput();
        QCOMPARE(rgb.size(), 1920 * 1080 * 3);
        const auto at = std::size_t(100 * 1920 + 100) * 3; // away from the message's text
        QVERIFY2(std::abs(int(quint8(rgb[qsizetype(at)])) - 0x1e) < 12 &&
                     std::abs(int(quint8(rgb[qsizetype(at + 1)])) - 0x50) < 12 &&
                     std::abs(int(quint8(rgb[qsizetype(at + 2)])) - 0xc8) < 12,
                 qPrintable(QStringLiteral("%1 %2 %3")
                                .arg(quint8(rgb[qsizetype(at)]))
                                .arg(quint8(rgb[qsizetype(at + 1)]))
                                .arg(quint8(rgb[qsizetype(at + 2)]))));
    }

    void aMonitorIsNeverAMicrophone()
    {
        QVERIFY(pactl(QStringLiteral("set-default-source speakers.monitor")));
        auto restore = qScopeGuard([] { pactl(QStringLiteral("set-default-source microphone")); });
        PulseSoundServer server(m_clock);
        CaptureEngine engine(server, nullptr, m_processes, m_clock);
        CaptureConfiguration c = configuration(QStringLiteral("monitor"), RecordingSource::inPerson, true);
        c.microphoneID = QStringLiteral("room.monitor");
        const auto started = QCoro::waitFor(engine.start(c));
        QVERIFY(!started);
        QCOMPARE(started.error().error, std::optional(CaptureError::microphoneUnavailable));
    }
};

QTEST_GUILESS_MAIN(TestPulseCapture)
#include "tst_pulsecapture.moc"
