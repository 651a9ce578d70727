#pragma once

#include <QObject>
#include <QPointer>
#include <QString>
#include <QTimer>
#include <QUrl>

#include <QCoroTask>

#include <chrono>

class QNetworkAccessManager;

namespace qm {

class AppSettings;
class Notifier;

// Tells the user when a newer release exists. It reads a small JSON feed at an address fixed at build time,
// {"version": "1.2.0", "url": "https://…"}, and never replaces any file: the package manager does that.
//
// Main thread only. With automatic checks on (the setting automaticallyChecksForUpdates), the feed is read
// shortly after start and then once a day; a newer version posts one notification and shows in
// `availableVersion`. A feed that can't be reached or read stays silent in automatic checks and is reported
// only to a user who asked (`checkForUpdates`).
class Updater : public QObject {
    Q_OBJECT
    Q_PROPERTY(bool automaticallyChecks READ automaticallyChecks WRITE setAutomaticallyChecks NOTIFY
                   automaticallyChecksChanged)
    Q_PROPERTY(QString availableVersion READ availableVersion NOTIFY availableVersionChanged)
    Q_PROPERTY(bool isChecking READ isChecking NOTIFY isCheckingChanged)

public:
    static constexpr std::chrono::hours checkInterval{24};
    static constexpr std::chrono::seconds firstCheckDelay{60};

    // `feed` empty disables every check (a distribution build, whose package manager updates the program).
    Updater(AppSettings &settings, QNetworkAccessManager &network, Notifier &notifier, QUrl feed = defaultFeed(),
            QString currentVersion = QStringLiteral(QM_VERSION), QObject *parent = nullptr);
    ~Updater() override;

    static QUrl defaultFeed();

    bool automaticallyChecks() const;
    void setAutomaticallyChecks(bool on);
    // The newer version the feed announced, or empty.
    QString availableVersion() const { return m_availableVersion; }
    QUrl releasePage() const { return m_releasePage; }
    bool isChecking() const { return m_isChecking; }

    // Reads the feed now; `checkFinished` carries the one sentence to show the user who asked.
    void checkForUpdates();

    // True when `candidate` is a later dotted version than `current` ("1.10.0" > "1.9.2").
    static bool isNewer(const QString &candidate, const QString &current);

Q_SIGNALS:
    void automaticallyChecksChanged();
    void availableVersionChanged();
    void isCheckingChanged();
    void checkFinished(const QString &message);

private:
    QCoro::Task<> check(bool asked);
    void schedule();

    AppSettings &m_settings;
    QNetworkAccessManager &m_network;
    Notifier &m_notifier;
    QUrl m_feed;
    QString m_currentVersion;
    QString m_availableVersion;
    QUrl m_releasePage;
    QString m_notifiedVersion;
    bool m_isChecking = false;
    QTimer m_timer;
};

} // namespace qm
