#pragma once

#include "meeting/notifier.h"
#include "meeting/permissions.h"

#include <QList>
#include <QStringList>

namespace qm::test {

// Keeps every notification instead of showing it.
class RecordingNotifier : public Notifier {
public:
    struct Post {
        QString title;
        QString body;
    };

    void setUp() override {}
    void post(const QString &title, const QString &body) override { posts.append({title, body}); }
    void setQuiet(bool) override {}
    QStringList titles() const;

    QList<Post> posts;
};

// A desktop that allows everything and opens nothing.
class GrantedPermissionSources : public PermissionSources {
public:
    PermissionStatus microphone() override { return PermissionStatus::granted; }
    PermissionStatus screenRecording() override { return PermissionStatus::granted; }
    PermissionStatus accessibility() override { return PermissionStatus::granted; }
    PermissionStatus speechRecognition() override { return PermissionStatus::granted; }
    void notifications(std::function<void(PermissionStatus)> then) override { then(PermissionStatus::granted); }
    bool launchAtLogin() override { return false; }
    expected<void, QString> setLaunchAtLogin(bool) override { return {}; }
    bool enableAccessibility() override { return true; }
    bool openSettings(SettingsPage) override { return true; }
};

} // namespace qm::test
