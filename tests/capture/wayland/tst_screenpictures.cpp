#include "capture/trackwriter.h"
#include "capture/wayland/framepacer.h"
#include "capture/wayland/picturecopy.h"
#include "support/capture/fakesound.h"
#include "support/capture/mediaprobe.h"
#include "support/wayland/castrecorder.h"

#include <QJsonObject>
#include <QTemporaryDir>
#include <QTest>

using namespace qm;
using namespace qm::wayland;

namespace {

constexpr Nanoseconds kMs = kNanosecondsPerSecond / 1000;

// A 4×3 buffer whose pixel (x, y) is the bytes {x, y, 10·x + y, 255}, rows `stride` bytes apart.
std::vector<std::uint8_t> buffer(int stride, int width = 4, int height = 3)
{
    std::vector<std::uint8_t> bytes(std::size_t(stride) * std::size_t(height), 0xEE);
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            std::uint8_t *p = &bytes[std::size_t(y * stride + x * 4)];
            p[0] = std::uint8_t(x);
            p[1] = std::uint8_t(y);
            p[2] = std::uint8_t(10 * x + y);
            p[3] = 255;
        }
    }
    return bytes;
}

VideoFrame picture(std::uint8_t value)
{
    return VideoFrame{0, 2, 2, 8, std::make_shared<std::vector<std::uint8_t>>(16, value), true};
}

} // namespace

class TestScreenPictures : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void copiesTheCropInEncoderOrder_data()
    {
        QTest::addColumn<int>("stride");       // of the buffer as laid out
        QTest::addColumn<int>("statedStride"); // what the producer says
        QTest::addColumn<bool>("rgb");
        QTest::addColumn<QRect>("crop");
        QTest::addColumn<int>("shortBy");    // bytes missing from the end of the buffer
        QTest::addColumn<QRect>("expected"); // empty: no picture

        const QRect all(0, 0, 4, 3);
        QTest::newRow("packed") << 16 << 16 << false << QRect() << 0 << all;
        QTest::newRow("stride 0 means packed") << 16 << 0 << false << QRect() << 0 << all;
        QTest::newRow("padded rows") << 24 << 24 << false << QRect() << 0 << all;
        QTest::newRow("last row unpadded") << 24 << 24 << false << QRect() << 8 << all;
        QTest::newRow("red first") << 16 << 16 << true << QRect() << 0 << all;
        QTest::newRow("window inside the buffer") << 24 << 24 << false << QRect(1, 1, 2, 2) << 0 << QRect(1, 1, 2, 2);
        QTest::newRow("crop past the edge") << 16 << 16 << false << QRect(2, 1, 5, 5) << 0 << QRect(2, 1, 2, 2);
        QTest::newRow("crop outside") << 16 << 16 << false << QRect(9, 9, 2, 2) << 0 << QRect();
        QTest::newRow("buffer too short") << 16 << 16 << false << QRect() << 1 << QRect();
        QTest::newRow("stride below a row") << 16 << 12 << false << QRect() << 0 << QRect();
    }
    void copiesTheCropInEncoderOrder()
    {
        QFETCH(int, stride);
        QFETCH(int, statedStride);
        QFETCH(bool, rgb);
        QFETCH(QRect, crop);
        QFETCH(int, shortBy);
        QFETCH(QRect, expected);

        const std::vector<std::uint8_t> bytes = buffer(stride);
        RawPicture raw{bytes.data(),
                       bytes.size() - std::size_t(shortBy),
                       4,
                       3,
                       statedStride,
                       rgb ? PixelOrder::rgb : PixelOrder::bgr,
                       crop.isNull() ? std::nullopt : std::optional(crop)};
        const std::optional<VideoFrame> frame = copyPicture(raw);
        QCOMPARE(frame.has_value(), !expected.isEmpty());
        if (!frame)
            return;
        QCOMPARE(QSize(frame->width, frame->height), expected.size());
        QCOMPARE(frame->stride, expected.width() * 4);
        for (int y = 0; y < frame->height; ++y) {
            for (int x = 0; x < frame->width; ++x) {
                const std::uint8_t *p = frame->pixels->data() + y * frame->stride + x * 4;
                const int sx = expected.x() + x;
                const int sy = expected.y() + y;
                // Blue, green, red: a red-first buffer has its first and third bytes swapped.
                QCOMPARE(int(p[0]), rgb ? 10 * sx + sy : sx);
                QCOMPARE(int(p[1]), sy);
                QCOMPARE(int(p[2]), rgb ? sx : 10 * sx + sy);
            }
        }
    }

    void pacesTheNewestPicture()
    {
        test::FakeClock clock;
        FramePacer pacer(clock);
        pacer.begin(10, 0);
        QVERIFY(!pacer.due(0)); // nothing came yet: the tick passes without a frame
        pacer.offer(picture(1));
        QVERIFY(!pacer.due(50 * kMs)); // between ticks

        auto frame = pacer.due(100 * kMs);
        QVERIFY(frame);
        QCOMPARE(frame->pts, 100 * kMs);
        QCOMPARE(frame->pixels->front(), 1);
        frame = pacer.due(200 * kMs); // nothing new: the same picture again
        QVERIFY(frame);
        QCOMPARE(frame->pts, 200 * kMs);
        QCOMPARE(frame->pixels->front(), 1);

        pacer.offer(picture(2));
        pacer.offer(picture(3));
        frame = pacer.due(530 * kMs); // held up: the missed ticks are skipped, the newest picture is stamped 500
        QVERIFY(frame);
        QCOMPARE(frame->pts, 500 * kMs);
        QCOMPARE(frame->pixels->front(), 3);
        QCOMPARE(pacer.nextTick(), 600 * kMs);
        QVERIFY(!pacer.due(590 * kMs));

        pacer.end(); // sharing ended: the video ends here
        pacer.offer(picture(4));
        QVERIFY(!pacer.due(700 * kMs));
    }

    void aSizeChangeKeepsOneFile()
    {
        // A shared window that is resized changes the pictures' size mid-stream.
        QTemporaryDir dir;
        const QString path = dir.filePath(QStringLiteral("screen.mov"));
        auto writer = TrackWriter::createVideo(path, VideoSettings::forCapture(320, 240, 10));
        QVERIFY(writer);
        (*writer)->start(0);
        for (int i = 0; i < 20; ++i) {
            const QSize size = i < 10 ? QSize(320, 240) : QSize(200, 300);
            auto pixels = std::make_shared<std::vector<std::uint8_t>>(std::size_t(size.width() * size.height() * 4),
                                                                      std::uint8_t(i * 10));
            (*writer)->append(VideoFrame{i * 100 * kMs, size.width(), size.height(), size.width() * 4, pixels});
            while ((*writer)->pendingCount() > 0)
                QTest::qWait(1);
        }
        QVERIFY((*writer)->finish());
        const QJsonObject video = test::streamInfo(path, "v");
        QCOMPARE(video.value(QLatin1String("width")).toInt(), 320);
        QCOMPARE(video.value(QLatin1String("height")).toInt(), 240);
        QCOMPARE(test::greyFrames(path, 8, 6).size(), 20);
    }
};

QTEST_GUILESS_MAIN(TestScreenPictures)
#include "tst_screenpictures.moc"
