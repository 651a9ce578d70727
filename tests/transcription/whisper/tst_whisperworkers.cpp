#include "transcription/whisper/workers.h"

#include <QTest>

#include <atomic>
#include <thread>
#include <vector>

using namespace qm::whisper;

namespace {

// Marks every index each part is given; answers whether each was given exactly once, in grain-aligned parts.
bool coversOnce(std::size_t count, int threads, std::size_t grain)
{
    std::vector<std::atomic<int>> seen(count);
    std::atomic<bool> aligned{true};
    workers::parallelFor(
        count, threads,
        [&](std::size_t begin, std::size_t end) {
            if (begin % grain != 0)
                aligned = false;
            for (std::size_t i = begin; i < end; ++i)
                seen[i].fetch_add(1);
        },
        grain);
    for (const auto &s : seen)
        if (s.load() != 1)
            return false;
    return aligned.load();
}

} // namespace

class TestWhisperWorkers : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void everyIndexOnce_data()
    {
        QTest::addColumn<int>("count");
        QTest::addColumn<int>("threads");
        QTest::addColumn<int>("grain");
        QTest::newRow("empty") << 0 << 2 << 1;
        QTest::newRow("one") << 1 << 4 << 1;
        QTest::newRow("fewer than a grain") << 5 << 2 << 16;
        QTest::newRow("uneven") << 1001 << 2 << 16;
        QTest::newRow("more threads than cores") << 517 << 64 << 1;
    }

    void everyIndexOnce()
    {
        QFETCH(int, count);
        QFETCH(int, threads);
        QFETCH(int, grain);
        QVERIFY(coversOnce(std::size_t(count), threads, std::size_t(grain)));
    }

    // Two inferences at once, each splitting thousands of small jobs while the other does the same: neither may
    // lose or repeat a part, wait forever, or run another's job. Parts that split again run on their own.
    void concurrentCallersAndNestedSplits()
    {
        std::atomic<bool> ok{true};
        const auto hammer = [&] {
            for (int round = 0; round < 2000 && ok; ++round)
                if (!coversOnce(std::size_t(64 + round % 50), 2, 4))
                    ok = false;
        };
        std::thread other(hammer);
        hammer();
        other.join();
        QVERIFY(ok);

        std::atomic<int> inner{0};
        workers::parallelFor(8, 2, [&](std::size_t begin, std::size_t end) {
            for (std::size_t i = begin; i < end; ++i)
                workers::parallelFor(10, 2, [&](std::size_t b, std::size_t e) { inner += int(e - b); });
        });
        QCOMPARE(inner.load(), 80);
    }
};

QTEST_GUILESS_MAIN(TestWhisperWorkers)
#include "tst_whisperworkers.moc"
