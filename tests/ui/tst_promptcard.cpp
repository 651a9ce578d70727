#include "ui/prompt/promptcard.h"

#include <QApplication>
#include <QImage>
#include <QLabel>
#include <QPushButton>
#include <QScreen>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

using namespace qm;
using namespace qm::ui;

namespace {

QList<PromptCard *> visibleCards()
{
    QList<PromptCard *> cards;
    for (QWidget *widget : QApplication::topLevelWidgets()) {
        if (auto *card = qobject_cast<PromptCard *>(widget); card && card->isVisible())
            cards.append(card);
    }
    return cards;
}

} // namespace

class TestPromptCard : public QObject {
    Q_OBJECT

    int m_recorded = 0;

    std::unique_ptr<ZoomPrompt> prompt()
    {
        m_recorded = 0;
        auto p = std::make_unique<ZoomPrompt>(makePromptCardView, std::function<void()>());
        p->show([this] { ++m_recorded; });
        return p;
    }

private Q_SLOTS:
    void cardSitsTopRightAndFadesIn()
    {
        auto p = prompt();
        const QList<PromptCard *> cards = visibleCards();
        QCOMPARE(cards.size(), 1);
        PromptCard *card = cards.first();
        QVERIFY(QTest::qWaitForWindowExposed(card));

        const Qt::WindowFlags flags = card->windowFlags();
        QVERIFY(flags.testFlags(Qt::Tool | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint));
        QVERIFY(card->testAttribute(Qt::WA_ShowWithoutActivating));
        // The offscreen platform activates every window it shows; only a real display can tell.
        if (QGuiApplication::platformName() != QLatin1String("offscreen"))
            QVERIFY(QApplication::activeWindow() != card);

        const QRect area = QGuiApplication::primaryScreen()->availableGeometry();
        QCOMPARE(card->frameGeometry().size(), QSize(340, 92));
        QCOMPARE(card->frameGeometry().topRight(), QPoint(area.right() - 16, area.top() + 12));

        QCOMPARE_LT(card->windowOpacity(), 0.5);
        QTRY_COMPARE_WITH_TIMEOUT(card->windowOpacity(), 1.0, 2000);
        QVERIFY(card->findChildren<QLabel *>().size() >= 2);

        // Everything must fit the fixed size: a clipped title or button would be unreadable.
        for (QWidget *child : card->findChildren<QWidget *>()) {
            QVERIFY2(card->rect().contains(child->geometry()), qPrintable(child->objectName()));
            QVERIFY(child->width() >= child->minimumSizeHint().width());
        }

        const QImage shot = card->grab().toImage();
        QCOMPARE(shot.size(), QSize(340, 92) * card->devicePixelRatio());
        QVERIFY(shot.pixel(5, 5) != shot.pixel(card->recordButton()->geometry().center()));
        QTemporaryDir dir;
        dir.setAutoRemove(!qEnvironmentVariableIsSet("QM_KEEP_SCREENSHOT"));
        const QString path = dir.filePath(QStringLiteral("promptcard.png"));
        QVERIFY(shot.save(path));
        if (!dir.autoRemove())
            qInfo("screenshot: %s", qPrintable(path));
    }

    void buttonsReachThePromptAndTheCardGoes_data()
    {
        QTest::addColumn<bool>("record");
        QTest::newRow("record") << true;
        QTest::newRow("not now") << false;
    }
    void buttonsReachThePromptAndTheCardGoes()
    {
        QFETCH(bool, record);
        auto p = prompt();
        QSignalSpy showing(p.get(), &ZoomPrompt::showingChanged);
        QPointer<PromptCard> card = visibleCards().value(0);
        QVERIFY(card);
        QVERIFY(QTest::qWaitForWindowExposed(card));

        QPushButton *button = record ? card->recordButton() : card->notNowButton();
        QCOMPARE(button->text(), record ? QStringLiteral("Record") : QStringLiteral("Not now"));
        QTest::mouseClick(button, Qt::LeftButton);

        QCOMPARE(m_recorded, record ? 1 : 0);
        QVERIFY(!p->isShowing());
        QCOMPARE(showing.count(), 1);
        QVERIFY(visibleCards().isEmpty());
        QTRY_VERIFY(card.isNull());
    }

    void aSecondCardReplacesTheFirst()
    {
        auto p = prompt();
        QPointer<PromptCard> first = visibleCards().value(0);
        p->show([this] { ++m_recorded; });
        QCOMPARE(visibleCards().size(), 1);
        QPointer<PromptCard> second = visibleCards().value(0);
        QVERIFY(second != first);
        QTRY_VERIFY(first.isNull());

        // Closed while still fading in: the card must go for good, not come back when the fade ends.
        p->dismiss();
        QVERIFY(visibleCards().isEmpty());
        QTRY_VERIFY(second.isNull());
        QTest::qWait(300);
        QVERIFY(visibleCards().isEmpty());
    }

    void destroyingThePromptTakesTheCard()
    {
        auto p = prompt();
        QPointer<PromptCard> card = visibleCards().value(0);
        p.reset();
        QVERIFY(visibleCards().isEmpty());
        QTRY_VERIFY(card.isNull());
    }
};

int main(int argc, char **argv)
{
    // Qt's xcb backend reads past an unterminated string inside libxkbcommon-x11 at start-up, which the
    // suite's strict ASan string checks abort on; the offscreen platform exercises the same widget code.
    if (!qEnvironmentVariableIsSet("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    TestPromptCard test;
    QTEST_SET_MAIN_SOURCE_PATH
    return QTest::qExec(&test, argc, argv);
}

#include "tst_promptcard.moc"
