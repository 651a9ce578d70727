#include "library/recording.h"

#include <QCoreApplication>
#include <QDir>

namespace qm {

QString defaultTitleWord(RecordingSource source)
{
    switch (source) {
    case RecordingSource::zoom:
        return QCoreApplication::translate("Recording", "Zoom Meeting");
    case RecordingSource::systemAudio:
        return QCoreApplication::translate("Recording", "Online Meeting");
    case RecordingSource::inPerson:
        return QCoreApplication::translate("Recording", "In-Person Meeting");
    }
    return {};
}

QList<QUrl> Recording::audioSourceURLs() const
{
    const QDir tracks(QDir(folderPath()).filePath(QLatin1String(kSourceFolderName)));
    QList<QUrl> urls;
    if (hasMeetingTrack)
        urls.append(QUrl::fromLocalFile(tracks.filePath(QLatin1String(kMeetingTrackFileName))));
    if (hasMicrophoneTrack)
        urls.append(QUrl::fromLocalFile(tracks.filePath(QLatin1String(kMicrophoneTrackFileName))));
    return urls;
}

} // namespace qm
