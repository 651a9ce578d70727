#include "faketicker.h"
#include "meeting/zoomprompt.h"

#include <QSignalSpy>
#include <QTest>

using namespace qm;

namespace {

struct Cards {
    struct Card : PromptView {
        explicit Card(Cards &cards) : m_cards(cards) {}
        void present(std::function<void()> r, std::function<void()> n) override
        {
            record = std::move(r);
            notNow = std::move(n);
            ++m_cards.open;
        }
        void close() override { --m_cards.open; }
        std::function<void()> record;
        std::function<void()> notNow;
        Cards &m_cards;
    };
    int open = 0;
    int made = 0;
    // Buttons of every card made, kept past the card's life as a late click would be.
    QList<std::function<void()>> records;
    QList<std::function<void()>> notNows;
    Card *last = nullptr;
};

} // namespace

class TestZoomPrompt : public QObject {
    Q_OBJECT

    Cards m_cards;
    FakeTickers m_tickers;
    int m_sounds = 0;
    int m_recorded = 0;

    std::unique_ptr<ZoomPrompt> prompt()
    {
        m_cards = Cards();
        m_tickers = FakeTickers();
        m_sounds = 0;
        m_recorded = 0;
        return std::make_unique<ZoomPrompt>(
            [this] {
                auto card = std::make_unique<Cards::Card>(m_cards);
                ++m_cards.made;
                m_cards.last = card.get();
                return card;
            },
            [this] { ++m_sounds; }, m_tickers.factory());
    }
    void show(ZoomPrompt &p)
    {
        p.show([this] { ++m_recorded; });
        m_cards.records.append(m_cards.last->record);
        m_cards.notNows.append(m_cards.last->notNow);
    }

private Q_SLOTS:
    void endings_data()
    {
        QTest::addColumn<QString>("ending");
        QTest::addColumn<int>("recorded");
        QTest::newRow("record") << QStringLiteral("record") << 1;
        QTest::newRow("not now") << QStringLiteral("notNow") << 0;
        QTest::newRow("meeting ended") << QStringLiteral("dismiss") << 0;
        QTest::newRow("ninety seconds") << QStringLiteral("timeout") << 0;
    }
    void endings()
    {
        QFETCH(QString, ending);
        auto p = prompt();
        QSignalSpy showing(p.get(), &ZoomPrompt::showingChanged);
        show(*p);
        QCOMPARE(m_tickers.last->period, std::chrono::milliseconds(90'000));
        QCOMPARE(m_sounds, 1);
        if (ending == QLatin1String("record"))
            m_cards.records.last()();
        else if (ending == QLatin1String("notNow"))
            m_cards.notNows.last()();
        else if (ending == QLatin1String("dismiss"))
            p->dismiss();
        else
            m_tickers.last->tick();
        QVERIFY(!p->isShowing());
        QCOMPARE(m_cards.open, 0);
        QCOMPARE(*m_tickers.live, 0);
        QTEST(m_recorded, "recorded");
        QCOMPARE(showing.count(), 2);
        p->dismiss(); // nothing left to close
        QCOMPARE(showing.count(), 2);
    }

    void secondShowReplacesTheFirst()
    {
        auto p = prompt();
        show(*p);
        show(*p);
        QCOMPARE(m_cards.made, 2);
        QCOMPARE(m_cards.open, 1);
        QCOMPARE(*m_tickers.live, 1);
        // The replaced card's buttons are dead: they neither record nor close the new card.
        m_cards.records.first()();
        m_cards.notNows.first()();
        QVERIFY(p->isShowing());
        QCOMPARE(m_recorded, 0);
        m_tickers.last->tick();
        QVERIFY(!p->isShowing());
        QCOMPARE(m_cards.open, 0);
    }
};

QTEST_GUILESS_MAIN(TestZoomPrompt)
#include "tst_zoomprompt.moc"
