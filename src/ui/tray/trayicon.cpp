#include "ui/tray/trayicon.h"

#include "app/appsettings.h"
#include "ui/tray/symbols.h"
#include "ui/tray/trayviewmodel.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusServiceWatcher>
#include <QFontDatabase>
#include <QMenu>
#include <QPainter>
#include <QSystemTrayIcon>

namespace qm::ui {

namespace {

const QString kWatcher = QStringLiteral("org.kde.StatusNotifierWatcher");
constexpr auto kRetryInterval = std::chrono::seconds(5);
// Some hosts report one click twice.
constexpr auto kActivationDebounce = std::chrono::milliseconds(150);

// The record symbol with the elapsed time beneath it, for trays that show icons big enough to read it.
QIcon withTimer(const QIcon &symbol, const QString &text)
{
    QIcon icon;
    for (int size : {22, 32, 48, 64}) {
        QPixmap pixmap(size, size);
        pixmap.fill(Qt::transparent);
        QPainter painter(&pixmap);
        painter.setRenderHint(QPainter::Antialiasing);
        const int symbolSize = size * 9 / 16;
        symbol.paint(&painter, QRect((size - symbolSize) / 2, 0, symbolSize, symbolSize));
        QFont font = QFontDatabase::systemFont(QFontDatabase::SmallestReadableFont);
        font.setPixelSize(std::max(7, size * 6 / 16));
        font.setWeight(QFont::Bold);
        font.setStretch(QFont::Condensed);
        painter.setFont(font);
        painter.setPen(QColor(0xbe, 0xbe, 0xbe));
        painter.drawText(QRect(0, symbolSize, size, size - symbolSize), Qt::AlignCenter, text);
        painter.end();
        icon.addPixmap(pixmap);
    }
    return icon;
}

} // namespace

TrayIcon::TrayIcon(TrayViewModel &model, TrayActions actions, QObject *parent)
    : QObject(parent), m_model(model), m_actions(std::move(actions)), m_menu(std::make_unique<QMenu>())
{
    AppController &controller = model.controller();
    m_status = m_menu->addAction(QString());
    m_status->setEnabled(false);
    m_menu->addSeparator();
    for (RecordingSource source : {RecordingSource::zoom, RecordingSource::systemAudio, RecordingSource::inPerson}) {
        QAction *action = m_menu->addAction(symbols::source(source), TrayViewModel::title(source));
        connect(action, &QAction::triggered, &controller, [&controller, source] { controller.startRecording(source); });
        m_recordActions.append(action);
    }
    m_includeMicrophone = m_menu->addAction(tr("Record my microphone in Zoom / system audio"));
    m_includeMicrophone->setCheckable(true);
    connect(m_includeMicrophone, &QAction::toggled, &controller.settings(), &AppSettings::setIncludeMicrophone);
    m_pause = m_menu->addAction(QString());
    connect(m_pause, &QAction::triggered, &controller, &AppController::togglePause);
    m_mute = m_menu->addAction(QString());
    connect(m_mute, &QAction::triggered, &controller, &AppController::toggleMicrophoneMute);
    m_stop = m_menu->addAction(symbols::literal(tr("Stop & Save")));
    connect(m_stop, &QAction::triggered, &controller, &AppController::stopRecording);
    m_discard = m_menu->addAction(symbols::trash(), tr("Stop without saving…"));
    connect(m_discard, &QAction::triggered, this, [&controller] {
        if (confirmDiscard(nullptr))
            controller.discardRecording();
    });
    m_menu->addSeparator();
    // The recent recordings go in just above this one.
    m_recentSeparator = m_menu->addSeparator();
    connect(m_menu->addAction(tr("Library")), &QAction::triggered, this,
            [this] { m_actions.openLibrary(std::nullopt); });
    connect(m_menu->addAction(tr("Folder")), &QAction::triggered, this, [this] { m_actions.openFolder(); });
    connect(m_menu->addAction(symbols::settings(), tr("Settings")), &QAction::triggered, this,
            [this] { m_actions.openSettings(false); });
    m_menu->addSeparator();
    connect(m_menu->addAction(tr("Quit")), &QAction::triggered, this, [this] { m_actions.quit(); });

    m_debounce.setSingleShot(true);
    m_debounce.setInterval(kActivationDebounce);

    connect(&model, &TrayViewModel::changed, this, &TrayIcon::refresh);
    refresh();

    QDBusConnection bus = QDBusConnection::sessionBus();
    if (bus.isConnected()) {
        m_hostWatcher = std::make_unique<QDBusServiceWatcher>(kWatcher, bus, QDBusServiceWatcher::WatchForRegistration);
        connect(m_hostWatcher.get(), &QDBusServiceWatcher::serviceRegistered, this, &TrayIcon::tryCreate);
    }
    m_retry.setInterval(kRetryInterval);
    connect(&m_retry, &QTimer::timeout, this, [this] {
        if (--m_retriesLeft <= 0)
            m_retry.stop();
        tryCreate();
    });
    tryCreate();
    if (!m_icon)
        m_retry.start();
}

TrayIcon::~TrayIcon() = default;

bool TrayIcon::isVisible() const
{
    return m_icon && m_icon->isVisible();
}

QIcon TrayIcon::currentIcon() const
{
    const QString timer = m_model.timerText();
    const QIcon symbol = symbols::tray(m_model.iconState());
    return timer.isEmpty() ? symbol : withTimer(symbol, timer);
}

void TrayIcon::tryCreate()
{
    if (m_icon || !QSystemTrayIcon::isSystemTrayAvailable())
        return;
    m_retry.stop();
    m_icon = std::make_unique<QSystemTrayIcon>();
    m_icon->setContextMenu(m_menu.get());
    connect(m_icon.get(), &QSystemTrayIcon::activated, this, [this](QSystemTrayIcon::ActivationReason reason) {
        if (reason != QSystemTrayIcon::Trigger || m_debounce.isActive())
            return;
        m_debounce.start();
        Q_EMIT activated(m_icon->geometry());
    });
    m_iconKey.clear();
    refresh();
    m_icon->show();
    Q_EMIT visibilityChanged(true);
}

void TrayIcon::refresh()
{
    AppController &controller = m_model.controller();
    const bool idle = m_model.isIdle();
    const bool recording = controller.phase() == AppController::Phase::recording;
    m_status->setText(m_model.statusLine());
    for (QAction *action : std::as_const(m_recordActions)) {
        action->setVisible(idle);
        action->setEnabled(!m_model.isQuitting());
    }
    {
        const QSignalBlocker blocker(m_includeMicrophone);
        m_includeMicrophone->setChecked(controller.settings().includeMicrophone());
    }
    m_includeMicrophone->setVisible(idle);
    m_pause->setText(m_model.pauseButtonText());
    m_mute->setText(m_model.micButtonText());
    m_mute->setToolTip(m_model.micButtonHelp());
    for (QAction *action : {m_pause, m_mute, m_stop, m_discard}) {
        action->setVisible(!idle);
        action->setEnabled(recording);
    }
    m_mute->setVisible(!idle && m_model.canToggleMicrophone());
    rebuildRecent();

    if (!m_icon)
        return;
    const QString key = QString::number(int(m_model.iconState())) + m_model.timerText();
    if (key != m_iconKey) {
        m_iconKey = key;
        m_icon->setIcon(currentIcon());
    }
    m_icon->setToolTip(m_model.tooltip());
}

void TrayIcon::rebuildRecent()
{
    const QList<Recording> recent = m_model.recent();
    QString key;
    for (const Recording &recording : recent)
        key += recording.id.toString() + recording.title;
    if (key == m_recentKey)
        return;
    m_recentKey = key;
    qDeleteAll(m_recent);
    m_recent.clear();
    for (const Recording &recording : recent) {
        auto *action = new QAction(symbols::source(recording.source), symbols::literal(recording.title), m_menu.get());
        const QUuid id = recording.id;
        connect(action, &QAction::triggered, this, [this, id] { m_actions.openLibrary(id); });
        m_menu->insertAction(m_recentSeparator, action);
        m_recent.append(action);
    }
}

} // namespace qm::ui
