#include "platform/linux/linuxpermissions.h"

#include "capture/wayland/restoretokens.h"
#include "capture/wayland/waylandscreensource.h"
#include "platform/linux/pulsesnapshot.h"

#include <QCoreApplication>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusVariant>
#include <QDir>
#include <QFileInfo>
#include <QProcess>
#include <QSaveFile>
#include <QSettings>
#include <QStandardPaths>

namespace qm::platform {

namespace {

constexpr int dbusTimeoutMs = 500;

QDBusMessage a11yStatus(const QString &service, const QString &method)
{
    return QDBusMessage::createMethodCall(service, QStringLiteral("/org/a11y/bus"),
                                          QStringLiteral("org.freedesktop.DBus.Properties"), method);
}

QDBusMessage busCall(const QString &method)
{
    return QDBusMessage::createMethodCall(QStringLiteral("org.freedesktop.DBus"),
                                          QStringLiteral("/org/freedesktop/DBus"),
                                          QStringLiteral("org.freedesktop.DBus"), method);
}

} // namespace

LinuxPermissionSources::LinuxPermissionSources(std::function<bool()> modelInstalled, QDBusConnection bus,
                                               PermissionServices services)
    : m_modelInstalled(std::move(modelInstalled)), m_bus(std::move(bus)), m_services(std::move(services))
{}

LinuxPermissionSources::~LinuxPermissionSources() = default;

PermissionStatus LinuxPermissionSources::microphone()
{
    if (m_privacy.microphoneDisabled())
        return PermissionStatus::denied;
    const auto snapshot = readPulseSnapshot(std::chrono::milliseconds(dbusTimeoutMs));
    if (!snapshot)
        return PermissionStatus::denied;
    for (const PulseSource &source : snapshot->sources) {
        if (!source.isMonitor)
            return PermissionStatus::granted;
    }
    return PermissionStatus::denied;
}

PermissionStatus LinuxPermissionSources::screenRecording()
{
    if (WaylandScreenSource::isWaylandSession()) {
        switch (wayland::RestoreTokens().consent()) {
        case wayland::ShareConsent::granted:
            return PermissionStatus::granted;
        case wayland::ShareConsent::declined:
            return PermissionStatus::denied;
        case wayland::ShareConsent::notAsked:
            return PermissionStatus::notAsked;
        }
    }
    return qEnvironmentVariableIsSet("DISPLAY") ? PermissionStatus::granted : PermissionStatus::denied;
}

PermissionStatus LinuxPermissionSources::accessibility()
{
    QDBusMessage get = a11yStatus(m_services.accessibilityBus, QStringLiteral("Get"));
    get << QStringLiteral("org.a11y.Status") << QStringLiteral("IsEnabled");
    const QDBusMessage reply = m_bus.call(get, QDBus::Block, dbusTimeoutMs);
    if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().isEmpty())
        return PermissionStatus::denied;
    const QVariant value = reply.arguments().constFirst().value<QDBusVariant>().variant();
    return value.toBool() ? PermissionStatus::granted : PermissionStatus::denied;
}

PermissionStatus LinuxPermissionSources::speechRecognition()
{
    return m_modelInstalled && m_modelInstalled() ? PermissionStatus::granted : PermissionStatus::notAsked;
}

void LinuxPermissionSources::notifications(std::function<void(PermissionStatus)> then)
{
    QDBusMessage owned = busCall(QStringLiteral("NameHasOwner"));
    owned << m_services.notifications;
    QDBusMessage activatable = busCall(QStringLiteral("ListActivatableNames"));
    auto *ownerWatcher = new QDBusPendingCallWatcher(m_bus.asyncCall(owned, dbusTimeoutMs), m_pending.get());
    auto *activatableWatcher =
        new QDBusPendingCallWatcher(m_bus.asyncCall(activatable, dbusTimeoutMs), m_pending.get());
    const QString name = m_services.notifications;
    // Answers once both replies are in; either one saying "there is a server" grants.
    auto answer = [ownerWatcher, activatableWatcher, name, then = std::move(then), answered = false]() mutable {
        if (answered || !ownerWatcher->isFinished() || !activatableWatcher->isFinished())
            return;
        answered = true;
        const QDBusPendingReply<bool> ownerReply = *ownerWatcher;
        const QDBusPendingReply<QStringList> activatableReply = *activatableWatcher;
        const bool present = (!ownerReply.isError() && ownerReply.value()) ||
                             (!activatableReply.isError() && activatableReply.value().contains(name));
        ownerWatcher->deleteLater();
        activatableWatcher->deleteLater();
        then(present ? PermissionStatus::granted : PermissionStatus::denied);
    };
    auto shared = std::make_shared<decltype(answer)>(std::move(answer));
    QObject::connect(ownerWatcher, &QDBusPendingCallWatcher::finished, ownerWatcher, [shared] { (*shared)(); });
    QObject::connect(activatableWatcher, &QDBusPendingCallWatcher::finished, activatableWatcher,
                     [shared] { (*shared)(); });
}

QString autostartEntryPath()
{
    return QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) +
           QStringLiteral("/autostart/quillmoor.desktop");
}

bool LinuxPermissionSources::launchAtLogin()
{
    const QString path = autostartEntryPath();
    if (!QFileInfo::exists(path))
        return false;
    const QSettings entry(path, QSettings::IniFormat);
    const QString hidden = entry.value(QStringLiteral("Desktop Entry/Hidden")).toString();
    return hidden.compare(QLatin1String("true"), Qt::CaseInsensitive) != 0;
}

expected<void, QString> LinuxPermissionSources::setLaunchAtLogin(bool on)
{
    const QString path = autostartEntryPath();
    if (!on) {
        if (QFileInfo::exists(path) && !QFile::remove(path))
            return unexpected(QStringLiteral("couldn't remove ") + path);
        return {};
    }
    if (!QDir().mkpath(QFileInfo(path).absolutePath()))
        return unexpected(QStringLiteral("couldn't create the folder of ") + path);
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        return unexpected(file.errorString());
    // QSettings would escape the spaces and semicolons that desktop entries keep as they are.
    const QString text =
        QStringLiteral("[Desktop Entry]\nType=Application\nName=Quillmoor\nExec=\"") +
        QCoreApplication::applicationFilePath() +
        QStringLiteral("\"\nIcon=app.quillmoor.Quillmoor\nTerminal=false\nX-GNOME-Autostart-enabled=true\n");
    file.write(text.toUtf8());
    if (!file.commit())
        return unexpected(file.errorString());
    return {};
}

bool LinuxPermissionSources::enableAccessibility()
{
    QDBusMessage set = a11yStatus(m_services.accessibilityBus, QStringLiteral("Set"));
    set << QStringLiteral("org.a11y.Status") << QStringLiteral("IsEnabled") << QVariant::fromValue(QDBusVariant(true));
    return m_bus.call(set, QDBus::Block, dbusTimeoutMs).type() == QDBusMessage::ReplyMessage;
}

std::optional<QStringList> settingsCommand(SettingsPage page, const QString &currentDesktop,
                                           const std::function<bool(const QString &)> &exists)
{
    const QStringList desktops = currentDesktop.toLower().split(QLatin1Char(':'), Qt::SkipEmptyParts);
    const QString gnome = QStringLiteral("gnome-control-center");
    const QString kde = QStringLiteral("systemsettings");
    if ((desktops.contains(QLatin1String("gnome")) || desktops.contains(QLatin1String("unity"))) && exists(gnome)) {
        switch (page) {
        case SettingsPage::microphone:
            return QStringList{gnome, QStringLiteral("sound")};
        case SettingsPage::screenRecording:
            return QStringList{gnome, QStringLiteral("applications")};
        case SettingsPage::accessibility:
            return QStringList{gnome, QStringLiteral("universal-access")};
        case SettingsPage::notifications:
            return QStringList{gnome, QStringLiteral("notifications")};
        }
    }
    if (desktops.contains(QLatin1String("kde")) && exists(kde)) {
        switch (page) {
        case SettingsPage::microphone:
            return QStringList{kde, QStringLiteral("kcm_pulseaudio")};
        case SettingsPage::notifications:
            return QStringList{kde, QStringLiteral("kcm_notifications")};
        case SettingsPage::accessibility:
            return QStringList{kde, QStringLiteral("kcm_access")};
        case SettingsPage::screenRecording:
            return std::nullopt;
        }
    }
    if (page == SettingsPage::microphone && exists(QStringLiteral("pavucontrol")))
        return QStringList{QStringLiteral("pavucontrol"), QStringLiteral("--tab=4")};
    return std::nullopt;
}

bool LinuxPermissionSources::openSettings(SettingsPage page)
{
    const auto command = settingsCommand(page, qEnvironmentVariable("XDG_CURRENT_DESKTOP"), [](const QString &name) {
        return !QStandardPaths::findExecutable(name).isEmpty();
    });
    return command && QProcess::startDetached(command->constFirst(), command->mid(1));
}

} // namespace qm::platform
