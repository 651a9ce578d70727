#include "ui/settings/settingswindow.h"

#include "app/application.h"
#include "capture/pulse/pulseinputdevices.h"
#include "meeting/permissions.h"
#include "transcription/whisper/modellibrary.h"
#include "ui/settings/aboutpane.h"
#include "ui/settings/drivepane.h"
#include "ui/settings/generalpane.h"
#include "ui/settings/modelmanager.h"
#include "ui/settings/permissionspane.h"
#include "ui/settings/recordingpane.h"
#include "ui/settings/transcriptionpane.h"

#include <QEvent>
#include <QHBoxLayout>
#include <QKeySequence>
#include <QListWidget>
#include <QScrollArea>
#include <QShortcut>
#include <QStackedWidget>
#include <QStyle>

namespace qm::ui {

namespace {

// The first icon the desktop's theme has, else one of the style's own, so the list never shows gaps.
QIcon paneIcon(const QStringList &names, QStyle *style)
{
    for (const QString &name : names) {
        if (QIcon::hasThemeIcon(name))
            return QIcon::fromTheme(name);
    }
    return style->standardIcon(QStyle::SP_FileDialogDetailedView);
}

} // namespace

SettingsWindow::SettingsWindow(qm::Application &app, QWidget *parent) : QWidget(parent), m_app(app)
{
    setWindowFlag(Qt::Window);
    setWindowTitle(tr("Quillmoor Settings"));
    setObjectName(QStringLiteral("settings"));

    m_devices = new PulseInputDevices(this);
    m_models = new ModelManager(app.models(), app.settings(), this);
    // Whether on-device transcription is ready is a permission status; a download or a deletion changes it.
    connect(m_models, &ModelManager::installedChanged, &app.permissions(), &Permissions::refresh);
    connect(&app.permissions(), &Permissions::speechModelRequested, this, [this] {
        showPane(Pane::transcription);
        m_models->download(m_models->inUse());
    });

    m_sidebar = new QListWidget;
    m_sidebar->setObjectName(QStringLiteral("panes"));
    m_sidebar->setIconSize(QSize(24, 24));
    m_sidebar->setSpacing(1);
    m_sidebar->setFrameShape(QFrame::NoFrame);
    m_sidebar->setAutoFillBackground(true);
    m_sidebar->setBackgroundRole(QPalette::Base);
    m_sidebar->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    m_sidebar->setAccessibleName(tr("Settings sections"));
    m_stack = new QStackedWidget;

    // The list's own background sets it apart; a hairline in the mid tone marks the edge on either palette.
    auto *line = new QWidget;
    line->setFixedWidth(1);
    line->setAutoFillBackground(true);
    line->setBackgroundRole(QPalette::Mid);
    auto *layout = new QHBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    layout->addWidget(m_sidebar);
    layout->addWidget(line);
    layout->addWidget(m_stack, 1);

    addPane(Pane::general, tr("General"), {QStringLiteral("preferences-system"), QStringLiteral("configure")},
            new GeneralPane(app.settings(), app.permissions(), app.updater()));
    addPane(Pane::permissions, tr("Permissions"),
            {QStringLiteral("security-high"), QStringLiteral("preferences-system-privacy")},
            new PermissionsPane(app.permissions()));
    m_recording = new RecordingPane(app.settings(), *m_devices, &app.screens());
    addPane(Pane::recording, tr("Recording"),
            {QStringLiteral("audio-input-microphone"), QStringLiteral("media-record")}, m_recording);
    m_transcription = new TranscriptionPane(app.settings(), *m_models);
    addPane(Pane::transcription, tr("Transcription"),
            {QStringLiteral("accessories-text-editor"), QStringLiteral("text-x-generic")}, m_transcription);
    m_drive = new DrivePane(app.settings(), app.controller());
    addPane(Pane::drive, tr("Google Drive"),
            {QStringLiteral("folder-remote"), QStringLiteral("folder-cloud"), QStringLiteral("network-server")},
            m_drive);
    addPane(Pane::about, tr("About"), {QStringLiteral("help-about")},
            new AboutPane({app.settings(), app.updater(), app.store(), app.models(), *m_models, *m_devices}));

    int widest = 0;
    for (int i = 0; i < m_sidebar->count(); ++i)
        widest = qMax(widest, m_sidebar->fontMetrics().horizontalAdvance(m_sidebar->item(i)->text()));
    // Icon, text and the item's own padding, with room on either side like a desktop's sidebar.
    m_sidebar->setFixedWidth(widest + m_sidebar->iconSize().width() + 48);
    connect(m_sidebar, &QListWidget::currentRowChanged, m_stack, &QStackedWidget::setCurrentIndex);
    m_sidebar->setCurrentRow(0);

    // Keyboard: the list takes arrows; these move between panes from anywhere, and close the window.
    auto *next = new QShortcut(QKeySequence(Qt::CTRL | Qt::Key_PageDown), this);
    auto *previous = new QShortcut(QKeySequence(Qt::CTRL | Qt::Key_PageUp), this);
    connect(next, &QShortcut::activated, this,
            [this] { m_sidebar->setCurrentRow((m_sidebar->currentRow() + 1) % m_sidebar->count()); });
    connect(previous, &QShortcut::activated, this, [this] {
        m_sidebar->setCurrentRow((m_sidebar->currentRow() + m_sidebar->count() - 1) % m_sidebar->count());
    });
    connect(new QShortcut(QKeySequence::Close, this), &QShortcut::activated, this, &QWidget::close);
    connect(new QShortcut(QKeySequence(Qt::Key_Escape), this), &QShortcut::activated, this, &QWidget::close);

    resize(860, 620);
}

SettingsWindow::~SettingsWindow() = default;

void SettingsWindow::addPane(Pane pane, const QString &title, const QStringList &icons, QWidget *content)
{
    Q_ASSERT(int(pane) == m_stack->count());
    auto *item = new QListWidgetItem(paneIcon(icons, style()), title, m_sidebar);
    item->setSizeHint(QSize(0, 36));
    // Long panes scroll; the page keeps the window's background rather than a scroll area's.
    auto *scroller = new QScrollArea;
    scroller->setWidget(content);
    scroller->setWidgetResizable(true);
    scroller->setFrameShape(QFrame::NoFrame);
    scroller->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    scroller->viewport()->setAutoFillBackground(false);
    content->setAutoFillBackground(false);
    m_stack->addWidget(scroller);
}

void SettingsWindow::showPane(Pane pane)
{
    m_sidebar->setCurrentRow(int(pane));
    if (isMinimized())
        setWindowState(windowState() & ~Qt::WindowMinimized);
    show();
    raise();
    activateWindow();
}

void SettingsWindow::changeEvent(QEvent *event)
{
    QWidget::changeEvent(event);
    if (event->type() == QEvent::ActivationChange && isActiveWindow())
        refresh();
}

void SettingsWindow::refresh()
{
    // Statuses, mounts, monitors and keys can change while the window is in the background; none of them
    // announces it, so they are read again when the user comes back.
    m_app.permissions().refresh();
    m_recording->refreshDisplays();
    m_transcription->refreshKey();
    m_drive->refreshFolder();
}

} // namespace qm::ui
