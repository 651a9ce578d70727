#include "app/updater.h"

#include "app/appsettings.h"
#include "library/log.h"
#include "meeting/notifier.h"

#include <QCoroNetworkReply>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QVersionNumber>

namespace qm {

namespace {

constexpr int kFeedTimeoutMs = 15'000;
constexpr qint64 kFeedLimit = 64 * 1024;

} // namespace

Updater::Updater(AppSettings &settings, QNetworkAccessManager &network, Notifier &notifier, QUrl feed,
                 QString currentVersion, QObject *parent)
    : QObject(parent), m_settings(settings), m_network(network), m_notifier(notifier), m_feed(std::move(feed)),
      m_currentVersion(std::move(currentVersion))
{
    m_timer.setSingleShot(true);
    connect(&m_timer, &QTimer::timeout, this, [this] {
        check(false);
        m_timer.start(checkInterval);
    });
    connect(&m_settings, &AppSettings::automaticallyChecksForUpdatesChanged, this, [this] {
        schedule();
        Q_EMIT automaticallyChecksChanged();
    });
    schedule();
}

Updater::~Updater() = default;

QUrl Updater::defaultFeed()
{
#ifdef QM_UPDATE_FEED
    return QUrl(QStringLiteral(QM_UPDATE_FEED));
#else
    return {};
#endif
}

bool Updater::automaticallyChecks() const
{
    return m_settings.automaticallyChecksForUpdates();
}

void Updater::setAutomaticallyChecks(bool on)
{
    m_settings.setAutomaticallyChecksForUpdates(on);
}

void Updater::schedule()
{
    if (automaticallyChecks() && m_feed.isValid())
        m_timer.start(firstCheckDelay);
    else
        m_timer.stop();
}

void Updater::checkForUpdates()
{
    if (!m_feed.isValid()) {
        Q_EMIT checkFinished(tr("This build of Quillmoor is updated by your system's package manager."));
        return;
    }
    check(true);
}

bool Updater::isNewer(const QString &candidate, const QString &current)
{
    const QVersionNumber next = QVersionNumber::fromString(candidate.trimmed());
    return !next.isNull() && QVersionNumber::compare(next, QVersionNumber::fromString(current)) > 0;
}

QCoro::Task<> Updater::check(bool asked)
{
    if (m_isChecking)
        co_return;
    QPointer<Updater> self(this);
    m_isChecking = true;
    Q_EMIT isCheckingChanged();
    QNetworkRequest request(m_feed);
    request.setTransferTimeout(kFeedTimeoutMs);
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::NoLessSafeRedirectPolicy);
    std::unique_ptr<QNetworkReply> reply(m_network.get(request));
    co_await reply.get();
    if (!self)
        co_return;
    m_isChecking = false;
    Q_EMIT isCheckingChanged();

    const QJsonObject feed = QJsonDocument::fromJson(reply->read(kFeedLimit)).object();
    const QString version = feed.value(QLatin1String("version")).toString();
    if (reply->error() != QNetworkReply::NoError || version.isEmpty()) {
        logLine(QStringLiteral("update check: no answer from the release feed (%1)").arg(reply->errorString()));
        if (asked)
            Q_EMIT checkFinished(tr("Couldn't reach the update server. Try again later."));
        co_return;
    }
    if (!isNewer(version, m_currentVersion)) {
        if (asked)
            Q_EMIT checkFinished(tr("Quillmoor %1 is the latest version.").arg(m_currentVersion));
        co_return;
    }
    m_releasePage = QUrl(feed.value(QLatin1String("url")).toString());
    if (m_availableVersion != version) {
        m_availableVersion = version;
        Q_EMIT availableVersionChanged();
    }
    if (asked)
        Q_EMIT checkFinished(tr("Quillmoor %1 is available.").arg(version));
    else if (m_notifiedVersion != version)
        m_notifier.post(tr("Quillmoor %1 is available").arg(version),
                        tr("Get it from %1").arg(m_releasePage.toString()));
    m_notifiedVersion = version;
}

} // namespace qm
