#include "ui/tray/menubarview.h"

#include "app/appsettings.h"
#include "library/formatters.h"
#include "meeting/permissions.h"
#include "ui/tray/levelmeter.h"
#include "ui/tray/panelrows.h"
#include "ui/tray/symbols.h"
#include "ui/tray/trayviewmodel.h"

#include <QCheckBox>
#include <QGuiApplication>
#include <QHBoxLayout>
#include <QKeyEvent>
#include <QLabel>
#include <QPushButton>
#include <QScreen>
#include <QToolButton>
#include <QVBoxLayout>

namespace qm::ui {

namespace {

constexpr int kPanelWidth = 340;

QLabel *sectionHeading(const QString &text, QWidget *parent)
{
    auto *label = new QLabel(text, parent);
    QFont font = label->font();
    font.setPointSizeF(font.pointSizeF() * 0.85);
    font.setWeight(QFont::DemiBold);
    font.setLetterSpacing(QFont::PercentageSpacing, 106);
    label->setFont(font);
    QPalette palette = label->palette();
    QColor quiet = palette.color(QPalette::WindowText);
    quiet.setAlphaF(0.6F);
    palette.setColor(QPalette::WindowText, quiet);
    label->setPalette(palette);
    return label;
}

QFrame *separator(QWidget *parent)
{
    auto *line = new QFrame(parent);
    line->setFrameShape(QFrame::HLine);
    line->setFrameShadow(QFrame::Sunken);
    return line;
}

} // namespace

MenuBarView::MenuBarView(TrayViewModel &model, TrayActions actions, QWidget *parent)
    : QFrame(parent), m_model(model), m_actions(std::move(actions))
{
    setWindowTitle(QStringLiteral("Quillmoor"));
    setWindowIcon(symbols::application());
    setFrameShape(QFrame::StyledPanel);
    setFixedWidth(kPanelWidth);
    AppController &controller = model.controller();

    auto *column = new QVBoxLayout(this);
    column->setContentsMargins(14, 12, 14, 10);
    column->setSpacing(10);
    column->setSizeConstraint(QLayout::SetFixedSize);

    // Header: name, status line and the settings gear.
    auto *header = new QHBoxLayout;
    auto *logo = new QLabel(this);
    logo->setPixmap(symbols::application().pixmap(32, 32));
    header->addWidget(logo);
    auto *titles = new QVBoxLayout;
    titles->setSpacing(0);
    auto *name = new QLabel(QStringLiteral("Quillmoor"), this);
    QFont nameFont = name->font();
    nameFont.setPointSizeF(nameFont.pointSizeF() * 1.15);
    nameFont.setWeight(QFont::Bold);
    name->setFont(nameFont);
    titles->addWidget(name);
    m_status = new QLabel(this);
    m_status->setAccessibleName(tr("Status"));
    titles->addWidget(m_status);
    header->addLayout(titles, 1);
    auto *gear = new QToolButton(this);
    gear->setIcon(symbols::tinted(symbols::settings(), palette().color(QPalette::ButtonText)));
    gear->setAutoRaise(true);
    gear->setToolTip(tr("Settings"));
    gear->setAccessibleName(tr("Settings"));
    gear->setShortcut(QKeySequence(QKeySequence::Preferences));
    connect(gear, &QToolButton::clicked, this, [this] { m_actions.openSettings(false); });
    header->addWidget(gear, 0, Qt::AlignTop);
    column->addLayout(header);

    m_notice = new QLabel(this);
    m_notice->setWordWrap(true);
    column->addWidget(m_notice);

    // Banners.
    m_permissionsBanner = new Banner(Banner::Tone::warning, this);
    m_permissionsBanner->setText(tr("Quillmoor needs permissions to record"));
    auto *review = new QPushButton(tr("Open Settings"), m_permissionsBanner);
    connect(review, &QPushButton::clicked, this, [this] { m_actions.openSettings(true); });
    m_permissionsBanner->buttons()->addWidget(review);
    column->addWidget(m_permissionsBanner);

    m_zoomBanner = new Banner(Banner::Tone::information, this);
    m_zoomBanner->setText(tr("A Zoom meeting is in progress"));
    auto *recordZoom = new QPushButton(tr("Record"), m_zoomBanner);
    connect(recordZoom, &QPushButton::clicked, &controller,
            [&controller] { controller.startRecording(RecordingSource::zoom); });
    m_zoomBanner->buttons()->addWidget(recordZoom);
    column->addWidget(m_zoomBanner);

    m_errorBanner = new Banner(Banner::Tone::error, this);
    m_openScreenSettings = new QPushButton(tr("Open Settings"), m_errorBanner);
    connect(m_openScreenSettings, &QPushButton::clicked, &controller,
            [&controller] { controller.permissions().requestScreenRecording(); });
    m_relaunch = new QPushButton(tr("Relaunch Quillmoor"), m_errorBanner);
    connect(m_relaunch, &QPushButton::clicked, this, [this] { m_actions.relaunch(); });
    auto *dismiss = new QToolButton(m_errorBanner);
    dismiss->setIcon(symbols::tinted(symbols::close(), palette().color(QPalette::ButtonText)));
    dismiss->setAutoRaise(true);
    dismiss->setToolTip(tr("Dismiss"));
    dismiss->setAccessibleName(tr("Dismiss"));
    connect(dismiss, &QToolButton::clicked, &controller, [&controller] { controller.dismissError(); });
    m_errorBanner->buttons()->addWidget(m_openScreenSettings);
    m_errorBanner->buttons()->addWidget(m_relaunch);
    m_errorBanner->buttons()->addWidget(dismiss);
    column->addWidget(m_errorBanner);

    // The three ways to record, and the microphone toggle.
    m_options = new QWidget(this);
    auto *options = new QVBoxLayout(m_options);
    options->setContentsMargins(0, 0, 0, 0);
    options->setSpacing(6);
    for (RecordingSource source : {RecordingSource::zoom, RecordingSource::systemAudio, RecordingSource::inPerson}) {
        auto *button = new RecordOptionButton(symbols::source(source), TrayViewModel::title(source),
                                              TrayViewModel::subtitle(source), m_options);
        connect(button, &QPushButton::clicked, &controller,
                [&controller, source] { controller.startRecording(source); });
        options->addWidget(button);
    }
    m_includeMicrophone = new QCheckBox(tr("Record my microphone in Zoom / system audio"), m_options);
    connect(m_includeMicrophone, &QCheckBox::toggled, &controller.settings(), &AppSettings::setIncludeMicrophone);
    options->addWidget(m_includeMicrophone);
    column->addWidget(m_options);

    // The recording card.
    m_card = new QFrame(this);
    m_card->setFrameShape(QFrame::StyledPanel);
    auto *card = new QVBoxLayout(m_card);
    card->setContentsMargins(12, 10, 12, 10);
    card->setSpacing(8);
    auto *cardHeader = new QHBoxLayout;
    m_cardTitle = new QLabel(m_card);
    QFont cardFont = m_cardTitle->font();
    cardFont.setWeight(QFont::DemiBold);
    m_cardTitle->setFont(cardFont);
    cardHeader->addWidget(m_cardTitle, 1);
    m_cardElapsed = new QLabel(m_card);
    m_cardElapsed->setAccessibleName(tr("Elapsed time"));
    QFont digits = m_cardElapsed->font();
    digits.setWeight(QFont::DemiBold);
    m_cardElapsed->setFont(digits);
    cardHeader->addWidget(m_cardElapsed);
    card->addLayout(cardHeader);
    m_meetingMeter = new MeetingLevelMeter(m_card);
    m_micMeter = new MicLevelMeter(m_card);
    card->addWidget(m_meetingMeter);
    card->addWidget(m_micMeter);
    m_video = new QLabel(m_card);
    m_video->setWordWrap(true);
    card->addWidget(m_video);
    m_muteNote = new QLabel(m_card);
    m_muteNote->setWordWrap(true);
    card->addWidget(m_muteNote);
    auto *buttons = new QHBoxLayout;
    buttons->setSpacing(6);
    m_mute = new QPushButton(m_card);
    connect(m_mute, &QPushButton::clicked, &controller, &AppController::toggleMicrophoneMute);
    m_pause = new QPushButton(m_card);
    connect(m_pause, &QPushButton::clicked, &controller, &AppController::togglePause);
    m_stop = new QPushButton(symbols::literal(tr("Stop & Save")), m_card);
    m_stop->setAccessibleName(tr("Stop & Save"));
    m_stop->setDefault(true);
    connect(m_stop, &QPushButton::clicked, &controller, &AppController::stopRecording);
    m_discard = new QToolButton(m_card);
    m_discard->setIcon(symbols::tinted(symbols::trash(), palette().color(QPalette::ButtonText)));
    m_discard->setToolTip(tr("Stop without saving"));
    m_discard->setAccessibleName(tr("Stop without saving"));
    connect(m_discard, &QToolButton::clicked, this, [this, &controller] {
        if (confirmDiscard(this))
            controller.discardRecording();
    });
    buttons->addWidget(m_mute);
    buttons->addWidget(m_pause);
    buttons->addWidget(m_stop, 1);
    buttons->addWidget(m_discard);
    card->addLayout(buttons);
    column->addWidget(m_card);

    // Recent recordings.
    column->addWidget(separator(this));
    m_recentHeading = sectionHeading(tr("RECENT"), this);
    column->addWidget(m_recentHeading);
    m_recentRows = new QVBoxLayout;
    m_recentRows->setSpacing(0);
    column->addLayout(m_recentRows);
    m_noRecent = new QLabel(tr("No recordings yet"), this);
    m_noRecent->setEnabled(false);
    column->addWidget(m_noRecent);

    // Footer.
    column->addWidget(separator(this));
    auto *footer = new QHBoxLayout;
    auto *library = new QPushButton(tr("Library"), this);
    connect(library, &QPushButton::clicked, this, [this] { m_actions.openLibrary(std::nullopt); });
    auto *folder = new QPushButton(tr("Folder"), this);
    folder->setToolTip(tr("Show the library folder in your file manager"));
    connect(folder, &QPushButton::clicked, this, [this] { m_actions.openFolder(); });
    auto *quit = new QPushButton(tr("Quit"), this);
    quit->setShortcut(QKeySequence(QKeySequence::Quit));
    connect(quit, &QPushButton::clicked, this, [this] { m_actions.quit(); });
    for (QPushButton *button : {library, folder, quit})
        button->setAutoDefault(false);
    footer->addWidget(library);
    footer->addWidget(folder);
    footer->addStretch(1);
    footer->addWidget(quit);
    column->addLayout(footer);

    connect(&model, &TrayViewModel::changed, this, &MenuBarView::refresh);
    connect(&controller, &AppController::levelsChanged, this, &MenuBarView::followLevels);
    refresh();
}

void MenuBarView::refresh()
{
    AppController &controller = m_model.controller();
    m_status->setText(m_model.statusLine());
    QStringList notices;
    if (!m_model.trayNotice().isEmpty())
        notices << m_model.trayNotice();
    if (!m_model.updateNotice().isEmpty())
        notices << m_model.updateNotice();
    m_notice->setText(notices.join(QStringLiteral("\n")));
    m_notice->setVisible(!notices.isEmpty());

    m_permissionsBanner->setVisible(m_model.showsPermissionsBanner());
    m_zoomBanner->setVisible(m_model.showsZoomBanner());
    const QString error = m_model.errorBanner();
    m_errorBanner->setText(error);
    m_errorBanner->setVisible(!error.isEmpty());
    m_openScreenSettings->setVisible(m_model.errorOffersSettings());
    m_relaunch->setVisible(m_model.errorOffersSettings());

    m_options->setVisible(!m_model.showsRecordingCard());
    m_options->setEnabled(!m_model.isQuitting());
    {
        const QSignalBlocker blocker(m_includeMicrophone);
        m_includeMicrophone->setChecked(controller.settings().includeMicrophone());
    }

    const bool card = m_model.showsRecordingCard();
    m_card->setVisible(card);
    if (card) {
        const bool recording = controller.phase() == AppController::Phase::recording;
        m_cardTitle->setText(m_model.recordingCardTitle());
        m_cardElapsed->setText(recording || controller.phase() == AppController::Phase::stopping
                                   ? Formatters::clock(controller.elapsed())
                                   : QString());
        m_micMeter->setVisible(m_model.canToggleMicrophone());
        m_micMeter->setMuted(controller.isMicMuted() || controller.isMutedInZoom());
        m_video->setText(m_model.videoLine());
        m_video->setVisible(!m_model.videoLine().isEmpty());
        m_muteNote->setText(m_model.muteNote());
        m_muteNote->setVisible(!m_model.muteNote().isEmpty());
        m_mute->setText(m_model.micButtonText());
        m_mute->setToolTip(m_model.micButtonHelp());
        m_mute->setAccessibleDescription(m_model.micButtonHelp());
        m_mute->setVisible(m_model.canToggleMicrophone());
        m_pause->setText(m_model.pauseButtonText());
        for (QWidget *button : std::initializer_list<QWidget *>{m_mute, m_pause, m_stop, m_discard})
            button->setEnabled(recording);
    }
    refreshRecent();
}

void MenuBarView::refreshRecent()
{
    const QList<Recording> recent = m_model.recent();
    // Rows are rebuilt only when what they show changed, so the ticking clock doesn't churn widgets.
    QString key;
    for (const Recording &recording : recent)
        key += recording.id.toString() + recording.title + m_model.recentDetail(recording) +
               QString::number(int(recording.state)) + QString::number(int(recording.transcriptState));
    if (key == m_recentKey)
        return;
    m_recentKey = key;
    while (QLayoutItem *item = m_recentRows->takeAt(0)) {
        delete item->widget();
        delete item;
    }
    for (const Recording &recording : recent) {
        auto *row = new RecentRow(recording, m_model.recentDetail(recording), this);
        const QUuid id = recording.id;
        connect(row, &QPushButton::clicked, this, [this, id] { m_actions.openLibrary(id); });
        m_recentRows->addWidget(row);
    }
    m_noRecent->setVisible(recent.isEmpty());
}

void MenuBarView::followLevels()
{
    AppController &controller = m_model.controller();
    m_meetingMeter->setLevel(controller.meetingLevel());
    m_micMeter->setLevel(controller.micLevel());
}

void MenuBarView::setPopup(bool popup)
{
    m_popup = popup;
    setWindowFlags(popup ? Qt::Popup | Qt::FramelessWindowHint : Qt::Window);
    setFrameShape(popup ? QFrame::StyledPanel : QFrame::NoFrame);
}

void MenuBarView::present(const QRect &anchor)
{
    if (m_popup && anchor.isValid()) {
        adjustSize();
        const QScreen *screen = QGuiApplication::screenAt(anchor.center());
        const QRect area = screen ? screen->availableGeometry() : QRect();
        // Below the icon when it sits at the top of the screen, above it otherwise; kept on screen.
        QPoint at(anchor.center().x() - width() / 2, anchor.bottom() + 4);
        if (area.isValid()) {
            if (anchor.center().y() > area.center().y())
                at.setY(anchor.top() - height() - 4);
            at.setX(std::clamp(at.x(), area.left() + 4, std::max(area.left() + 4, area.right() - width() - 4)));
            at.setY(std::clamp(at.y(), area.top() + 4, std::max(area.top() + 4, area.bottom() - height() - 4)));
        }
        move(at);
    }
    show();
    raise();
    activateWindow();
    if (QWidget *first = nextInFocusChain(); first && first != this)
        first->setFocus(Qt::PopupFocusReason);
}

void MenuBarView::keyPressEvent(QKeyEvent *event)
{
    if (event->key() == Qt::Key_Escape && m_popup) {
        hide();
        return;
    }
    QFrame::keyPressEvent(event);
}

} // namespace qm::ui
