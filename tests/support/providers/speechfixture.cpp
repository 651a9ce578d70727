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

bool run(const QString &tool, const QStringList &arguments, QByteArray *output = nullptr)
{
    QProcess process;
    process.start(tool, arguments);
    if (!process.waitForFinished(600000) || process.exitStatus() != QProcess::NormalExit || process.exitCode() != 0) {
        qWarning().noquote() << tool << "failed:" << process.errorString() << process.readAllStandardError();
        return false;
    }
    if (output)
        *output = process.readAllStandardOutput();
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

bool writePlacedSpeech(const QString &path, QList<PlacedSpeech> &pieces, double trailing)
{
    QTemporaryDir scratch;
    const QString rate = QStringLiteral("16000");
    QStringList parts;
    const auto silence = [&](double seconds) {
        const QString part = scratch.filePath(QStringLiteral("part-%1.wav").arg(parts.size()));
        parts.append(part);
        return run(QStringLiteral("sox"), {QStringLiteral("-n"), QStringLiteral("-r"), rate, QStringLiteral("-c"),
                                           QStringLiteral("1"), QStringLiteral("-b"), QStringLiteral("16"), part,
                                           QStringLiteral("trim"), QStringLiteral("0"), QString::number(seconds)});
    };
    double at = 0;
    for (PlacedSpeech &piece : pieces) {
        if (piece.pause > 0 && !silence(piece.pause))
            return false;
        at += piece.pause;
        const QString spoken = scratch.filePath(QStringLiteral("spoken.wav"));
        const QString part = scratch.filePath(QStringLiteral("part-%1.wav").arg(parts.size()));
        // Anything below −54 dBFS at either end is espeak-ng's padding, not speech.
        const QStringList cut{QStringLiteral("silence"), QStringLiteral("1"), QStringLiteral("0.005"),
                              QStringLiteral("0.2%")};
        QByteArray length;
        if (!run(QStringLiteral("espeak-ng"), {QStringLiteral("-v"), piece.voice, QStringLiteral("-s"),
                                               QStringLiteral("160"), QStringLiteral("-w"), spoken, piece.text}) ||
            !run(QStringLiteral("sox"),
                 QStringList{spoken, QStringLiteral("-r"), rate, QStringLiteral("-c"), QStringLiteral("1"),
                             QStringLiteral("-b"), QStringLiteral("16"), part}
                     << cut << QStringLiteral("reverse") << cut << QStringLiteral("reverse")) ||
            !run(QStringLiteral("soxi"), {QStringLiteral("-D"), part}, &length))
            return false;
        parts.append(part);
        piece.start = at;
        at += length.trimmed().toDouble();
        piece.end = at;
    }
    if (trailing > 0 && !silence(trailing))
        return false;
    const QString joined = scratch.filePath(QStringLiteral("joined.wav"));
    if (parts.isEmpty() || !run(QStringLiteral("sox"), QStringList(parts) << joined))
        return false;
    QDir().mkpath(QFileInfo(path).path());
    return run(QStringLiteral("ffmpeg"),
               {QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-y"), QStringLiteral("-i"), joined,
                QStringLiteral("-c:a"), QStringLiteral("aac"), QStringLiteral("-b:a"), QStringLiteral("32k"), path});
}

} // namespace qm::test
