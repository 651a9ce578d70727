#pragma once

#include "library/recording.h"

#include <QWidget>

#include <optional>

class QLabel;
class QLineEdit;
class QListView;
class QProgressBar;
class QStackedWidget;
class QToolButton;

namespace qm {
class AppController;
}

namespace qm::ui {

class PlayerModel;
class PlayerView;
class SegmentDelegate;
class SpeakersBar;
class TranscriptModel;

// RecordingDetailView: the selected recording with its title, actions, player, speakers and transcript. Every
// change goes through the controller or the store; the view keeps only the player and the transcript it shows,
// re-read when the controller's transcriptRevision moves on.
class RecordingDetailView : public QWidget {
    Q_OBJECT

public:
    explicit RecordingDetailView(AppController &controller, QWidget *parent = nullptr);
    ~RecordingDetailView() override;

    // Shows the recording with this id (nothing when the store doesn't have it). `query` is the search text whose
    // matches are marked; a new recording opens at its first matching segment.
    void showRecording(const std::optional<QUuid> &id, const QString &query);
    const std::optional<QUuid> &recordingId() const { return m_id; }

    PlayerModel &player() { return *m_player; }
    TranscriptModel &transcript() { return *m_transcript; }
    QListView *transcriptView() const { return m_segments; }
    QLineEdit *titleField() const { return m_title; }
    SpeakersBar *speakersBar() const { return m_speakers; }

    // The window's keyboard actions.
    void editTitle();
    void askToTrash();
    void playFrom(int segment);

private:
    void refresh();
    void reloadTranscript();
    void commitTitle();
    void exportAs(int format);
    std::optional<Recording> current() const;

    AppController &m_controller;
    std::optional<QUuid> m_id;
    QString m_query;
    std::unique_ptr<PlayerModel> m_player;
    std::unique_ptr<TranscriptModel> m_transcript;

    QLineEdit *m_title = nullptr;
    QLabel *m_summary = nullptr;
    QWidget *m_busy = nullptr;
    QProgressBar *m_busyBar = nullptr;
    QLabel *m_busyText = nullptr;
    QLabel *m_error = nullptr;
    QToolButton *m_transcribe = nullptr;
    QToolButton *m_export = nullptr;
    QLabel *m_exportHint = nullptr;
    QToolButton *m_copy = nullptr;
    QToolButton *m_drive = nullptr;
    QToolButton *m_reveal = nullptr;
    QToolButton *m_trash = nullptr;
    PlayerView *m_playerView = nullptr;
    QLabel *m_mediaNote = nullptr;
    QLabel *m_playbackNote = nullptr;
    SpeakersBar *m_speakers = nullptr;
    QStackedWidget *m_transcriptStack = nullptr;
    QListView *m_segments = nullptr;
    SegmentDelegate *m_delegate = nullptr;
    QLabel *m_emptyTitle = nullptr;
    QLabel *m_emptyDetail = nullptr;
};

} // namespace qm::ui
