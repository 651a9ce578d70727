#pragma once

#include "library/result.h"

#include <QObject>
#include <QString>

#include <functional>
#include <memory>

namespace qm {

enum class PermissionStatus { granted, denied, notAsked };

// A settings page of the desktop that a permission button can open.
enum class SettingsPage { microphone, screenRecording, accessibility, notifications };

// Where the statuses come from and how to ask for them on this system. Called on the main thread; every call
// returns promptly (implementations bound their waits) and reads a failure as the most cautious answer.
class PermissionSources {
public:
    virtual ~PermissionSources() = default;
    virtual PermissionStatus microphone() = 0;
    virtual PermissionStatus screenRecording() = 0;
    virtual PermissionStatus accessibility() = 0;
    virtual PermissionStatus speechRecognition() = 0;
    // Answers later, on the main thread; `then` may be dropped if the source is destroyed first.
    virtual void notifications(std::function<void(PermissionStatus)> then) = 0;
    virtual bool launchAtLogin() = 0;
    // An error is a sentence for the log.
    virtual expected<void, QString> setLaunchAtLogin(bool on) = 0;
    // Turns the accessibility bus on; true when it accepted.
    virtual bool enableAccessibility() = 0;
    // Opens the page in the desktop's settings; false when this desktop has no such page.
    virtual bool openSettings(SettingsPage page) = 0;
};

// The observable model of what the program may use. Main thread only. Statuses change only through refresh(),
// which every request ends with; each change is announced once, and only when the value differs.
//
// Linux has no per-application prompts, so "asking" means what can be done here: turn the accessibility bus
// on, probe the notification server, or hand the speech-model download to its owner (speechModelRequested).
// Everything else opens the desktop's settings page, or, where there is none, emits instructionNeeded with a
// sentence for the user.
class Permissions : public QObject {
    Q_OBJECT
    Q_PROPERTY(qm::PermissionStatus microphone READ microphone NOTIFY changed)
    Q_PROPERTY(qm::PermissionStatus screenRecording READ screenRecording NOTIFY changed)
    Q_PROPERTY(qm::PermissionStatus accessibility READ accessibility NOTIFY changed)
    Q_PROPERTY(qm::PermissionStatus speechRecognition READ speechRecognition NOTIFY changed)
    Q_PROPERTY(qm::PermissionStatus notifications READ notifications NOTIFY changed)
    Q_PROPERTY(bool launchAtLogin READ launchAtLogin NOTIFY changed)

public:
    explicit Permissions(std::unique_ptr<PermissionSources> sources, QObject *parent = nullptr);
    ~Permissions() override;

    PermissionStatus microphone() const { return m_microphone; }
    PermissionStatus screenRecording() const { return m_screenRecording; }
    PermissionStatus accessibility() const { return m_accessibility; }
    PermissionStatus speechRecognition() const { return m_speechRecognition; }
    PermissionStatus notifications() const { return m_notifications; }
    bool launchAtLogin() const { return m_launchAtLogin; }

    // Re-reads every status; the notification status arrives a moment later.
    void refresh();

    void requestMicrophone();
    void requestScreenRecording();
    void requestAccessibility();
    void requestSpeechRecognition();
    void requestNotifications();
    // Writes or removes the login entry, logs a failure, and refreshes so the switch shows the real state.
    void setLaunchAtLogin(bool on);

    // Starts a new instance of the program as this one quits, and quits 0.3 s from now.
    static void relaunch();

Q_SIGNALS:
    void changed();
    void speechModelRequested();
    void instructionNeeded(const QString &text);

private:
    void open(SettingsPage page);
    void set(PermissionStatus &field, PermissionStatus value);

    std::unique_ptr<PermissionSources> m_sources;
    PermissionStatus m_microphone = PermissionStatus::notAsked;
    PermissionStatus m_screenRecording = PermissionStatus::notAsked;
    PermissionStatus m_accessibility = PermissionStatus::notAsked;
    PermissionStatus m_speechRecognition = PermissionStatus::notAsked;
    PermissionStatus m_notifications = PermissionStatus::notAsked;
    bool m_launchAtLogin = false;
    std::shared_ptr<int> m_alive = std::make_shared<int>(0);
};

} // namespace qm
