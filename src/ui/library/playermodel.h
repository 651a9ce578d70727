#pragma once

#include <QMediaPlayer>
#include <QObject>
#include <QTimer>
#include <QUrl>

#include <memory>
#include <optional>

class QAudioOutput;

namespace qm::ui {

// The player of one detail view: a media player with its time published four times a second, and the
// transport rules (toggle at the end restarts, skips stay inside the media). Main thread only.
//
// While held (a recording is running, and the recording of the computer's sound would hear us) nothing plays:
// holding pauses, and toggle() refuses to start.
class PlayerModel : public QObject {
    Q_OBJECT
    Q_PROPERTY(double currentTime READ currentTime NOTIFY currentTimeChanged)
    Q_PROPERTY(double duration READ duration NOTIFY durationChanged)
    Q_PROPERTY(bool isPlaying READ isPlaying NOTIFY isPlayingChanged)

public:
    static constexpr double kSkipSeconds = 15;
    // How close to the end counts as "at the end" for toggle().
    static constexpr double kEndMargin = 0.25;
    static constexpr int kObserverIntervalMs = 250;

    explicit PlayerModel(QObject *parent = nullptr);
    ~PlayerModel() override;

    QMediaPlayer &player() { return *m_player; }
    double currentTime() const { return m_currentTime; }
    double duration() const { return m_duration; }
    bool isPlaying() const { return m_isPlaying; }
    const std::optional<QUrl> &loadedURL() const { return m_loadedURL; }
    // Why the loaded media can't be played (a missing decoder, an unreadable file); empty when it can.
    QString errorText() const { return m_errorText; }
    bool isHeld() const { return m_held; }
    double playbackRate() const;

    void load(const QUrl &url);
    // Stops and forgets the loaded media.
    void unload();
    void toggle();
    void skip(double seconds);
    void seek(double seconds);
    void setPlaybackRate(double rate);
    void setHeld(bool held);

Q_SIGNALS:
    void currentTimeChanged(double seconds);
    void durationChanged(double seconds);
    void isPlayingChanged(bool playing);
    void errorTextChanged();
    void heldChanged(bool held);

private:
    void setCurrentTime(double seconds);
    void setDuration(double seconds);
    void setPlaying(bool playing);
    void setErrorText(const QString &text);
    void observe();

    std::unique_ptr<QMediaPlayer> m_player;
    std::unique_ptr<QAudioOutput> m_output;
    QTimer m_observer;
    double m_currentTime = 0;
    double m_duration = 0;
    bool m_isPlaying = false;
    bool m_held = false;
    std::optional<QUrl> m_loadedURL;
    QString m_errorText;
};

} // namespace qm::ui
