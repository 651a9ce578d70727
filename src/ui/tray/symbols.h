#pragma once

#include "library/recording.h"
#include "ui/tray/trayviewmodel.h"

#include <QIcon>

// The symbols the tray and its panel draw. Each comes from the desktop's icon theme where it has one, so the
// panel matches the desktop, and falls back to one of ours or the style's.
namespace qm::ui::symbols {

QIcon tray(TrayViewModel::IconState state);
QIcon application();
QIcon source(RecordingSource source);
QIcon meetingAudio();
QIcon microphone();
QIcon microphoneMuted();
QIcon settings();
QIcon warning();
QIcon transcript();
QIcon close();
QIcon trash();

} // namespace qm::ui::symbols
