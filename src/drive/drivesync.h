#pragma once

#include "library/recording.h"
#include "library/result.h"

#include <QCoroTask>
#include <QDir>
#include <QList>
#include <QString>

#include <optional>

namespace qm {

// Why a recording could not be copied to Google Drive.
struct SyncError {
    enum class Kind { driveNotFound, fileSystem, refused, nothingToCopy };
    enum class Operation { createFolder, copyFile };
    Kind kind = Kind::driveNotFound;
    // For fileSystem: what was refused, on which path (the folder to create, or the source file to copy), and
    // the file system's own words.
    Operation operation = Operation::copyFile;
    QString path;
    QString reason;

    static SyncError driveNotFound() { return {}; }
    // A file of the recording that mustn't be copied (a link out of its folder); `reason` says which and why.
    static SyncError refused(QString reason) { return {Kind::refused, Operation::copyFile, {}, std::move(reason)}; }
    // None of the chosen files exists yet; `path` is the recording's title.
    static SyncError nothingToCopy(QString title)
    {
        return {Kind::nothingToCopy, Operation::copyFile, std::move(title), {}};
    }
    static SyncError fileSystem(Operation operation, QString path, QString reason)
    {
        return {Kind::fileSystem, operation, std::move(path), std::move(reason)};
    }

    // The one sentence the user sees.
    QString description() const;
    bool operator==(const SyncError &) const = default;
};

namespace DriveSync {

// The four Drive preferences, carried by value so that a copy never reads settings off the main thread.
struct DriveOptions {
    QString driveRootPath;                                // the user's chosen Drive folder; blank = detect
    QString driveSubfolder = QStringLiteral("Quillmoor"); // inside the root; "a/b" nests; blank = the root
    bool driveIncludeMedia = true;
    bool driveIncludeTranscript = true;

    // Reads the four properties of the same names from any settings object that has them.
    template <class Settings> static DriveOptions from(const Settings &settings)
    {
        return {settings.driveRootPath(), settings.driveSubfolder(), settings.driveIncludeMedia(),
                settings.driveIncludeTranscript()};
    }
};

// Where detection looks. The defaults are this user's; tests point them at files of their own.
struct Places {
    QString mountInfo = QStringLiteral("/proc/self/mountinfo");
    QString rcloneConfig = defaultRcloneConfig();
    QString home = QDir::homePath();

    // $RCLONE_CONFIG when set, else rclone.conf in rclone's folder under $XDG_CONFIG_HOME (or ~/.config).
    static QString defaultRcloneConfig();
};

// Every Google Drive folder found on this computer, in discovery order: Drive mounts as they appear in
// `mountInfo` (rclone remotes of type drive, google-drive-ocamlfuse), then Insync accounts under ~/Insync in
// the folder's listing order. Never fails: anything unreadable counts as nothing found. Any thread; reads only
// small files and one folder listing, and never touches a mount point (a hung FUSE mount can't block it).
QList<QString> detectedRoots(const Places &places = {});

// The folder to copy into: the chosen folder (spaces and tabs trimmed; it need not exist yet), else the first
// detected one, else nothing. Any thread.
std::optional<QString> resolvedRoot(const DriveOptions &options, const Places &places = {});

// Copies the recording's media file and transcript exports (as `options` include them; missing ones skipped)
// into root / subfolder / the recording folder's name, replacing earlier copies whole. Files copied before a
// failure stay.
//
// Call on the main thread; detection and every file operation run on a thread-pool task, and the coroutine
// resumes on the calling thread. Several syncs may run at once; two of the same recording race and the last
// copy wins.
QCoro::Task<expected<void, SyncError>> sync(Recording recording, DriveOptions options, Places places = {});

// The file work of sync(), for callers already off the main thread.
expected<void, SyncError> syncBlocking(const Recording &recording, const DriveOptions &options,
                                       const Places &places = {});

} // namespace DriveSync

} // namespace qm
