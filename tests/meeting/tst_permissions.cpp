#include "meeting/permissions.h"

#include <QSignalSpy>
#include <QTest>

using namespace qm;

namespace {

using S = PermissionStatus;

// Sources whose answers the test sets; the notification answer is held back until deliver().
struct Sources : PermissionSources {
    S mic = S::granted, screen = S::granted, a11y = S::denied, speech = S::notAsked, notes = S::granted;
    bool login = false;
    bool loginWrites = true;
    bool a11yCanEnable = true;
    bool hasPages = true;
    QList<SettingsPage> opened;
    std::function<void(S)> pendingNotifications;

    S microphone() override { return mic; }
    S screenRecording() override { return screen; }
    S accessibility() override { return a11y; }
    S speechRecognition() override { return speech; }
    void notifications(std::function<void(S)> then) override { pendingNotifications = std::move(then); }
    bool launchAtLogin() override { return login; }
    expected<void, QString> setLaunchAtLogin(bool on) override
    {
        if (!loginWrites)
            return unexpected(QStringLiteral("read-only folder"));
        login = on;
        return {};
    }
    bool enableAccessibility() override
    {
        if (a11yCanEnable)
            a11y = S::granted;
        return a11yCanEnable;
    }
    bool openSettings(SettingsPage page) override
    {
        opened.append(page);
        return hasPages;
    }
    void deliver()
    {
        if (pendingNotifications)
            std::exchange(pendingNotifications, nullptr)(notes);
    }
};

} // namespace

class TestPermissions : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void refreshAnnouncesOnlyChanges()
    {
        auto owned = std::make_unique<Sources>();
        Sources *sources = owned.get();
        Permissions permissions(std::move(owned));
        QSignalSpy changed(&permissions, &Permissions::changed);
        permissions.refresh();
        sources->deliver();
        QCOMPARE(permissions.microphone(), S::granted);
        QCOMPARE(permissions.notifications(), S::granted);
        const int first = int(changed.count());
        QVERIFY(first > 0);
        permissions.refresh();
        sources->deliver();
        QCOMPARE(changed.count(), first);
        sources->notes = S::denied;
        permissions.refresh();
        QCOMPARE(permissions.notifications(), S::granted); // not yet answered
        sources->deliver();
        QCOMPARE(permissions.notifications(), S::denied);
        QCOMPARE(changed.count(), first + 1);
    }

    void lateNotificationAnswerAfterTheModelIsGone()
    {
        auto owned = std::make_unique<Sources>();
        Sources *sources = owned.get();
        std::function<void(S)> late;
        {
            Permissions permissions(std::move(owned));
            permissions.refresh();
            late = sources->pendingNotifications;
        }
        late(S::denied); // must not touch the destroyed model
    }

    void requests_data()
    {
        QTest::addColumn<QString>("request");
        QTest::addColumn<bool>("canEnable");
        QTest::addColumn<bool>("hasPages");
        QTest::addColumn<int>("pagesOpened");
        QTest::addColumn<int>("instructions");
        QTest::newRow("accessibility switched on") << QStringLiteral("a11y") << true << true << 0 << 0;
        QTest::newRow("accessibility refused") << QStringLiteral("a11y") << false << true << 1 << 0;
        QTest::newRow("accessibility, no page") << QStringLiteral("a11y") << false << false << 1 << 1;
        QTest::newRow("microphone") << QStringLiteral("mic") << true << true << 1 << 0;
        QTest::newRow("notifications granted") << QStringLiteral("notes") << true << true << 0 << 0;
    }
    void requests()
    {
        QFETCH(QString, request);
        QFETCH(bool, canEnable);
        QFETCH(bool, hasPages);
        auto owned = std::make_unique<Sources>();
        Sources *sources = owned.get();
        sources->a11yCanEnable = canEnable;
        sources->hasPages = hasPages;
        Permissions permissions(std::move(owned));
        permissions.refresh();
        sources->deliver();
        QSignalSpy instructions(&permissions, &Permissions::instructionNeeded);
        if (request == QLatin1String("a11y"))
            permissions.requestAccessibility();
        else if (request == QLatin1String("mic"))
            permissions.requestMicrophone();
        else
            permissions.requestNotifications();
        QTEST(int(sources->opened.size()), "pagesOpened");
        QTEST(int(instructions.count()), "instructions");
        if (request == QLatin1String("a11y"))
            QCOMPARE(permissions.accessibility(), canEnable ? S::granted : S::denied);
    }

    void speechModelIsHandedOnOnlyBeforeItIsInstalled()
    {
        auto owned = std::make_unique<Sources>();
        Sources *sources = owned.get();
        Permissions permissions(std::move(owned));
        QSignalSpy wanted(&permissions, &Permissions::speechModelRequested);
        permissions.refresh();
        permissions.requestSpeechRecognition();
        QCOMPARE(wanted.count(), 1);
        sources->speech = S::granted;
        permissions.refresh();
        permissions.requestSpeechRecognition();
        QCOMPARE(wanted.count(), 1);
    }

    void launchAtLoginShowsTheRealState()
    {
        auto owned = std::make_unique<Sources>();
        Sources *sources = owned.get();
        Permissions permissions(std::move(owned));
        permissions.setLaunchAtLogin(true);
        QVERIFY(permissions.launchAtLogin());
        sources->loginWrites = false;
        permissions.setLaunchAtLogin(false);
        QVERIFY(permissions.launchAtLogin());
    }
};

QTEST_GUILESS_MAIN(TestPermissions)
#include "tst_permissions.moc"
