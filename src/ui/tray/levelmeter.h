#pragma once

#include <QWidget>

namespace qm::ui {

// A live level, 0 (silence, -60 dBFS and below) to 1 (full scale), as a bar beside its symbol. The bar eases
// down rather than dropping, so speech reads as a steady movement instead of flicker.
class LevelMeter : public QWidget {
    Q_OBJECT

public:
    enum class Kind { meeting, microphone };
    explicit LevelMeter(Kind kind, QWidget *parent = nullptr);

    void setLevel(float level);
    // The microphone meter shows its muted symbol and an empty bar while the microphone is muted.
    void setMuted(bool muted);
    QSize sizeHint() const override;

protected:
    void paintEvent(QPaintEvent *event) override;

private:
    Kind m_kind;
    float m_level = 0;
    bool m_muted = false;
};

// The two meters of the recording card, named as the rest of the program knows them.
class MeetingLevelMeter : public LevelMeter {
    Q_OBJECT
public:
    explicit MeetingLevelMeter(QWidget *parent = nullptr) : LevelMeter(Kind::meeting, parent) {}
};

class MicLevelMeter : public LevelMeter {
    Q_OBJECT
public:
    explicit MicLevelMeter(QWidget *parent = nullptr) : LevelMeter(Kind::microphone, parent) {}
};

} // namespace qm::ui
