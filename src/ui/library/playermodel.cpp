#include "ui/library/playermodel.h"

#include <QAudioOutput>

#include <algorithm>

namespace qm::ui {

PlayerModel::PlayerModel(QObject *parent)
    : QObject(parent), m_player(std::make_unique<QMediaPlayer>()), m_output(std::make_unique<QAudioOutput>())
{
    m_player->setAudioOutput(m_output.get());
    m_observer.setInterval(kObserverIntervalMs);
    connect(&m_observer, &QTimer::timeout, this, &PlayerModel::observe);
    connect(m_player.get(), &QMediaPlayer::durationChanged, this,
            [this](qint64 milliseconds) { setDuration(double(milliseconds) / 1000.0); });
    connect(m_player.get(), &QMediaPlayer::playbackStateChanged, this, [this](QMediaPlayer::PlaybackState state) {
        // The media ran out, or the backend stopped on its own.
        if (state != QMediaPlayer::PlayingState && m_isPlaying) {
            observe();
            setPlaying(false);
        }
    });
    connect(m_player.get(), &QMediaPlayer::mediaStatusChanged, this, [this](QMediaPlayer::MediaStatus status) {
        if (status == QMediaPlayer::EndOfMedia)
            setCurrentTime(m_duration);
    });
    connect(m_player.get(), &QMediaPlayer::errorOccurred, this, [this](QMediaPlayer::Error error, const QString &text) {
        if (error != QMediaPlayer::NoError)
            setErrorText(text.isEmpty() ? tr("This media file can't be played.") : text);
    });
}

PlayerModel::~PlayerModel()
{
    m_player->stop();
}

double PlayerModel::playbackRate() const
{
    return m_player->playbackRate();
}

void PlayerModel::load(const QUrl &url)
{
    if (m_loadedURL && *m_loadedURL == url)
        return;
    setPlaying(false);
    m_player->stop();
    setErrorText({});
    m_player->setSource(url);
    m_loadedURL = url;
    setCurrentTime(0);
    setDuration(double(m_player->duration()) / 1000.0);
    m_observer.start();
}

void PlayerModel::unload()
{
    setPlaying(false);
    m_observer.stop();
    m_player->stop();
    m_player->setSource({});
    m_loadedURL.reset();
    setErrorText({});
    setCurrentTime(0);
    setDuration(0);
}

void PlayerModel::toggle()
{
    if (m_isPlaying) {
        m_player->pause();
        observe();
        setPlaying(false);
        return;
    }
    if (m_held || !m_loadedURL)
        return;
    if (m_player->mediaStatus() == QMediaPlayer::EndOfMedia ||
        (m_duration > 0 && m_currentTime >= m_duration - kEndMargin))
        seek(0);
    m_player->play();
    setPlaying(true);
}

void PlayerModel::skip(double seconds)
{
    seek(std::clamp(m_currentTime + seconds, 0.0, std::max(0.0, m_duration)));
}

void PlayerModel::seek(double seconds)
{
    m_player->setPosition(qint64(seconds * 1000.0));
    setCurrentTime(seconds);
}

void PlayerModel::setPlaybackRate(double rate)
{
    m_player->setPlaybackRate(rate);
}

void PlayerModel::setHeld(bool held)
{
    if (held == m_held)
        return;
    m_held = held;
    if (held && m_isPlaying) {
        m_player->pause();
        observe();
        setPlaying(false);
    }
    Q_EMIT heldChanged(held);
}

void PlayerModel::observe()
{
    // Read only: writing the position back from here would make playback stutter.
    if (m_isPlaying)
        setCurrentTime(double(m_player->position()) / 1000.0);
}

void PlayerModel::setCurrentTime(double seconds)
{
    if (seconds == m_currentTime)
        return;
    m_currentTime = seconds;
    Q_EMIT currentTimeChanged(seconds);
}

void PlayerModel::setDuration(double seconds)
{
    if (seconds == m_duration)
        return;
    m_duration = seconds;
    Q_EMIT durationChanged(seconds);
}

void PlayerModel::setPlaying(bool playing)
{
    if (playing == m_isPlaying)
        return;
    m_isPlaying = playing;
    Q_EMIT isPlayingChanged(playing);
}

void PlayerModel::setErrorText(const QString &text)
{
    if (text == m_errorText)
        return;
    m_errorText = text;
    Q_EMIT errorTextChanged();
}

} // namespace qm::ui
