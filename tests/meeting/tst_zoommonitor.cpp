#include "faketicker.h"
#include "meeting/zoommonitor.h"

#include <QSignalSpy>
#include <QTest>

using namespace qm;

namespace {

// One poll's view of Zoom, scripted by a letter: 'a' running and recording, 'w' running with a meeting window,
// 'r' running and nothing else, '-' not running, 'x' not running although the probes would say yes.
class ScriptedProbes : public ZoomProbes {
public:
    QString script;
    int step = -1;
    int windowReads = 0;

    QChar now() const { return step < script.size() ? script.at(step) : QLatin1Char('-'); }
    QList<int> zoomProcesses() override
    {
        ++step;
        return now() == QLatin1Char('-') || now() == QLatin1Char('x') ? QList<int>() : QList<int>{4242};
    }
    bool zoomIsUsingAudioInput(const QList<int> &) override
    {
        return now() == QLatin1Char('a') || now() == QLatin1Char('x');
    }
    bool zoomHasMeetingWindow(const QList<int> &) override
    {
        ++windowReads;
        return now() == QLatin1Char('w') || now() == QLatin1Char('x');
    }
};

} // namespace

class TestZoomMonitor : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void debounce_data()
    {
        QTest::addColumn<QString>("polls");
        QTest::addColumn<int>("started");
        QTest::addColumn<int>("ended");
        QTest::addColumn<bool>("active");

        QTest::newRow("lone sightings never start") << QStringLiteral("ar-w-arar") << 0 << 0 << false;
        QTest::newRow("two in a row start") << QStringLiteral("raa") << 1 << 0 << true;
        QTest::newRow("window alone counts") << QStringLiteral("ww") << 1 << 0 << true;
        QTest::newRow("probes ignored without zoom") << QStringLiteral("xxxx") << 0 << 0 << false;
        QTest::newRow("long meeting starts once") << QStringLiteral("aaaaawwwaaa") << 1 << 0 << true;
        QTest::newRow("three quiet polls keep it") << QStringLiteral("aar--") << 1 << 0 << true;
        QTest::newRow("fourth quiet poll ends it") << QStringLiteral("aar---") << 1 << 1 << false;
        QTest::newRow("a sighting resets the count") << QStringLiteral("aa---a---") << 1 << 0 << true;
        QTest::newRow("two meetings") << QStringLiteral("aa----rrww----") << 2 << 2 << false;
    }
    void debounce()
    {
        QFETCH(QString, polls);
        auto probes = std::make_unique<ScriptedProbes>();
        probes->script = polls;
        ZoomMonitor monitor(std::move(probes), FakeTickers().factory());
        QSignalSpy started(&monitor, &ZoomMonitor::meetingStarted);
        QSignalSpy ended(&monitor, &ZoomMonitor::meetingEnded);
        QSignalSpy active(&monitor, &ZoomMonitor::meetingActiveChanged);
        for (int i = 0; i < polls.size(); ++i)
            monitor.poll();
        QTEST(int(started.count()), "started");
        QTEST(int(ended.count()), "ended");
        QTEST(monitor.isMeetingActive(), "active");
        QCOMPARE(active.count(), started.count() + ended.count());
    }

    void runningFollowsEveryPollAndReportsOnlyChanges()
    {
        auto probes = std::make_unique<ScriptedProbes>();
        probes->script = QStringLiteral("rr--r");
        ZoomMonitor monitor(std::move(probes), FakeTickers().factory());
        QSignalSpy running(&monitor, &ZoomMonitor::zoomRunningChanged);
        monitor.poll();
        monitor.poll();
        QVERIFY(monitor.isZoomRunning());
        monitor.poll();
        QVERIFY(!monitor.isZoomRunning());
        monitor.poll();
        monitor.poll();
        QCOMPARE(running.count(), 3);
    }

    void windowListIsReadOnlyWhenTheAudioProbeSaysNo()
    {
        auto owned = std::make_unique<ScriptedProbes>();
        ScriptedProbes *probes = owned.get();
        probes->script = QStringLiteral("aarw-");
        ZoomMonitor monitor(std::move(owned), FakeTickers().factory());
        for (int i = 0; i < 5; ++i)
            monitor.poll();
        QCOMPARE(probes->windowReads, 2);
    }

    void startPollsAtOnceAndKeepsOneTimer()
    {
        FakeTickers tickers;
        auto owned = std::make_unique<ScriptedProbes>();
        ScriptedProbes *probes = owned.get();
        probes->script = QStringLiteral("aaaaaa");
        ZoomMonitor monitor(std::move(owned), tickers.factory());
        QSignalSpy started(&monitor, &ZoomMonitor::meetingStarted);
        monitor.start();
        QCOMPARE(probes->step, 0);
        monitor.start();
        QCOMPARE(*tickers.live, 1);
        QCOMPARE(tickers.last->period, std::chrono::milliseconds(3000));
        // The second start's own poll and one tick: the meeting is reported on the timer.
        QCOMPARE(started.count(), 1);
        tickers.last->tick();
        QCOMPARE(probes->step, 2);
        QCOMPARE(started.count(), 1);
    }

    void tickAfterTheMonitorIsGoneDoesNothing()
    {
        FakeTickers tickers;
        std::function<void()> tick;
        {
            ZoomMonitor monitor(std::make_unique<ScriptedProbes>(), tickers.factory());
            monitor.start();
            tick = tickers.last->tick;
        }
        tick();
        QCOMPARE(*tickers.live, 0);
    }

    void meetingWindowTitles_data()
    {
        QTest::addColumn<QString>("title");
        QTest::addColumn<bool>("meeting");
        QTest::newRow("any case") << QStringLiteral("ZOOM WEBINAR") << true;
        QTest::newRow("chat of a meeting") << QStringLiteral("Zoom Meeting – Chat") << false;
        QTest::newRow("padded") << QStringLiteral(" Zoom Meeting") << false;
        QTest::newRow("main window") << QStringLiteral("Zoom Workplace") << false;
        QTest::newRow("untitled") << QString() << false;
    }
    void meetingWindowTitles()
    {
        QFETCH(QString, title);
        QTEST(isMeetingWindowTitle(title), "meeting");
    }
};

QTEST_GUILESS_MAIN(TestZoomMonitor)
#include "tst_zoommonitor.moc"
