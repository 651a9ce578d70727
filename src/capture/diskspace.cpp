#include "capture/diskspace.h"

#include "capture/audiosettings.h"
#include "capture/trackwriter.h"

#include <QFileInfo>
#include <QLocale>
#include <QStorageInfo>

namespace qm::DiskSpace {

namespace {

qint64 audioBytesPerSecond(AudioQuality quality, int channels)
{
    const AudioSettings settings = audioSettings(quality, channels);
    if (settings.bitRate)
        return *settings.bitRate / 8;
    // Lossless: 24-bit samples before compression, which speech rarely halves.
    return qint64(settings.sampleRate) * settings.channels * 3;
}

} // namespace

qint64 bytesPerSecond(AudioQuality quality, bool video, int frameRate)
{
    qint64 bytes = audioBytesPerSecond(quality, 2) + audioBytesPerSecond(quality, 1);
    if (video)
        bytes += VideoSettings::forCapture(1920, 1080, frameRate).bitRate / 8;
    return bytes;
}

std::optional<qint64> freeBytes(const QString &path)
{
    QFileInfo existing(path);
    while (!existing.exists() && !existing.isRoot() && !existing.filePath().isEmpty())
        existing = QFileInfo(existing.absolutePath());
    const QStorageInfo storage(existing.absoluteFilePath());
    if (!storage.isValid() || !storage.isReady())
        return std::nullopt;
    return storage.bytesAvailable();
}

QString sizeText(qint64 bytes)
{
    return QLocale().formattedDataSize(bytes, 1, QLocale::DataSizeSIFormat);
}

} // namespace qm::DiskSpace
