#pragma once

#include "library/recording.h"
#include "ui/tray/trayviewmodel.h"

#include <QIcon>

// The symbols the tray and its panel draw. Each comes from the desktop's icon theme where it has one, so the
// panel matches the desktop, and falls back to one of ours or the style's.
namespace qm::ui::symbols {

// Lets the desktop's theme answer first and GNOME's Adwaita, where installed, fill its gaps.
void useFallbackTheme();
// A symbolic icon recoloured to `color` (the text colour of where it is drawn), so it reads in light and dark
// palettes alike, as symbolic icons do in GTK.
QIcon tinted(const QIcon &icon, const QColor &color);
// Escapes the ampersands of a text that goes on a button or menu item, where a single one marks a mnemonic.
QString literal(QString text);
// The colour of warnings, readable on light and dark backgrounds.
QColor warningColor();

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
