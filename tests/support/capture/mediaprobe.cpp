#include "support/capture/mediaprobe.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>

#include <cmath>

namespace qm::test {

namespace {

QByteArray run(const QString &tool, const QStringList &arguments)
{
    QProcess process;
    process.start(tool, arguments);
    process.waitForFinished(120000);
    return process.readAllStandardOutput();
}

} // namespace

QByteArray monoPcm(const QString &path, int rate)
{
    return run(QStringLiteral("ffmpeg"),
               {QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-i"), path, QStringLiteral("-f"),
                QStringLiteral("f32le"), QStringLiteral("-ac"), QStringLiteral("1"), QStringLiteral("-ar"),
                QString::number(rate), QStringLiteral("-")});
}

double mediaSeconds(const QString &path)
{
    const QByteArray out =
        run(QStringLiteral("ffprobe"),
            {QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-show_entries"),
             QStringLiteral("format=duration"), QStringLiteral("-of"), QStringLiteral("csv=p=0"), path});
    bool ok = false;
    const double seconds = out.trimmed().toDouble(&ok);
    return ok ? seconds : -1;
}

QJsonObject streamInfo(const QString &path, const char *streamType)
{
    const QByteArray json = run(QStringLiteral("ffprobe"),
                                {QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-select_streams"),
                                 QLatin1String(streamType), QStringLiteral("-show_streams"),
                                 QStringLiteral("-show_format"), QStringLiteral("-of"), QStringLiteral("json"), path});
    const QJsonObject root = QJsonDocument::fromJson(json).object();
    QJsonObject stream = root.value(QLatin1String("streams")).toArray().first().toObject();
    stream.insert(
        QLatin1String("format_duration"),
        root.value(QLatin1String("format")).toObject().value(QLatin1String("duration")).toString().toDouble());
    return stream;
}

QString codecName(const QString &path, const char *streamType)
{
    const QByteArray out =
        run(QStringLiteral("ffprobe"),
            {QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-select_streams"),
             QLatin1String(streamType), QStringLiteral("-show_entries"), QStringLiteral("stream=codec_name"),
             QStringLiteral("-of"), QStringLiteral("csv=p=0"), path});
    return QString::fromUtf8(out.trimmed());
}

QVector<double> loudness(const QString &path, double window)
{
    constexpr int rate = 8000;
    const QByteArray pcm = monoPcm(path, rate);
    const auto *samples = reinterpret_cast<const float *>(pcm.constData());
    const qsizetype count = pcm.size() / qsizetype(sizeof(float));
    const auto step = qsizetype(window * rate);
    QVector<double> levels;
    for (qsizetype start = 0; start + step <= count; start += step) {
        double sum = 0;
        for (qsizetype i = start; i < start + step; ++i)
            sum += double(samples[i]) * double(samples[i]);
        levels.append(std::sqrt(sum / double(step)));
    }
    return levels;
}

double onset(const QString &path, float threshold)
{
    constexpr int rate = 8000;
    const QByteArray pcm = monoPcm(path, rate);
    const auto *samples = reinterpret_cast<const float *>(pcm.constData());
    for (qsizetype i = 0; i < pcm.size() / qsizetype(sizeof(float)); ++i) {
        if (std::fabs(samples[i]) > threshold)
            return double(i) / rate;
    }
    return -1;
}

} // namespace qm::test
