#include "meeting/permissions.h"

#include "library/log.h"

#include <QCoreApplication>
#include <QProcess>
#include <QTimer>

namespace qm {

namespace {

QString instructionFor(SettingsPage page)
{
    switch (page) {
    case SettingsPage::microphone:
        return QStringLiteral("Open your system's sound settings and check that an input device is connected and "
                              "not muted.");
    case SettingsPage::screenRecording:
        return QStringLiteral("Allow screen sharing when your desktop asks, then try again.");
    case SettingsPage::accessibility:
        return QStringLiteral("Turn on assistive technologies in your desktop's accessibility settings, then "
                              "restart Zoom.");
    case SettingsPage::notifications:
        return QStringLiteral("Check that your desktop shows notifications and that Quillmoor isn't blocked in "
                              "its notification settings.");
    }
    return {};
}

} // namespace

Permissions::Permissions(std::unique_ptr<PermissionSources> sources, QObject *parent)
    : QObject(parent), m_sources(std::move(sources))
{}

Permissions::~Permissions() = default;

void Permissions::set(PermissionStatus &field, PermissionStatus value)
{
    if (field == value)
        return;
    field = value;
    Q_EMIT changed();
}

void Permissions::refresh()
{
    set(m_microphone, m_sources->microphone());
    set(m_screenRecording, m_sources->screenRecording());
    set(m_accessibility, m_sources->accessibility());
    set(m_speechRecognition, m_sources->speechRecognition());
    const bool login = m_sources->launchAtLogin();
    if (login != m_launchAtLogin) {
        m_launchAtLogin = login;
        Q_EMIT changed();
    }
    std::weak_ptr<int> alive = m_alive;
    m_sources->notifications([this, alive](PermissionStatus status) {
        if (!alive.expired())
            set(m_notifications, status);
    });
}

void Permissions::open(SettingsPage page)
{
    if (!m_sources->openSettings(page))
        Q_EMIT instructionNeeded(instructionFor(page));
}

void Permissions::requestMicrophone()
{
    // Outside a sandbox nothing can prompt for the microphone; the sound settings are where it is fixed.
    open(SettingsPage::microphone);
    refresh();
}

void Permissions::requestScreenRecording()
{
    open(SettingsPage::screenRecording);
    refresh();
}

void Permissions::requestAccessibility()
{
    if (!m_sources->enableAccessibility() || m_sources->accessibility() != PermissionStatus::granted)
        open(SettingsPage::accessibility);
    refresh();
}

void Permissions::requestSpeechRecognition()
{
    if (m_speechRecognition == PermissionStatus::notAsked)
        Q_EMIT speechModelRequested();
    refresh();
}

void Permissions::requestNotifications()
{
    // Probing the server is the only asking there is; a missing server is fixed in the desktop's settings.
    if (m_notifications != PermissionStatus::granted)
        open(SettingsPage::notifications);
    refresh();
}

void Permissions::setLaunchAtLogin(bool on)
{
    if (const auto written = m_sources->setLaunchAtLogin(on); !written)
        logLine(QStringLiteral("launch at login failed: ") + written.error());
    refresh();
}

void Permissions::relaunch()
{
    auto *app = QCoreApplication::instance();
    if (!app)
        return;
    const QString program = QCoreApplication::applicationFilePath();
    const QStringList arguments = QCoreApplication::arguments().mid(1);
    // Started as this instance goes, so that the single-instance check of the new one finds no owner.
    QObject::connect(app, &QCoreApplication::aboutToQuit, app,
                     [program, arguments] { QProcess::startDetached(program, arguments); });
    QTimer::singleShot(300, app, [] { QCoreApplication::quit(); });
}

} // namespace qm
