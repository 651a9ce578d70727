#pragma once

#include "meeting/permissions.h"
#include "platform/linux/gnomeprivacy.h"

#include <QDBusConnection>
#include <QStringList>

#include <functional>
#include <memory>
#include <optional>

namespace qm::platform {

// The D-Bus services the statuses are read from; replaceable so that a test can name services that don't exist.
struct PermissionServices {
    QString accessibilityBus = QStringLiteral("org.a11y.Bus");
    QString notifications = QStringLiteral("org.freedesktop.Notifications");
};

// Permission statuses from Linux sources:
// - microphone: the sound server accepts a connection and has an input that isn't a monitor, and GNOME's
//   privacy switch doesn't disable the microphone (never notAsked);
// - screenRecording: granted in an X11 session; in a Wayland session notAsked until the desktop's screen-share
//   dialog has been answered, granted once a restore token is stored, denied after the user cancelled it;
// - accessibility: org.a11y.Status.IsEnabled of the accessibility bus;
// - speechRecognition: `modelInstalled()`; notAsked until the model is there;
// - notifications: a notification server owns, or can be started for, its name on the session bus;
// - launchAtLogin: $XDG_CONFIG_HOME/autostart/quillmoor.desktop exists and isn't hidden.
// Each D-Bus read is bounded by a short timeout; failures read as denied.
class LinuxPermissionSources : public PermissionSources {
public:
    explicit LinuxPermissionSources(std::function<bool()> modelInstalled = {},
                                    QDBusConnection bus = QDBusConnection::sessionBus(),
                                    PermissionServices services = {});
    ~LinuxPermissionSources() override;

    PermissionStatus microphone() override;
    PermissionStatus screenRecording() override;
    PermissionStatus accessibility() override;
    PermissionStatus speechRecognition() override;
    void notifications(std::function<void(PermissionStatus)> then) override;
    bool launchAtLogin() override;
    expected<void, QString> setLaunchAtLogin(bool on) override;
    bool enableAccessibility() override;
    bool openSettings(SettingsPage page) override;

private:
    std::function<bool()> m_modelInstalled;
    QDBusConnection m_bus;
    PermissionServices m_services;
    GnomeMicrophonePrivacy m_privacy;
    // Parent of the reply watchers still waiting; a status asked for just before the sources go away is then
    // dropped with them instead of outliving its caller.
    std::unique_ptr<QObject> m_pending = std::make_unique<QObject>();
};

// The autostart entry's path.
QString autostartEntryPath();

// The command that opens `page` on the desktop named by `currentDesktop` (as in $XDG_CURRENT_DESKTOP), among
// the programs `exists` finds; nothing when this desktop has no such page.
std::optional<QStringList> settingsCommand(SettingsPage page, const QString &currentDesktop,
                                           const std::function<bool(const QString &)> &exists);

} // namespace qm::platform
