#pragma once

#include <QWidget>

class QComboBox;
class QLabel;
class QSlider;
class QToolButton;
class QVideoWidget;

namespace qm::ui {

class PlayerModel;

// PlayerView: back 15 s, play/pause, forward 15 s, the position, current time and duration, and the playback
// speed. Shows the video of screen recordings above the controls.
class PlayerView : public QWidget {
    Q_OBJECT

public:
    PlayerView(PlayerModel &model, QWidget *parent = nullptr);

    void setShowsVideo(bool video);
    // The playback speed in percent, one of speeds().
    void setSpeedPercent(int percent);
    static QList<int> speeds();

    QToolButton *playButton() const { return m_play; }

Q_SIGNALS:
    void speedPercentChanged(int percent);

private:
    void update();

    PlayerModel &m_model;
    QVideoWidget *m_video = nullptr;
    QToolButton *m_back = nullptr;
    QToolButton *m_play = nullptr;
    QToolButton *m_forward = nullptr;
    QSlider *m_position = nullptr;
    QLabel *m_time = nullptr;
    QComboBox *m_speed = nullptr;
    bool m_dragging = false;
};

} // namespace qm::ui
