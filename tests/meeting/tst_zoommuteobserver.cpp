#include "meeting/zoommuteobserver.h"

#include <QElapsedTimer>
#include <QMutex>
#include <QSemaphore>
#include <QSignalSpy>
#include <QTest>

#include <atomic>

using namespace qm;

namespace {

// An in-memory accessibility tree; the real one needs a running Zoom.
class Node : public AccessibleElement {
public:
    Node(QString name, AccessibleRole role = AccessibleRole::other, QString description = {})
        : m_name(std::move(name)), m_role(role), m_description(std::move(description))
    {}
    QString name() override { return m_name; }
    QString description() override
    {
        const QMutexLocker lock(&m_mutex);
        return m_description;
    }
    AccessibleRole role() override { return m_role; }
    QList<ElementPtr> children() override { return m_children; }

    std::shared_ptr<Node> add(std::shared_ptr<Node> child)
    {
        m_children.append(child);
        return child;
    }
    // The observer reads on its own thread while the test changes the control.
    void setDescription(QString description)
    {
        const QMutexLocker lock(&m_mutex);
        m_description = std::move(description);
    }

private:
    QString m_name;
    AccessibleRole m_role;
    QMutex m_mutex;
    QString m_description;
    QList<ElementPtr> m_children;
};

std::shared_ptr<Node> node(const QString &name, AccessibleRole role = AccessibleRole::other,
                           const QString &description = {})
{
    return std::make_shared<Node>(name, role, description);
}

class Tree : public AccessibilityTree {
public:
    bool enabled = true;
    std::shared_ptr<Node> app = node(QStringLiteral("zoom"));
    std::atomic<int> lookups{0};
    QSemaphore *gate = nullptr; // when set, each lookup waits for a permit

    bool isEnabled() override { return enabled; }
    ElementPtr zoomApplication() override
    {
        ++lookups;
        if (gate)
            gate->acquire();
        return app;
    }
};

// A meeting window with the control `depth` levels below it.
std::shared_ptr<Node> controlAtDepth(Tree &tree, int depth, const QString &description,
                                     const QString &title = QStringLiteral("Zoom Meeting"))
{
    std::shared_ptr<Node> parent = tree.app->add(node(title, AccessibleRole::frame));
    for (int i = 1; i < depth; ++i)
        parent = parent->add(node(QStringLiteral("panel")));
    if (depth == 0) {
        parent->setDescription(description);
        return parent;
    }
    return parent->add(node(QStringLiteral("button"), AccessibleRole::other, description));
}

} // namespace

class TestZoomMuteObserver : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void meetingWindowControls_data()
    {
        QTest::addColumn<int>("depth");
        QTest::addColumn<QString>("description");
        QTest::addColumn<QString>("title");
        QTest::addColumn<std::optional<bool>>("expected");
        const QString meeting = QStringLiteral("Zoom Meeting");
        const std::optional<bool> unknown;
        QTest::newRow("muted") << 3 << QStringLiteral("Unmute my audio, audio muted") << meeting
                               << std::optional<bool>(true);
        QTest::newRow("unmuted, upper case")
            << 3 << QStringLiteral("AUDIO UNMUTED") << meeting << std::optional<bool>(false);
        QTest::newRow("words not at the end") << 3 << QStringLiteral("audio muted by host") << meeting << unknown;
        QTest::newRow("deepest searched") << 4 << QStringLiteral("audio muted") << meeting << std::optional<bool>(true);
        QTest::newRow("one level too deep") << 5 << QStringLiteral("audio muted") << meeting << unknown;
        QTest::newRow("lower-case title not searched")
            << 2 << QStringLiteral("audio muted") << QStringLiteral("zoom meeting") << unknown;
        QTest::newRow("other window") << 2 << QStringLiteral("audio muted") << QStringLiteral("Zoom Workplace")
                                      << unknown;
    }
    void meetingWindowControls()
    {
        QFETCH(int, depth);
        QFETCH(QString, description);
        QFETCH(QString, title);
        Tree tree;
        controlAtDepth(tree, depth, description, title);
        QTEST(mute::read(tree).muted, "expected");
    }

    void menuItems_data()
    {
        QTest::addColumn<QString>("title");
        QTest::addColumn<std::optional<bool>>("expected");
        QTest::newRow("offers to mute") << QStringLiteral("Mute Audio") << std::optional<bool>(false);
        QTest::newRow("offers to unmute") << QStringLiteral("UNMUTE AUDIO") << std::optional<bool>(true);
        QTest::newRow("longer title") << QStringLiteral("Mute Audio for everyone") << std::optional<bool>();
    }
    void menuItems()
    {
        QFETCH(QString, title);
        Tree tree;
        auto bar = tree.app->add(node(QStringLiteral("Zoom"), AccessibleRole::frame))
                       ->add(node(QString(), AccessibleRole::menuBar));
        bar->add(node(QStringLiteral("Meeting"), AccessibleRole::menu))->add(node(title, AccessibleRole::menuItem));
        QTEST(mute::read(tree).muted, "expected");
    }

    void menuIsAskedBeforeTheWindow()
    {
        Tree tree;
        controlAtDepth(tree, 1, QStringLiteral("audio muted"));
        tree.app->add(node(QStringLiteral("Zoom"), AccessibleRole::frame))
            ->add(node(QString(), AccessibleRole::menuBar))
            ->add(node(QStringLiteral("Meeting"), AccessibleRole::menu))
            ->add(node(QStringLiteral("Mute Audio"), AccessibleRole::menuItem));
        QCOMPARE(mute::read(tree).muted, std::optional<bool>(false));
    }

    void untrustedReadsNothing()
    {
        Tree tree;
        tree.enabled = false;
        controlAtDepth(tree, 1, QStringLiteral("audio muted"));
        QCOMPARE(mute::read(tree).muted, std::optional<bool>());
        QCOMPARE(tree.lookups.load(), 0);
    }

    void observerFollowsTheCachedControl()
    {
        auto owned = std::make_unique<Tree>();
        Tree *tree = owned.get();
        auto control = controlAtDepth(*tree, 2, QStringLiteral("audio muted"));
        ZoomMuteObserver observer(std::move(owned));
        QSignalSpy changed(&observer, &ZoomMuteObserver::mutedInZoomChanged);
        QCOMPARE(observer.isMutedInZoom(), std::optional<bool>());
        QTRY_COMPARE(observer.isMutedInZoom(), std::optional<bool>(true));

        control->setDescription(QStringLiteral("audio unmuted"));
        QTRY_COMPARE(observer.isMutedInZoom(), std::optional<bool>(false));
        QCOMPARE(tree->lookups.load(), 1); // the control was read again without walking the tree
        QCOMPARE(changed.count(), 2);

        // The control lost its meaning (Zoom's window changed): the tree is walked again, and finds nothing.
        control->setDescription(QStringLiteral("Share screen"));
        QTRY_COMPARE(observer.isMutedInZoom(), std::optional<bool>());
        QVERIFY(tree->lookups.load() >= 2);
    }

    void hungReadTurnsUnknownWithoutBlocking()
    {
        QSemaphore gate;
        auto owned = std::make_unique<Tree>();
        Tree *tree = owned.get();
        tree->gate = &gate;
        auto control = controlAtDepth(*tree, 1, QStringLiteral("audio muted"));
        gate.release();
        ZoomMuteObserver observer(std::move(owned), std::chrono::milliseconds(100));
        observer.isMutedInZoom();
        QTRY_COMPARE(observer.isMutedInZoom(), std::optional<bool>(true));

        // Zoom's window changes and Zoom stops answering: the remembered control says nothing, the lookup hangs.
        // Reads happen only when asked for, so keep asking until the new lookup has begun.
        control->setDescription(QString());
        QTRY_COMPARE((static_cast<void>(observer.isMutedInZoom()), tree->lookups.load()), 2);
        QElapsedTimer clock;
        clock.start();
        QTRY_COMPARE(observer.isMutedInZoom(), std::optional<bool>());
        QVERIFY(clock.elapsed() < 1000);
        gate.release(10);
    }
};

QTEST_GUILESS_MAIN(TestZoomMuteObserver)
#include "tst_zoommuteobserver.moc"
