#include "ui/settings/aboutpane.h"

#include "app/appinfo.h"
#include "app/appsettings.h"
#include "app/updater.h"
#include "capture/inputdevices.h"
#include "library/recordingstore.h"
#include "transcription/whisper/modellibrary.h"
#include "ui/settings/diagnostics.h"
#include "ui/settings/modelmanager.h"
#include "ui/settings/paneform.h"

#include <QApplication>
#include <QClipboard>
#include <QDir>
#include <QFormLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QSettings>
#include <QStandardPaths>
#include <QSysInfo>
#include <QSystemTrayIcon>
#include <QVBoxLayout>

namespace qm::ui {

namespace {

QString settingsFile()
{
    return QDir(AppSettings::defaultConfigDir())
        .filePath(QLatin1String(AppSettings::kDomain) + QStringLiteral(".conf"));
}

QWidget *identity()
{
    auto *box = new QWidget;
    auto *line = new QHBoxLayout(box);
    line->setContentsMargins(0, 0, 0, 0);
    line->setSpacing(16);
    const QIcon icon = QIcon::fromTheme(QStringLiteral("quillmoor"), QApplication::windowIcon());
    if (!icon.isNull()) {
        auto *picture = new QLabel;
        picture->setPixmap(icon.pixmap(64, 64));
        line->addWidget(picture, 0, Qt::AlignTop);
    }
    auto *text = new QVBoxLayout;
    text->setSpacing(4);
    auto *name = new QLabel(QStringLiteral("Quillmoor"));
    QFont big = name->font();
    big.setPointSizeF(big.pointSizeF() * 1.6);
    big.setBold(true);
    name->setFont(big);
    text->addWidget(name);
    text->addWidget(valueLabel(AboutPane::tr("Version %1 (build %2)").arg(AppInfo::version(), AppInfo::build())));
    auto *site = new QLabel(QStringLiteral("<a href=\"%1\">%1</a>").arg(AppInfo::website().toHtmlEscaped()));
    site->setOpenExternalLinks(true);
    site->setTextInteractionFlags(Qt::TextBrowserInteraction);
    text->addWidget(site);
    line->addLayout(text, 1);
    return box;
}

} // namespace

AboutPane::AboutPane(Parts parts, QWidget *parent) : QWidget(parent), m_parts(parts)
{
    PaneForm form(this, tr("About"));
    form.wide(identity());
    form.gap();

    m_check = new QPushButton(tr("Check for Updates…"));
    m_check->setObjectName(QStringLiteral("checkForUpdates"));
    m_updateAnswer = new QLabel;
    m_updateAnswer->setWordWrap(true);
    m_updateAnswer->setOpenExternalLinks(true);
    connect(m_check, &QPushButton::clicked, &parts.updater, &Updater::checkForUpdates);
    connect(&parts.updater, &Updater::isCheckingChanged, this, [this] {
        m_check->setEnabled(!m_parts.updater.isChecking());
        if (m_parts.updater.isChecking())
            m_updateAnswer->setText(tr("Checking…"));
    });
    connect(&parts.updater, &Updater::checkFinished, this, [this](const QString &message) {
        const QUrl page = m_parts.updater.releasePage();
        if (!m_parts.updater.availableVersion().isEmpty() && page.isValid())
            m_updateAnswer->setText(QStringLiteral("%1 <a href=\"%2\">%3</a>")
                                        .arg(message.toHtmlEscaped(), page.toString().toHtmlEscaped(), tr("Get it")));
        else
            m_updateAnswer->setText(message.toHtmlEscaped());
    });
    auto *updates = new QWidget;
    auto *updatesLine = new QHBoxLayout(updates);
    updatesLine->setContentsMargins(0, 0, 0, 0);
    updatesLine->addWidget(m_check, 0, Qt::AlignTop);
    updatesLine->addWidget(m_updateAnswer, 1);
    form.row(tr("Updates:"), updates);
    form.gap();

    QLineEdit *library = pathField(parts.store.rootPath());
    connect(&parts.settings, &AppSettings::saveFolderPathChanged, library, [library, this] {
        library->setText(QDir::toNativeSeparators(m_parts.store.rootPath()));
        library->setCursorPosition(0);
    });
    form.row(tr("Library:"), library);
    form.row(tr("Settings:"), pathField(settingsFile()));
    form.row(tr("API keys:"), pathField(tr("The desktop keyring, service %1").arg(QLatin1String(kKeyringService))));
    form.row(tr("Logs:"), pathField(tr("The system journal: journalctl -t quillmoor")));
    form.row(tr("Speech models:"), pathField(parts.library.directory()));
    form.gap();

    auto *copy = new QPushButton(tr("Copy Diagnostics"));
    copy->setObjectName(QStringLiteral("copyDiagnostics"));
    m_copied = new QLabel;
    connect(copy, &QPushButton::clicked, this, [this] {
        QApplication::clipboard()->setText(diagnostics());
        m_copied->setText(tr("Copied. It holds no keys and no file names from your library."));
    });
    form.row(sideBySide({copy, m_copied}));
    form.finish();
}

QString AboutPane::diagnostics() const
{
    Diagnostics facts;
    facts.version = AppInfo::version();
    facts.build = AppInfo::build();
    facts.qtVersion = QString::fromLatin1(qVersion());
    facts.system = QSysInfo::prettyProductName();
    facts.sessionType = qEnvironmentVariable("XDG_SESSION_TYPE");
    facts.desktop = qEnvironmentVariable("XDG_CURRENT_DESKTOP");
    facts.inputDevices = int(m_parts.devices.devices().size());
    facts.trayAvailable = QSystemTrayIcon::isSystemTrayAvailable();
    facts.keyringAvailable = m_parts.settings.keyringAvailable();
    facts.provider = rawValue(m_parts.settings.provider());
    facts.model = m_parts.models.inUse();
    facts.modelInstalled = m_parts.library.isInstalled(facts.model);
    facts.recordings = m_parts.store.count();
    return diagnosticsText(facts);
}

} // namespace qm::ui
