#include "ui/library/playerview.h"

#include "library/formatters.h"
#include "ui/library/playermodel.h"

#include <QComboBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QSlider>
#include <QStyle>
#include <QToolButton>
#include <QVBoxLayout>
#include <QVideoWidget>

namespace qm::ui {

QList<int> PlayerView::speeds()
{
    return {75, 100, 125, 150, 175, 200};
}

PlayerView::PlayerView(PlayerModel &model, QWidget *parent) : QWidget(parent), m_model(model)
{
    auto *column = new QVBoxLayout(this);
    column->setContentsMargins(0, 0, 0, 0);
    column->setSpacing(6);
    m_video = new QVideoWidget(this);
    m_video->setMinimumHeight(220);
    m_video->hide();
    m_model.player().setVideoOutput(m_video);
    column->addWidget(m_video, 1);

    auto *row = new QHBoxLayout;
    row->setSpacing(4);
    auto button = [this, row](const char *name, QStyle::StandardPixmap icon, const QString &tip) {
        auto *b = new QToolButton(this);
        b->setIcon(QIcon::fromTheme(QLatin1String(name), style()->standardIcon(icon)));
        b->setToolTip(tip);
        b->setAutoRaise(true);
        b->setIconSize(QSize(20, 20));
        row->addWidget(b);
        return b;
    };
    m_back = button("media-seek-backward", QStyle::SP_MediaSeekBackward, tr("Back 15 seconds (←)"));
    m_back->setAccessibleName(tr("Back 15 seconds"));
    m_play = button("media-playback-start", QStyle::SP_MediaPlay, tr("Play (Space)"));
    m_play->setIconSize(QSize(26, 26));
    m_forward = button("media-seek-forward", QStyle::SP_MediaSeekForward, tr("Forward 15 seconds (→)"));
    m_forward->setAccessibleName(tr("Forward 15 seconds"));

    m_position = new QSlider(Qt::Horizontal, this);
    m_position->setAccessibleName(tr("Position"));
    m_position->setFocusPolicy(Qt::NoFocus);
    row->addSpacing(6);
    row->addWidget(m_position, 1);
    m_time = new QLabel(this);
    m_time->setMinimumWidth(m_time->fontMetrics().horizontalAdvance(QStringLiteral("00:00:00 / 00:00:00")));
    m_time->setAlignment(Qt::AlignRight | Qt::AlignVCenter);
    row->addWidget(m_time);

    m_speed = new QComboBox(this);
    m_speed->setToolTip(tr("Playback speed"));
    m_speed->setAccessibleName(tr("Playback speed"));
    for (const int percent : speeds())
        m_speed->addItem(QStringLiteral("%1×").arg(QLocale().toString(percent / 100.0, 'g', 3)), percent);
    m_speed->setCurrentIndex(1);
    row->addWidget(m_speed);
    column->addLayout(row);

    connect(m_back, &QToolButton::clicked, this, [this] { m_model.skip(-PlayerModel::kSkipSeconds); });
    connect(m_forward, &QToolButton::clicked, this, [this] { m_model.skip(PlayerModel::kSkipSeconds); });
    connect(m_play, &QToolButton::clicked, this, [this] { m_model.toggle(); });
    connect(m_position, &QSlider::sliderPressed, this, [this] { m_dragging = true; });
    connect(m_position, &QSlider::sliderReleased, this, [this] {
        m_dragging = false;
        m_model.seek(m_position->value() / 1000.0);
    });
    connect(m_position, &QSlider::actionTriggered, this, [this](int action) {
        // Clicks on the groove and wheel steps; dragging seeks once, when released.
        if (action != QAbstractSlider::SliderMove)
            QMetaObject::invokeMethod(
                this, [this] { m_model.seek(m_position->value() / 1000.0); }, Qt::QueuedConnection);
    });
    connect(m_speed, &QComboBox::activated, this, [this] {
        const int percent = m_speed->currentData().toInt();
        m_model.setPlaybackRate(percent / 100.0);
        Q_EMIT speedPercentChanged(percent);
    });
    connect(&m_model, &PlayerModel::currentTimeChanged, this, &PlayerView::update);
    connect(&m_model, &PlayerModel::durationChanged, this, &PlayerView::update);
    connect(&m_model, &PlayerModel::isPlayingChanged, this, &PlayerView::update);
    connect(&m_model, &PlayerModel::heldChanged, this, &PlayerView::update);
    update();
}

void PlayerView::setShowsVideo(bool video)
{
    m_video->setVisible(video);
}

void PlayerView::setSpeedPercent(int percent)
{
    const int at = m_speed->findData(percent);
    m_speed->setCurrentIndex(at >= 0 ? at : 1);
    m_model.setPlaybackRate(m_speed->currentData().toInt() / 100.0);
}

void PlayerView::update()
{
    const bool playing = m_model.isPlaying();
    m_play->setIcon(
        playing
            ? QIcon::fromTheme(QStringLiteral("media-playback-pause"), style()->standardIcon(QStyle::SP_MediaPause))
            : QIcon::fromTheme(QStringLiteral("media-playback-start"), style()->standardIcon(QStyle::SP_MediaPlay)));
    m_play->setToolTip(playing ? tr("Pause (Space)") : tr("Play (Space)"));
    m_play->setAccessibleName(playing ? tr("Pause") : tr("Play"));
    m_play->setEnabled(playing || !m_model.isHeld());
    const double duration = m_model.duration();
    m_position->setRange(0, int(duration * 1000.0));
    if (!m_dragging) {
        const QSignalBlocker quiet(m_position);
        m_position->setValue(int(m_model.currentTime() * 1000.0));
    }
    m_position->setPageStep(int(PlayerModel::kSkipSeconds * 1000.0));
    m_time->setText(Formatters::clock(m_model.currentTime()) + QStringLiteral(" / ") + Formatters::clock(duration));
}

} // namespace qm::ui
