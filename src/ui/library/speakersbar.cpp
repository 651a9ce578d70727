#include "ui/library/speakersbar.h"

#include <QDialog>
#include <QDialogButtonBox>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QIcon>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QToolButton>
#include <QVBoxLayout>

namespace qm::ui {

SpeakersBar::SpeakersBar(Rename rename, QWidget *parent) : QWidget(parent), m_rename(std::move(rename))
{
    auto *row = new QHBoxLayout(this);
    row->setContentsMargins(0, 0, 0, 0);
    row->setSpacing(10);
    auto *heading = new QLabel(tr("Speakers"), this);
    QFont bold = heading->font();
    bold.setBold(true);
    heading->setFont(bold);
    row->addWidget(heading);
    m_entries = new QHBoxLayout;
    m_entries->setSpacing(2);
    row->addLayout(m_entries);
    row->addStretch(1);
}

void SpeakersBar::setTranscript(const Transcript *transcript)
{
    while (QLayoutItem *item = m_entries->takeAt(0)) {
        delete item->widget();
        delete item;
    }
    m_labels = transcript ? transcript->speakers() : QStringList();
    m_names.clear();
    m_samples.clear();
    for (qsizetype i = 0; i < m_labels.size(); ++i) {
        const QString &label = m_labels.at(i);
        m_names.append(transcript->nameFor(label).value_or(label));
        QString sample;
        for (const TranscriptSegment &segment : transcript->segments) {
            if (segment.speaker == label && segment.text.size() > sample.size())
                sample = segment.text;
            if (sample.size() > 60)
                break;
        }
        m_samples.append(sample);

        auto *name = new QLabel(m_names.last(), this);
        auto *pencil = new QToolButton(this);
        pencil->setIcon(QIcon::fromTheme(QStringLiteral("document-edit")));
        if (pencil->icon().isNull())
            pencil->setText(QStringLiteral("✎"));
        pencil->setAutoRaise(true);
        pencil->setToolTip(tr("Rename %1").arg(m_names.last()));
        pencil->setAccessibleName(tr("Rename %1").arg(m_names.last()));
        const int position = int(i);
        connect(pencil, &QToolButton::clicked, this, [this, position] { renameSpeaker(position); });
        m_entries->addWidget(name);
        m_entries->addWidget(pencil);
        if (i + 1 < m_labels.size())
            m_entries->addSpacing(10);
    }
    setVisible(!m_labels.isEmpty());
}

void SpeakersBar::renameSpeaker(int position)
{
    if (position < 0 || position >= m_labels.size())
        return;
    QDialog dialog(this);
    dialog.setWindowTitle(tr("Rename ") + m_names.at(position));
    auto *column = new QVBoxLayout(&dialog);
    auto *title = new QLabel(tr("Rename ") + m_names.at(position), &dialog);
    QFont bold = title->font();
    bold.setBold(true);
    title->setFont(bold);
    column->addWidget(title);
    if (!m_samples.at(position).isEmpty()) {
        auto *sample = new QLabel(QStringLiteral("“") + m_samples.at(position) + QStringLiteral("”"), &dialog);
        sample->setWordWrap(true);
        sample->setEnabled(false);
        column->addWidget(sample);
    }
    auto *form = new QFormLayout;
    auto *field = new QLineEdit(m_names.at(position), &dialog);
    field->selectAll();
    form->addRow(tr("Name"), field);
    column->addLayout(form);
    auto *buttons = new QDialogButtonBox(QDialogButtonBox::Cancel, &dialog);
    QPushButton *save = buttons->addButton(tr("Save"), QDialogButtonBox::AcceptRole);
    save->setDefault(true);
    connect(buttons, &QDialogButtonBox::accepted, &dialog, &QDialog::accept);
    connect(buttons, &QDialogButtonBox::rejected, &dialog, &QDialog::reject);
    column->addWidget(buttons);
    dialog.setMinimumWidth(340);
    if (dialog.exec() == QDialog::Accepted)
        m_rename(m_labels.at(position), field->text());
}

} // namespace qm::ui
