#include "drive/drivesync.h"

#include "library/recordingstore.h"
#include "library/textutil.h"
#include "library/transcript.h"

#include <QCoreApplication>
#include <QCoroFuture>
#include <QFile>
#include <QFileInfo>
#include <QtConcurrent/QtConcurrentRun>

#include <filesystem>
#include <system_error>

namespace qm {

namespace {

constexpr qint64 kCopyBlockBytes = 1 << 20;

QString withoutFinalStop(QString text)
{
    while (text.endsWith(QLatin1Char('.')))
        text.chop(1);
    return text;
}

// Reads and writes in blocks rather than QFile::copy: that one detours through a temporary file in /tmp when
// it can't make one beside the target (a whole extra copy of an hour of media before failing) and copies
// permissions, which some FUSE mounts refuse. The target is written once, front to back, as rclone needs.
expected<void, QString> copyFile(const QString &sourcePath, const QString &targetPath)
{
    QFile source(sourcePath);
    if (!source.open(QIODevice::ReadOnly))
        return unexpected(source.errorString());
    QFile target(targetPath);
    if (!target.open(QIODevice::WriteOnly | QIODevice::NewOnly | QIODevice::Unbuffered))
        return unexpected(target.errorString());
    QByteArray block(kCopyBlockBytes, Qt::Uninitialized);
    for (;;) {
        const qint64 read = source.read(block.data(), block.size());
        if (read < 0) {
            target.remove();
            return unexpected(source.errorString());
        }
        if (read == 0)
            break;
        if (target.write(block.constData(), read) != read) {
            const QString reason = target.errorString();
            target.remove();
            return unexpected(reason);
        }
    }
    // A network file system may refuse the data only when the file is closed.
    target.close();
    if (target.error() != QFileDevice::NoError) {
        const QString reason = target.errorString();
        target.remove();
        return unexpected(reason);
    }
    return {};
}

} // namespace

QString SyncError::description() const
{
    const auto tr = [](const char *text) { return QCoreApplication::translate("DriveSync", text); };
    switch (kind) {
    case Kind::driveNotFound:
        return tr("No Google Drive folder was found. Connect Google Drive with rclone, Insync or your desktop's "
                  "online accounts, or choose your Drive folder in Settings.");
    case Kind::refused:
        return tr("Nothing was copied to Google Drive: ") + reason;
    case Kind::nothingToCopy:
        return tr("Nothing was copied to Google Drive: “%1” has no media file or transcript to copy yet.").arg(path);
    case Kind::fileSystem:
        break;
    }
    if (operation == Operation::createFolder)
        return tr("Couldn't create the folder “%1” in Google Drive: %2.").arg(path, withoutFinalStop(reason));
    return tr("Couldn't copy “%1” to Google Drive: %2.").arg(QFileInfo(path).fileName(), withoutFinalStop(reason));
}

namespace DriveSync {

std::optional<QString> resolvedRoot(const DriveOptions &options, const Places &places)
{
    const QString chosen = trimSpacesAndTabs(options.driveRootPath);
    if (!chosen.isEmpty())
        return chosen;
    const QList<QString> detected = detectedRoots(places);
    if (detected.isEmpty())
        return std::nullopt;
    return detected.constFirst();
}

expected<void, SyncError> syncBlocking(const Recording &recording, const DriveOptions &options, const Places &places)
{
    const std::optional<QString> root = resolvedRoot(options, places);
    if (!root)
        return unexpected(SyncError::driveNotFound());

    const QString subfolder = trimSpacesAndTabs(options.driveSubfolder);
    const QString base = subfolder.isEmpty() ? *root : *root + QLatin1Char('/') + subfolder;
    const QString folder = QDir::cleanPath(recording.folderPath());
    const QString destination = QDir::cleanPath(base + QLatin1Char('/') + QFileInfo(folder).fileName());

    // Every name is checked to be a regular file inside the recording's folder: a name or a link that leads out
    // would copy someone else's file into the cloud.
    QStringList names;
    if (options.driveIncludeMedia && recording.mediaFileName && !recording.mediaFileName->isEmpty())
        names.append(*recording.mediaFileName);
    if (options.driveIncludeTranscript)
        names << QLatin1String(kTranscriptMarkdownFileName) << QLatin1String(kTranscriptTextFileName);
    QStringList sources;
    for (const QString &name : std::as_const(names)) {
        const bool present = QFileInfo::exists(folder + QLatin1Char('/') + name) ||
                             QFileInfo(folder + QLatin1Char('/') + name).isSymLink();
        if (!present)
            continue;
        const auto inside = RecordingStore::fileInside(recording, name);
        if (!inside)
            return unexpected(SyncError::refused(inside.error()));
        sources.append(*inside);
    }
    if (sources.isEmpty() && !names.isEmpty())
        return unexpected(SyncError::nothingToCopy(recording.title));

    std::error_code made;
    std::filesystem::create_directories(std::filesystem::path(QFile::encodeName(destination).toStdString()), made);
    if (made)
        return unexpected(SyncError::fileSystem(SyncError::Operation::createFolder, destination,
                                                QString::fromStdString(made.message())));

    for (const QString &source : std::as_const(sources)) {
        const QString target = destination + QLatin1Char('/') + QFileInfo(source).fileName();
        // Removed rather than overwritten: rclone mounts refuse rewriting a file in place. A removal that fails
        // surfaces as the copy's failure.
        QFile::remove(target);
        if (const auto copied = copyFile(source, target); !copied)
            return unexpected(SyncError::fileSystem(SyncError::Operation::copyFile, source, copied.error()));
    }
    return {};
}

QCoro::Task<expected<void, SyncError>> sync(Recording recording, DriveOptions options, Places places)
{
    QFuture<expected<void, SyncError>> copying =
        QtConcurrent::run([recording = std::move(recording), options = std::move(options), places = std::move(places)] {
            return syncBlocking(recording, options, places);
        });
    co_return co_await copying;
}

} // namespace DriveSync

} // namespace qm
