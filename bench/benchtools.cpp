#include "benchtools.h"

#include <QFile>
#include <QFileInfo>
#include <QProcess>

#include <cstdio>

namespace qm::bench {

bool ffmpeg(const QStringList &arguments)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    process.start(QStringLiteral("ffmpeg"),
                  QStringList{QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-y")} + arguments);
    return process.waitForFinished(-1) && process.exitCode() == 0;
}

bool ensureFixture(const QString &path, const QStringList &arguments)
{
    if (QFileInfo(path).size() > 0)
        return true;
    std::printf("generating %s…\n", qPrintable(QFileInfo(path).fileName()));
    std::fflush(stdout);
    const QString partial = path + QStringLiteral(".part.") + QFileInfo(path).suffix();
    if (!ffmpeg(arguments + QStringList{partial}))
        return false;
    return QFile::rename(partial, path);
}

} // namespace qm::bench
