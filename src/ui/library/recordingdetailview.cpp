#include "ui/library/recordingdetailview.h"

#include "app/appcontroller.h"
#include "app/appsettings.h"
#include "library/recordingstore.h"
#include "library/transcriptexport.h"
#include "ui/library/desktopactions.h"
#include "ui/library/libraryviewstate.h"
#include "ui/library/playermodel.h"
#include "ui/library/playerview.h"
#include "ui/library/segmentdelegate.h"
#include "ui/library/speakersbar.h"
#include "ui/library/transcriptmodel.h"

#include <QApplication>
#include <QClipboard>
#include <QDir>
#include <QFileDialog>
#include <QFileInfo>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QListView>
#include <QMenu>
#include <QMessageBox>
#include <QProgressBar>
#include <QPushButton>
#include <QResizeEvent>
#include <QStackedWidget>
#include <QStandardPaths>
#include <QToolButton>
#include <QVBoxLayout>

namespace qm::ui {

namespace {

QIcon themedIcon(const char *name, QStyle::StandardPixmap fallback, const QStyle *style)
{
    return QIcon::fromTheme(QLatin1String(name), style->standardIcon(fallback));
}

QString menuText(TranscriptFormat format)
{
    switch (format) {
    case TranscriptFormat::text:
        return RecordingDetailView::tr("Export as Text (.txt)…");
    case TranscriptFormat::markdown:
        return RecordingDetailView::tr("Export as Markdown (.md)…");
    case TranscriptFormat::subRip:
        return RecordingDetailView::tr("Export as Subtitles (.srt)…");
    case TranscriptFormat::webVTT:
        return RecordingDetailView::tr("Export as WebVTT (.vtt)…");
    case TranscriptFormat::json:
        return RecordingDetailView::tr("Export as JSON (.json)…");
    }
    return {};
}

QString fileTypeName(TranscriptFormat format)
{
    switch (format) {
    case TranscriptFormat::text:
        return RecordingDetailView::tr("Plain text");
    case TranscriptFormat::markdown:
        return RecordingDetailView::tr("Markdown");
    case TranscriptFormat::subRip:
        return RecordingDetailView::tr("SubRip subtitles");
    case TranscriptFormat::webVTT:
        return RecordingDetailView::tr("WebVTT subtitles");
    case TranscriptFormat::json:
        return RecordingDetailView::tr("JSON");
    }
    return {};
}

// Resizes the transcript's rows with the list, since their height depends on the wrapped text.
class SegmentList : public QListView {
public:
    SegmentList(SegmentDelegate *delegate, QWidget *parent) : QListView(parent), m_delegate(delegate) {}

protected:
    void resizeEvent(QResizeEvent *event) override
    {
        m_delegate->setWidth(viewport()->width());
        QListView::resizeEvent(event);
        scheduleDelayedItemsLayout();
    }

private:
    SegmentDelegate *m_delegate;
};

} // namespace

RecordingDetailView::RecordingDetailView(AppController &controller, QWidget *parent)
    : QWidget(parent), m_controller(controller), m_player(std::make_unique<PlayerModel>()),
      m_transcript(std::make_unique<TranscriptModel>())
{
    auto *column = new QVBoxLayout(this);
    column->setContentsMargins(16, 12, 16, 12);
    column->setSpacing(8);

    m_title = new QLineEdit(this);
    m_title->setPlaceholderText(tr("Title"));
    m_title->setAccessibleName(tr("Title"));
    m_title->setToolTip(tr("Rename the recording (F2)"));
    m_title->setFrame(false);
    QFont titleFont = m_title->font();
    titleFont.setPointSizeF(titleFont.pointSizeF() * 1.45);
    titleFont.setBold(true);
    m_title->setFont(titleFont);
    // A heading until it is edited: no field drawn around it.
    QPalette titlePalette = m_title->palette();
    titlePalette.setColor(QPalette::Base, titlePalette.color(QPalette::Window));
    m_title->setPalette(titlePalette);
    // The title row carries the two actions on the folder, as icons, so the action row fits a narrow window.
    auto *titleRow = new QHBoxLayout;
    titleRow->setSpacing(2);
    titleRow->addWidget(m_title, 1);
    column->addLayout(titleRow);

    m_summary = new QLabel(this);
    QPalette secondary = m_summary->palette();
    QColor dim = secondary.color(QPalette::WindowText);
    dim.setAlphaF(0.65f);
    secondary.setColor(QPalette::WindowText, dim);
    m_summary->setPalette(secondary);
    m_summary->setContentsMargins(3, 0, 0, 0);
    column->addWidget(m_summary);

    m_busy = new QWidget(this);
    auto *busyRow = new QHBoxLayout(m_busy);
    busyRow->setContentsMargins(3, 0, 0, 0);
    m_busyBar = new QProgressBar(m_busy);
    m_busyBar->setRange(0, 0);
    m_busyBar->setMaximumWidth(120);
    m_busyBar->setMaximumHeight(10);
    m_busyBar->setTextVisible(false);
    m_busyText = new QLabel(m_busy);
    busyRow->addWidget(m_busyBar);
    busyRow->addWidget(m_busyText, 1);
    column->addWidget(m_busy);

    m_error = new QLabel(this);
    m_error->setWordWrap(true);
    m_error->setTextInteractionFlags(Qt::TextSelectableByMouse);
    m_error->setContentsMargins(3, 0, 0, 0);
    column->addWidget(m_error);

    auto *actions = new QHBoxLayout;
    actions->setSpacing(2);
    auto action = [this, actions](const QIcon &icon, const QString &text) {
        auto *b = new QToolButton(this);
        b->setIcon(icon);
        b->setText(text);
        b->setToolButtonStyle(Qt::ToolButtonTextBesideIcon);
        b->setAutoRaise(true);
        actions->addWidget(b);
        return b;
    };
    const QStyle *s = style();
    m_transcribe = action(themedIcon("document-edit", QStyle::SP_FileDialogContentsView, s), tr("Transcribe"));
    m_export = action(themedIcon("document-save-as", QStyle::SP_DialogSaveButton, s), tr("Export"));
    m_export->setPopupMode(QToolButton::InstantPopup);
    auto *exportMenu = new QMenu(m_export);
    for (const TranscriptFormat format : kTranscriptFormats) {
        exportMenu->addAction(menuText(format), this, [this, format] { exportAs(int(format)); });
    }
    m_export->setMenu(exportMenu);
    m_exportHint = new QLabel(tr("Transcribe first to export"), this);
    m_exportHint->setEnabled(false);
    actions->addWidget(m_exportHint);
    m_copy = action(themedIcon("edit-copy", QStyle::SP_FileDialogDetailedView, s), tr("Copy Transcript"));
    m_drive = action(themedIcon("folder-remote", QStyle::SP_DriveNetIcon, s), tr("Copy to Google Drive"));
    actions->addStretch(1);
    column->addLayout(actions);
    auto iconAction = [this, titleRow](const QIcon &icon, const QString &text, const QString &tip) {
        auto *b = new QToolButton(this);
        b->setIcon(icon);
        b->setText(text);
        b->setAccessibleName(text);
        b->setToolTip(tip);
        b->setAutoRaise(true);
        b->setIconSize(QSize(22, 22));
        titleRow->addWidget(b);
        return b;
    };
    m_reveal =
        iconAction(themedIcon("folder-open", QStyle::SP_DirOpenIcon, s), tr("Show in Files"), tr("Show in Files"));
    m_trash = iconAction(themedIcon("user-trash", QStyle::SP_TrashIcon, s), tr("Move to Trash"),
                         tr("Move to Trash (Delete)"));

    m_playerView = new PlayerView(*m_player, this);
    m_playerView->setSpeedPercent(m_controller.settings().playbackSpeedPercent());
    column->addWidget(m_playerView);
    m_mediaNote = new QLabel(this);
    m_mediaNote->setWordWrap(true);
    m_mediaNote->setFrameShape(QFrame::StyledPanel);
    m_mediaNote->setMargin(10);
    column->addWidget(m_mediaNote);
    m_playbackNote = new QLabel(this);
    m_playbackNote->setWordWrap(true);
    m_playbackNote->setEnabled(false);
    column->addWidget(m_playbackNote);

    m_speakers = new SpeakersBar(
        [this](const QString &label, const QString &name) {
            if (const std::optional<Recording> recording = current())
                m_controller.renameSpeaker(label, name, *recording);
        },
        this);
    column->addWidget(m_speakers);

    m_transcriptStack = new QStackedWidget(this);
    m_delegate = new SegmentDelegate(this);
    m_segments = new SegmentList(m_delegate, m_transcriptStack);
    m_segments->setModel(m_transcript.get());
    m_segments->setItemDelegate(m_delegate);
    m_segments->setMouseTracking(true);
    m_segments->setVerticalScrollMode(QAbstractItemView::ScrollPerPixel);
    m_segments->setLayoutMode(QListView::Batched);
    m_segments->setBatchSize(200);
    m_segments->setWordWrap(true);
    m_segments->setAccessibleName(tr("Transcript"));
    m_segments->setContextMenuPolicy(Qt::CustomContextMenu);
    m_transcriptStack->addWidget(m_segments);
    auto *empty = new QWidget(m_transcriptStack);
    auto *emptyColumn = new QVBoxLayout(empty);
    emptyColumn->addStretch(1);
    m_emptyTitle = new QLabel(empty);
    QFont emptyFont = m_emptyTitle->font();
    emptyFont.setPointSizeF(emptyFont.pointSizeF() * 1.2);
    emptyFont.setBold(true);
    m_emptyTitle->setFont(emptyFont);
    m_emptyTitle->setAlignment(Qt::AlignCenter);
    m_emptyDetail = new QLabel(empty);
    m_emptyDetail->setAlignment(Qt::AlignCenter);
    m_emptyDetail->setWordWrap(true);
    m_emptyDetail->setEnabled(false);
    emptyColumn->addWidget(m_emptyTitle);
    emptyColumn->addWidget(m_emptyDetail);
    emptyColumn->addStretch(2);
    m_transcriptStack->addWidget(empty);
    column->addWidget(m_transcriptStack, 1);

    connect(m_title, &QLineEdit::editingFinished, this, &RecordingDetailView::commitTitle);
    connect(m_transcribe, &QToolButton::clicked, this, [this] {
        if (m_id)
            m_controller.transcribe(*m_id);
    });
    connect(m_drive, &QToolButton::clicked, this, [this] {
        if (m_id)
            m_controller.syncToDrive(*m_id);
    });
    connect(m_copy, &QToolButton::clicked, this, [this] {
        if (m_transcript->transcript())
            QApplication::clipboard()->setText(m_transcript->transcript()->plainText(true));
    });
    connect(m_reveal, &QToolButton::clicked, this, [this] {
        if (const std::optional<Recording> recording = current())
            showInFiles(recording->folderPath());
    });
    connect(m_trash, &QToolButton::clicked, this, &RecordingDetailView::askToTrash);
    connect(m_playerView, &PlayerView::speedPercentChanged, &m_controller.settings(),
            &AppSettings::setPlaybackSpeedPercent);

    connect(m_delegate, &SegmentDelegate::seekRequested, this,
            [this](int row) { m_player->seek(m_transcript->index(row).data(TranscriptModel::StartRole).toDouble()); });
    connect(m_delegate, &SegmentDelegate::playRequested, this, &RecordingDetailView::playFrom);
    connect(m_segments, &QListView::activated, this, [this](const QModelIndex &index) { playFrom(index.row()); });
    connect(m_segments, &QWidget::customContextMenuRequested, this, [this](const QPoint &at) {
        const QModelIndex index = m_segments->indexAt(at);
        if (!index.isValid())
            return;
        QMenu menu;
        menu.addAction(SegmentDelegate::playFromHereText(), this, [this, row = index.row()] { playFrom(row); });
        menu.addAction(tr("Copy Text"), this,
                       [text = index.data().toString()] { QApplication::clipboard()->setText(text); });
        menu.exec(m_segments->viewport()->mapToGlobal(at));
    });
    // Nothing is marked as playing before playback has started.
    connect(m_player.get(), &PlayerModel::currentTimeChanged, this,
            [this](double seconds) { m_transcript->setTime(seconds > 0 || m_player->isPlaying() ? seconds : -1); });
    connect(m_transcript.get(), &TranscriptModel::activeRowChanged, this, [this](int row) {
        if (row >= 0 && m_player->isPlaying())
            m_segments->scrollTo(m_transcript->index(row), QAbstractItemView::EnsureVisible);
    });

    RecordingStore &store = m_controller.store();
    connect(&store, &RecordingStore::recordingsChanged, this, &RecordingDetailView::refresh);
    connect(&m_controller, &AppController::activitiesChanged, this, &RecordingDetailView::refresh);
    connect(&m_controller, &AppController::phaseChanged, this, [this](AppController::Phase phase) {
        m_player->setHeld(phase != AppController::Phase::idle);
        refresh();
    });
    connect(&m_controller, &AppController::transcriptRevisionChanged, this, &RecordingDetailView::reloadTranscript);
    connect(&m_controller.settings(), &AppSettings::providerChanged, this, &RecordingDetailView::refresh);
    m_player->setHeld(m_controller.phase() != AppController::Phase::idle);
    showRecording(std::nullopt, {});
}

RecordingDetailView::~RecordingDetailView() = default;

std::optional<Recording> RecordingDetailView::current() const
{
    return m_id ? m_controller.store().recording(*m_id) : std::nullopt;
}

void RecordingDetailView::showRecording(const std::optional<QUuid> &id, const QString &query)
{
    const bool other = id != m_id;
    m_id = id;
    m_query = query;
    m_transcript->setQuery(query);
    if (other) {
        m_player->unload();
        reloadTranscript();
        const int match = m_transcript->firstMatch();
        if (match >= 0) {
            const QModelIndex at = m_transcript->index(match);
            m_segments->setCurrentIndex(at);
            m_segments->scrollTo(at, QAbstractItemView::PositionAtTop);
        } else {
            m_segments->scrollToTop();
        }
    }
    refresh();
}

void RecordingDetailView::reloadTranscript()
{
    const std::optional<Recording> recording = current();
    m_delegate->forget();
    m_transcript->setTranscript(recording ? m_controller.store().transcript(*recording) : std::nullopt);
    m_transcript->setTime(m_player->currentTime() > 0 ? m_player->currentTime() : -1);
    m_speakers->setTranscript(m_transcript->transcript() ? &*m_transcript->transcript() : nullptr);
    refresh();
}

void RecordingDetailView::refresh()
{
    const std::optional<Recording> recording = current();
    setEnabled(recording.has_value());
    if (!recording)
        return;
    const QDir folder(recording->folderPath());
    DetailFacts facts;
    facts.recording = *recording;
    facts.hasTranscript = m_transcript->transcript().has_value();
    const auto activity = m_controller.activities().constFind(recording->id);
    if (activity != m_controller.activities().cend())
        facts.activity = *activity;
    facts.provider = m_controller.settings().provider();
    // Only a regular file inside the folder is played: the name comes from a file anyone could edit.
    const std::optional<QString> media =
        recording->mediaFileName ? RecordingStore::fileInside(*recording, *recording->mediaFileName).value_or(QString())
                                 : std::optional<QString>();
    facts.mediaExists = media && !media->isEmpty();
    for (const char *track : {kMeetingTrackFileName, kMicrophoneTrackFileName}) {
        if (folder.exists(QLatin1String(kSourceFolderName) + u'/' + QLatin1String(track)))
            facts.sourceTracksExist = true;
    }
    facts.captureRunning = m_controller.phase() != AppController::Phase::idle;
    const DetailState state = detailState(facts);

    if (!m_title->hasFocus() && m_title->text() != recording->title) {
        m_title->setText(recording->title);
        m_title->setCursorPosition(0);
    }
    m_summary->setText(recordingSummary(*recording));
    m_busy->setVisible(state.busyText.has_value());
    m_busyText->setText(state.busyText.value_or(QString()));
    m_error->setVisible(state.errorText.has_value());
    m_error->setText(QStringLiteral("⚠ ") + state.errorText.value_or(QString()));
    QPalette errorPalette = m_error->palette();
    errorPalette.setColor(QPalette::WindowText, palette().color(QPalette::Base).lightness() < 128
                                                    ? QColor(0xff, 0x7b, 0x72)
                                                    : QColor(0xc0, 0x1c, 0x28));
    m_error->setPalette(errorPalette);

    m_transcribe->setText(state.transcribeText);
    m_transcribe->setEnabled(state.transcribeEnabled);
    m_export->setVisible(state.exportEnabled);
    m_exportHint->setVisible(!state.exportEnabled);
    m_copy->setEnabled(state.copyEnabled);
    m_drive->setText(state.driveText);
    m_drive->setEnabled(state.driveEnabled);

    m_playerView->setVisible(state.showPlayer);
    m_mediaNote->setVisible(state.mediaNote.has_value());
    m_mediaNote->setText(state.mediaNote.value_or(QString()));
    m_playbackNote->setVisible(state.playbackNote.has_value());
    m_playbackNote->setText(state.playbackNote.value_or(QString()));
    if (state.showPlayer) {
        m_playerView->setShowsVideo(recording->hasVideo);
        m_player->load(QUrl::fromLocalFile(*media));
    } else if (m_player->loadedURL()) {
        m_player->unload();
    }

    m_transcriptStack->setCurrentIndex(state.showTranscript ? 0 : 1);
    m_emptyTitle->setText(state.emptyTitle);
    m_emptyDetail->setText(state.emptyDetail);
}

void RecordingDetailView::commitTitle()
{
    const std::optional<Recording> recording = current();
    if (!recording)
        return;
    if (m_title->text() != recording->title)
        m_controller.rename(*recording, m_title->text());
    // A blank title is refused by the controller: show the one that stands.
    if (const std::optional<Recording> after = current())
        m_title->setText(after->title);
}

void RecordingDetailView::editTitle()
{
    m_title->setFocus(Qt::ShortcutFocusReason);
    m_title->selectAll();
}

void RecordingDetailView::askToTrash()
{
    const std::optional<Recording> recording = current();
    if (!recording)
        return;
    QMessageBox box(QMessageBox::Warning, trashTitle(*recording), trashTitle(*recording), QMessageBox::NoButton, this);
    box.setInformativeText(trashMessage());
    QPushButton *move = box.addButton(tr("Move to Trash"), QMessageBox::DestructiveRole);
    box.addButton(QMessageBox::Cancel);
    box.setDefaultButton(QMessageBox::Cancel);
    box.exec();
    if (box.clickedButton() != move)
        return;
    if (const std::optional<Recording> still = current())
        m_controller.store().deleteRecording(*still);
}

void RecordingDetailView::playFrom(int segment)
{
    const QModelIndex index = m_transcript->index(segment);
    if (!index.isValid())
        return;
    m_player->seek(index.data(TranscriptModel::StartRole).toDouble());
    if (!m_player->isPlaying())
        m_player->toggle();
}

void RecordingDetailView::exportAs(int formatValue)
{
    const auto format = TranscriptFormat(formatValue);
    const std::optional<Recording> recording = current();
    if (!recording || !m_transcript->transcript())
        return;
    const QString ext = extension(format);
    QString name = recording->title;
    name.replace(u'/', u'-');
    const QString proposed =
        QDir(QStandardPaths::writableLocation(QStandardPaths::DocumentsLocation)).filePath(name + u'.' + ext);
    QString path = QFileDialog::getSaveFileName(this, menuText(format).chopped(1), proposed,
                                                fileTypeName(format) + QStringLiteral(" (*.") + ext + u')');
    if (path.isEmpty())
        return;
    if (QFileInfo(path).suffix().isEmpty())
        path += u'.' + ext;
    const auto written = writeTextFile(path, qm::render(format, *m_transcript->transcript(), *recording));
    if (!written)
        QMessageBox::warning(this, tr("Export"), written.error().description());
}

} // namespace qm::ui
