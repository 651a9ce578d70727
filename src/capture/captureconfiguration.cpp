#include "capture/captureconfiguration.h"

#include <QDir>

namespace qm {

CaptureConfiguration CaptureConfiguration::forRecording(const Recording &recording)
{
    const QDir source(QDir(recording.folderPath()).filePath(QLatin1String(kSourceFolderName)));
    CaptureConfiguration configuration;
    configuration.source = recording.source;
    configuration.captureVideo = recording.hasVideo;
    configuration.meetingTrackURL = QUrl::fromLocalFile(source.filePath(QLatin1String(kMeetingTrackFileName)));
    configuration.microphoneTrackURL = QUrl::fromLocalFile(source.filePath(QLatin1String(kMicrophoneTrackFileName)));
    configuration.screenURL = QUrl::fromLocalFile(source.filePath(QLatin1String(kScreenTrackFileName)));
    return configuration;
}

} // namespace qm
