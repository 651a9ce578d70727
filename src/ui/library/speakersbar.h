#pragma once

#include "library/transcript.h"

#include <QWidget>

#include <functional>

class QHBoxLayout;

namespace qm::ui {

// SpeakersBar: under "Speakers", each speaker of the transcript in order of first appearance with a pencil
// button. The button asks for a new name ("Rename " + the name, a "Name" field, "Save"), showing a few of the
// speaker's words so the user knows who it is, and hands it to `rename` (label, name).
class SpeakersBar : public QWidget {
    Q_OBJECT

public:
    using Rename = std::function<void(const QString &label, const QString &name)>;

    SpeakersBar(Rename rename, QWidget *parent = nullptr);

    // Hidden when the transcript has no speakers.
    void setTranscript(const Transcript *transcript);
    // Opens the rename dialog of the speaker at `position`.
    void renameSpeaker(int position);

private:
    Rename m_rename;
    QHBoxLayout *m_entries = nullptr;
    QStringList m_labels;
    QStringList m_names;
    QStringList m_samples;
};

} // namespace qm::ui
