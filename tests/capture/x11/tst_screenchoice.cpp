#include "capture/screensource.h"

#include <QTest>

using namespace qm;

Q_DECLARE_METATYPE(QList<qm::WindowInfo>)
Q_DECLARE_METATYPE(QList<qm::DisplayInfo>)

namespace {

constexpr int kZoom = 100;
constexpr int kOther = 7;

WindowInfo window(std::uint32_t id, int pid, const char *title, QSize size, bool onScreen = true)
{
    return {id, pid, QString::fromUtf8(title), QRect(QPoint(10, 10), size), onScreen};
}

const DisplayInfo kLeft{11, QStringLiteral("DP-1"), QRect(0, 0, 1920, 1080)};
const DisplayInfo kRight{22, QStringLiteral("HDMI-1"), QRect(1920, 0, 1280, 1024)};

std::optional<std::uint32_t> optionalId(int id)
{
    return id < 0 ? std::nullopt : std::optional(std::uint32_t(id));
}

} // namespace

class TestScreenChoice : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void meetingWindow_data()
    {
        QTest::addColumn<QList<WindowInfo>>("windows");
        QTest::addColumn<uint>("expected"); // 0: no window

        QTest::newRow("titled but too narrow, untitled 300 px chosen")
            << QList{window(1, kZoom, "Zoom Meeting", {150, 600}), window(2, kZoom, "", {300, 200})} << 2u;
        QTest::newRow("exactly 200 px is too narrow, 201 px is not")
            << QList{window(1, kZoom, "Zoom Meeting", {200, 900}), window(2, kZoom, "Meeting", {201, 100})} << 2u;
        QTest::newRow("title beats a larger window")
            << QList{window(1, kZoom, "", {1000, 800}), window(2, kZoom, "Zoom Webinar", {400, 300})} << 2u;
        QTest::newRow("titled window counts while off screen")
            << QList{window(1, kZoom, "", {800, 600}), window(2, kZoom, "Meeting", {400, 300}, false)} << 2u;
        QTest::newRow("first titled window wins")
            << QList{window(1, kZoom, "Meeting", {300, 300}), window(2, kZoom, "Zoom Meeting", {900, 900})} << 1u;
        QTest::newRow("titles match exactly")
            << QList{window(1, kZoom, "Zoom Meeting - Chat", {300, 300}), window(2, kZoom, "zoom meeting", {400, 400}),
                     window(3, kZoom, "", {350, 350})}
            << 2u;
        QTest::newRow("largest on-screen window")
            << QList{window(1, kZoom, "", {300, 300}), window(2, kZoom, "", {800, 600}, false),
                     window(3, kZoom, "", {500, 400})}
            << 3u;
        QTest::newRow("equal areas keep the earlier")
            << QList{window(1, kZoom, "", {400, 300}), window(2, kZoom, "", {300, 400})} << 1u;
        QTest::newRow("only off-screen untitled windows") << QList{window(1, kZoom, "", {800, 600}, false)} << 0u;
        QTest::newRow("other processes' windows ignored")
            << QList{window(1, kOther, "Zoom Meeting", {800, 600}), window(2, kZoom, "", {300, 200})} << 2u;
        QTest::newRow("no windows") << QList<WindowInfo>{} << 0u;
    }

    void meetingWindow()
    {
        QFETCH(QList<WindowInfo>, windows);
        QFETCH(uint, expected);
        const auto chosen = zoomMeetingWindow(windows, {kOther + 1, kZoom});
        QCOMPARE(chosen ? chosen->id : 0u, expected);
    }

    void display_data()
    {
        QTest::addColumn<QList<DisplayInfo>>("displays");
        QTest::addColumn<int>("chosen"); // -1: none
        QTest::addColumn<QRect>("zoomWindow");
        QTest::addColumn<int>("underPointer"); // -1: unknown
        QTest::addColumn<uint>("expected");    // 0: none

        const QList both{kLeft, kRight};
        const QRect onLeft(100, 100, 800, 600);
        const QRect onRight(2000, 100, 800, 600);
        QTest::newRow("chosen display wins") << both << 22 << onLeft << 11 << 22u;
        QTest::newRow("chosen display gone, Zoom window's display") << both << 33 << onRight << 11 << 22u;
        QTest::newRow("window across both, first display") << both << -1 << QRect(1500, 0, 800, 600) << 22 << 11u;
        QTest::newRow("window touching the left edge of the right display")
            << both << -1 << QRect(1920, 0, 100, 100) << 11 << 22u;
        QTest::newRow("window on no display, pointer's display") << both << -1 << QRect(5000, 0, 10, 10) << 22 << 22u;
        QTest::newRow("no window, pointer's display") << both << -1 << QRect() << 22 << 22u;
        QTest::newRow("pointer on an unknown display, first") << both << -1 << QRect() << 99 << 11u;
        QTest::newRow("nothing known, first") << QList{kRight, kLeft} << -1 << QRect() << -1 << 22u;
        QTest::newRow("no displays") << QList<DisplayInfo>{} << 11 << onLeft << 11 << 0u;
    }

    void display()
    {
        QFETCH(QList<DisplayInfo>, displays);
        QFETCH(int, chosen);
        QFETCH(QRect, zoomWindow);
        QFETCH(int, underPointer);
        QFETCH(uint, expected);
        std::optional<WindowInfo> meeting;
        if (zoomWindow.isValid())
            meeting = WindowInfo{1, kZoom, QStringLiteral("Zoom Meeting"), zoomWindow, true};
        const auto display = displayToFilm(displays, optionalId(chosen), meeting, optionalId(underPointer));
        QCOMPARE(display ? display->id : 0u, expected);
    }
};

QTEST_GUILESS_MAIN(TestScreenChoice)
#include "tst_screenchoice.moc"
