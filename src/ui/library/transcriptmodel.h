#pragma once

#include "library/transcript.h"

#include <QAbstractListModel>

#include <optional>

namespace qm::ui {

// The segments of the shown transcript, with the one being played and the search's matches. Main thread only.
class TranscriptModel : public QAbstractListModel {
    Q_OBJECT

public:
    enum Role {
        StartRole = Qt::UserRole + 1, // double seconds
        TimestampRole,                // "07:05"
        SpeakerRole,                  // the display name, or nothing
        SpeakerIndexRole,             // int: position of the speaker in order of first appearance, -1 without one
        ActiveRole,                   // bool: the segment being played
        MatchesRole,                  // QList<QPoint>: (start, length) of each match of the search in DisplayRole
    };
    Q_ENUM(Role)

    explicit TranscriptModel(QObject *parent = nullptr);

    void setTranscript(std::optional<Transcript> transcript);
    const std::optional<Transcript> &transcript() const { return m_transcript; }

    // The search text whose matches are marked; empty marks nothing.
    void setQuery(const QString &query);
    int firstMatch() const;

    // Follows playback: the active segment is the last one starting at or before `seconds`.
    void setTime(double seconds);
    int activeRow() const { return m_active; }
    static int segmentAt(const QList<TranscriptSegment> &segments, double seconds);

    int rowCount(const QModelIndex &parent = QModelIndex()) const override;
    QVariant data(const QModelIndex &index, int role = Qt::DisplayRole) const override;

Q_SIGNALS:
    void activeRowChanged(int row);

private:
    std::optional<Transcript> m_transcript;
    QStringList m_speakers;
    QString m_foldedQuery;
    int m_active = -1;
};

} // namespace qm::ui
