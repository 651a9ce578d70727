#include "support/providers/speechfixture.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>
#include <QtDebug>

#include <cmath>

namespace qm::test {

namespace {

bool run(const QString &tool, const QStringList &arguments)
{
    QProcess process;
    process.start(tool, arguments);
    if (!process.waitForFinished(600000) || process.exitStatus() != QProcess::NormalExit || process.exitCode() != 0) {
        qWarning().noquote() << tool << "failed:" << process.errorString() << process.readAllStandardError();
        return false;
    }
    return true;
}

constexpr double kPieceSeconds = 60;

} // namespace

bool writeSpeechTrack(const QString &path, const QString &text, int channels, double seconds, int sampleRate)
{
    QTemporaryDir scratch;
    const QString wav = scratch.filePath(QStringLiteral("speech.wav"));
    if (!run(QStringLiteral("espeak-ng"),
             {QStringLiteral("-s"), QStringLiteral("160"), QStringLiteral("-w"), wav, text}))
        return false;
    QDir().mkpath(QFileInfo(path).path());

    const bool copies = seconds > kPieceSeconds;
    const QString piece = copies ? scratch.filePath(QStringLiteral("piece.m4a")) : path;
    QStringList arguments{QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-y")};
    if (seconds > 0)
        arguments << QStringLiteral("-stream_loop") << QStringLiteral("-1");
    arguments << QStringLiteral("-i") << wav;
    if (seconds > 0)
        arguments << QStringLiteral("-t") << QString::number(std::min(seconds, kPieceSeconds));
    const int bitRate = (sampleRate >= 44100 ? 64 : 32) * channels;
    arguments << QStringLiteral("-ac") << QString::number(channels) << QStringLiteral("-ar")
              << QString::number(sampleRate) << QStringLiteral("-c:a") << QStringLiteral("aac")
              << QStringLiteral("-b:a") << QStringLiteral("%1k").arg(bitRate) << piece;
    if (!run(QStringLiteral("ffmpeg"), arguments))
        return false;
    if (!copies)
        return QFileInfo(path).size() > 0;

    const QString list = scratch.filePath(QStringLiteral("pieces.txt"));
    QFile listFile(list);
    if (!listFile.open(QIODevice::WriteOnly))
        return false;
    for (int i = 0; i < int(std::ceil(seconds / kPieceSeconds)); ++i)
        listFile.write("file 'piece.m4a'\n");
    listFile.close();
    return run(QStringLiteral("ffmpeg"),
               {QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-y"), QStringLiteral("-f"),
                QStringLiteral("concat"), QStringLiteral("-safe"), QStringLiteral("0"), QStringLiteral("-i"), list,
                QStringLiteral("-t"), QString::number(seconds), QStringLiteral("-c"), QStringLiteral("copy"), path}) &&
           QFileInfo(path).size() > 0;
}

} // namespace qm::test
