#include "drive/drivesync.h"

#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QStandardPaths>

namespace qm::DriveSync {

namespace {

struct Mount {
    QString point;
    QByteArray type;
    QString source;
};

bool isOctalDigit(char c)
{
    return c >= '0' && c <= '7';
}

// The kernel writes space, tab, newline and backslash in these fields as a backslash and three octal digits.
QString decodeMountField(const QByteArray &field)
{
    QByteArray decoded;
    decoded.reserve(field.size());
    for (qsizetype i = 0; i < field.size(); ++i) {
        if (field[i] == '\\' && i + 3 < field.size() && isOctalDigit(field[i + 1]) && isOctalDigit(field[i + 2]) &&
            isOctalDigit(field[i + 3])) {
            decoded.append(char(((field[i + 1] - '0') << 6) | ((field[i + 2] - '0') << 3) | (field[i + 3] - '0')));
            i += 3;
        } else {
            decoded.append(field[i]);
        }
    }
    return QFile::decodeName(decoded);
}

// "id parent major:minor root mount-point options [optional fields...] - type source super-options"
std::optional<Mount> parseMountLine(const QByteArray &line)
{
    const QList<QByteArray> fields = line.trimmed().split(' ');
    const qsizetype separator = fields.indexOf(QByteArray("-"), 6);
    if (separator < 0 || separator + 2 >= fields.size())
        return std::nullopt;
    return Mount{decodeMountField(fields[4]), fields[separator + 1], decodeMountField(fields[separator + 2])};
}

// Remote name → backend type from rclone's configuration; nothing when it can't be read (missing, unreadable,
// or encrypted with a password we don't have).
std::optional<QHash<QString, QString>> rcloneRemoteTypes(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text))
        return std::nullopt;
    QHash<QString, QString> types;
    QString section;
    while (!file.atEnd()) {
        const QString line = QString::fromUtf8(file.readLine()).trimmed();
        if (line.startsWith(QLatin1String("RCLONE_ENCRYPT_V")))
            return std::nullopt;
        if (line.startsWith(QLatin1Char('[')) && line.endsWith(QLatin1Char(']'))) {
            section = line.mid(1, line.size() - 2);
            continue;
        }
        const qsizetype equals = line.indexOf(QLatin1Char('='));
        if (!section.isEmpty() && equals > 0 && line.left(equals).trimmed() == QLatin1String("type"))
            types.insert(section, line.mid(equals + 1).trimmed());
    }
    return types;
}

// rclone names a mount after its remote: "remote:path", "remote,option=value:path", or ":backend:path" for a
// remote described on the command line. Without a readable configuration every rclone mount is taken, since
// there is nothing to tell a Drive remote by.
bool isDriveRemote(const QString &source, const std::optional<QHash<QString, QString>> &types)
{
    const auto nameUpTo = [&source](qsizetype from) {
        qsizetype end = from;
        while (end < source.size() && source.at(end) != QLatin1Char(':') && source.at(end) != QLatin1Char(','))
            ++end;
        return source.mid(from, end - from);
    };
    if (source.startsWith(QLatin1Char(':')))
        return nameUpTo(1) == QLatin1String("drive");
    if (!types)
        return true;
    return types->value(nameUpTo(0)) == QLatin1String("drive");
}

QList<QString> driveMounts(const Places &places)
{
    QList<QString> mounts;
    QFile file(places.mountInfo);
    if (!file.open(QIODevice::ReadOnly))
        return mounts;
    bool rcloneConfigRead = false; // read once, and only when an rclone mount is there
    std::optional<QHash<QString, QString>> rcloneTypes;
    while (!file.atEnd()) {
        const std::optional<Mount> mount = parseMountLine(file.readLine());
        if (!mount)
            continue;
        bool drive = mount->type == "fuse.google-drive-ocamlfuse";
        if (mount->type == "fuse.rclone") {
            if (!rcloneConfigRead) {
                rcloneTypes = rcloneRemoteTypes(places.rcloneConfig);
                rcloneConfigRead = true;
            }
            drive = isDriveRemote(mount->source, rcloneTypes);
        }
        if (drive && !mounts.contains(mount->point))
            mounts.append(mount->point);
    }
    return mounts;
}

// Insync 3 keeps a Google account's own files in "My Drive" beside "Shared with me" and "Shared drives";
// older versions synced them straight into the account folder, so an account folder without "My Drive" is
// taken as that older layout.
QList<QString> insyncAccounts(const Places &places)
{
    QList<QString> roots;
    const QDir insync(places.home + QStringLiteral("/Insync"));
    const QFileInfoList accounts = insync.entryInfoList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::NoSort);
    for (const QFileInfo &account : accounts) {
        const QString myDrive = account.filePath() + QStringLiteral("/My Drive");
        roots.append(QFileInfo(myDrive).isDir() ? myDrive : account.filePath());
    }
    return roots;
}

} // namespace

QString Places::defaultRcloneConfig()
{
    const QString chosen = qEnvironmentVariable("RCLONE_CONFIG");
    if (!chosen.isEmpty())
        return chosen;
    return QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) +
           QStringLiteral("/rclone/rclone.conf");
}

QList<QString> detectedRoots(const Places &places)
{
    QList<QString> roots = driveMounts(places);
    for (const QString &account : insyncAccounts(places)) {
        if (!roots.contains(account))
            roots.append(account);
    }
    return roots;
}

} // namespace qm::DriveSync
