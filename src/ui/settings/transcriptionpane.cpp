#include "ui/settings/transcriptionpane.h"

#include "app/appsettings.h"
#include "transcription/keycheck.h"
#include "ui/settings/bindings.h"
#include "ui/settings/modelmanager.h"
#include "ui/settings/paneform.h"
#include "ui/settings/providerfields.h"

#include <QBoxLayout>
#include <QCompleter>
#include <QFileDialog>
#include <QHeaderView>
#include <QLabel>
#include <QPointer>
#include <QProgressBar>
#include <QPushButton>
#include <QStackedWidget>
#include <QStringListModel>
#include <QTreeWidget>

namespace qm::ui {

namespace {

enum Column { modelColumn, sizeColumn, statusColumn };

} // namespace

TranscriptionPane::TranscriptionPane(AppSettings &settings, ModelManager &models, QWidget *parent)
    : QWidget(parent), m_settings(settings), m_models(models)
{
    PaneForm form(this, tr("Transcription"));

    auto *provider = new QComboBox;
    provider->setObjectName(QStringLiteral("provider"));
    bind::choice(provider, &settings, &AppSettings::provider, &AppSettings::setProvider, &AppSettings::providerChanged);
    form.row(tr("&Provider:"), provider);

    auto *automatic = bind::checkBox(tr("Transcribe recordings when they finish"), "autoTranscribe", &settings,
                                     &AppSettings::autoTranscribe, &AppSettings::setAutoTranscribe,
                                     &AppSettings::autoTranscribeChanged);
    form.row(automatic);

    auto *language = new QComboBox;
    language->setObjectName(QStringLiteral("language"));
    bind::choice(language, &settings, &AppSettings::language, &AppSettings::setLanguage, &AppSettings::languageChanged);
    form.row(tr("&Language:"), language);

    auto *speakers =
        bind::checkBox(tr("Tell the speakers apart"), "detectSpeakers", &settings, &AppSettings::detectSpeakers,
                       &AppSettings::setDetectSpeakers, &AppSettings::detectSpeakersChanged);
    form.row(speakers);

    auto *myVoice =
        bind::checkBox(tr("Label what my microphone hears with my name"), "labelMyVoice", &settings,
                       &AppSettings::labelMyVoice, &AppSettings::setLabelMyVoice, &AppSettings::labelMyVoiceChanged);
    form.row(myVoice);

    auto *name = new QLineEdit;
    name->setObjectName(QStringLiteral("myName"));
    bind::text(name, &settings, &AppSettings::myName, &AppSettings::setMyName, &AppSettings::myNameChanged);
    form.row(tr("My &name:"), name);
    form.gap();

    // The provider's own options: a page for the cloud services, one for the on-device models.
    m_pages = new QStackedWidget;
    m_cloudPage = buildCloudPage(form);
    m_modelPage = buildModelPage();
    m_pages->addWidget(m_cloudPage);
    m_pages->addWidget(m_modelPage);
    form.wide(m_pages);
    form.finish();

    showProvider();
    connect(&settings, &AppSettings::providerChanged, this, &TranscriptionPane::showProvider);
    connect(&settings, &AppSettings::keyringAvailableChanged, this, &TranscriptionPane::refreshKey);
    connect(&settings, &AppSettings::modelsChanged, this, [this] {
        if (!m_model->isModified())
            m_model->setText(m_settings.models().value(rawValue(m_provider)));
    });
}

QWidget *TranscriptionPane::buildCloudPage(const PaneForm &main)
{
    auto *page = new QWidget;
    PaneForm form(page);
    m_key = new QLineEdit;
    m_key->setObjectName(QStringLiteral("apiKey"));
    m_key->setEchoMode(QLineEdit::Password);
    m_key->setClearButtonEnabled(true);
    connect(m_key, &QLineEdit::editingFinished, this, &TranscriptionPane::commitKey);
    form.row(tr("API &key:"), m_key);
    m_keyStatus = form.note(QString());
    m_keyStatus->setObjectName(QStringLiteral("apiKeyStatus"));

    m_check = new QPushButton(tr("Check Key"));
    m_check->setObjectName(QStringLiteral("checkKey"));
    m_checkResult = new QLabel;
    m_checkResult->setObjectName(QStringLiteral("checkKeyResult"));
    m_checkResult->setWordWrap(true);
    m_checkResult->setTextInteractionFlags(Qt::TextSelectableByMouse);
    connect(m_check, &QPushButton::clicked, this, [this] { checkKey(); });
    auto *checkRow = new QWidget;
    auto *checkLine = new QHBoxLayout(checkRow);
    checkLine->setContentsMargins(0, 0, 0, 0);
    checkLine->addWidget(m_check, 0, Qt::AlignTop);
    checkLine->addWidget(m_checkResult, 1);
    form.row(checkRow);

    m_model = new QLineEdit;
    m_model->setObjectName(QStringLiteral("model"));
    m_model->setClearButtonEnabled(true);
    m_model->setCompleter(new QCompleter(new QStringListModel(m_model), m_model));
    m_model->completer()->setCompletionMode(QCompleter::UnfilteredPopupCompletion);
    connect(m_model, &QLineEdit::editingFinished, this, [this] {
        if (m_model->isModified())
            m_settings.setModel(m_model->text().trimmed(), m_provider);
        m_model->setModified(false);
    });
    form.row(tr("&Model:"), m_model);
    PaneForm::alignLabels({&main, &form});
    return page;
}

QWidget *TranscriptionPane::buildModelPage()
{
    auto *page = new QWidget;
    auto *rows = new QVBoxLayout(page);
    rows->setContentsMargins(0, 0, 0, 0);
    m_list = new QTreeWidget;
    m_list->setObjectName(QStringLiteral("models"));
    m_list->setHeaderLabels({tr("Model"), tr("Size"), tr("Status")});
    m_list->setRootIsDecorated(false);
    m_list->setUniformRowHeights(true);
    m_list->setAllColumnsShowFocus(true);
    m_list->header()->setStretchLastSection(true);
    m_list->header()->setSectionResizeMode(modelColumn, QHeaderView::ResizeToContents);
    m_list->header()->setSectionResizeMode(sizeColumn, QHeaderView::ResizeToContents);
    connect(m_list, &QTreeWidget::currentItemChanged, this, &TranscriptionPane::showModelButtons);
    connect(m_list, &QTreeWidget::itemActivated, this, [this] { m_models.use(selectedModel()); });

    auto *label = new QLabel(tr("On-device &model:"));
    label->setBuddy(m_list);
    auto *listBox = new QWidget;
    auto *column = new QVBoxLayout(listBox);
    column->setContentsMargins(0, 0, 0, 0);
    column->addWidget(label);
    column->addWidget(m_list);
    rows->addWidget(listBox);

    m_download = new QPushButton(tr("Download"));
    m_cancel = new QPushButton(tr("Cancel Download"));
    m_use = new QPushButton(tr("Use This Model"));
    m_delete = new QPushButton(tr("Delete"));
    m_download->setObjectName(QStringLiteral("downloadModel"));
    m_cancel->setObjectName(QStringLiteral("cancelDownload"));
    connect(m_download, &QPushButton::clicked, this, [this] { m_models.download(selectedModel()); });
    connect(m_cancel, &QPushButton::clicked, this, [this] { m_models.cancel(selectedModel()); });
    connect(m_use, &QPushButton::clicked, this, [this] { m_models.use(selectedModel()); });
    connect(m_delete, &QPushButton::clicked, this, [this] { m_models.remove(selectedModel()); });
    auto *actions = new QWidget;
    actions->setLayout(sideBySide({m_download, m_cancel, m_use, m_delete}));
    rows->addWidget(actions);

    auto *file = new QPushButton(tr("Use a Model File…"));
    auto *folder = new QPushButton(tr("Use a Model Folder…"));
    auto *standard = new QPushButton(tr("Use the Default"));
    connect(file, &QPushButton::clicked, this, [this] { useOwnModel(false); });
    connect(folder, &QPushButton::clicked, this, [this] { useOwnModel(true); });
    connect(standard, &QPushButton::clicked, this, [this] { m_models.use(QString()); });
    auto *own = new QWidget;
    own->setLayout(sideBySide({file, folder, standard}));
    rows->addWidget(own);

    m_modelProblem = new QLabel;
    m_modelProblem->setWordWrap(true);
    rows->addWidget(m_modelProblem);
    QLabel *about = noteLabel(tr("Models run on this computer and nothing leaves it. Without a chosen model, "
                                 "Quillmoor uses base, or base.en when the language is English. A model file "
                                 "(ggml .bin) or a CTranslate2 folder you already have works too."));
    rows->addWidget(about);

    connect(&m_models, &ModelManager::changed, this, &TranscriptionPane::showModels);
    m_modelProblem->hide();
    connect(&m_models, &ModelManager::failed, m_modelProblem, [this](const QString &message) {
        m_modelProblem->setText(message);
        m_modelProblem->show();
    });
    connect(&m_models, &ModelManager::installedChanged, m_modelProblem, &QLabel::hide);
    showModels();
    return page;
}

void TranscriptionPane::showProvider()
{
    m_provider = m_settings.provider();
    const bool cloud = m_provider != TranscriptionProvider::onDevice;
    // The stack takes the height of the page shown, not of the taller one.
    m_pages->setCurrentWidget(cloud ? m_cloudPage : m_modelPage);
    m_cloudPage->setSizePolicy(QSizePolicy::Preferred, cloud ? QSizePolicy::Preferred : QSizePolicy::Ignored);
    m_modelPage->setSizePolicy(QSizePolicy::Preferred, cloud ? QSizePolicy::Ignored : QSizePolicy::Preferred);
    m_pages->adjustSize();
    if (!cloud)
        return;
    m_checkResult->clear();
    m_model->setText(m_settings.models().value(rawValue(m_provider)));
    m_model->setModified(false);
    m_model->setPlaceholderText(modelHint(m_provider));
    static_cast<QStringListModel *>(m_model->completer()->model())->setStringList(modelSuggestions(m_provider));
    refreshKey();
}

void TranscriptionPane::refreshKey()
{
    if (m_provider == TranscriptionProvider::onDevice)
        return;
    m_keyStored = m_settings.apiKey(m_provider).has_value();
    m_key->setText(m_keyStored ? KeyField::mask() : QString());
    m_key->setModified(false);
    m_key->setPlaceholderText(tr("Paste your %1 API key").arg(shortName(m_provider)));
    m_keyStatus->setText(KeyField::status(m_provider, m_settings.keyringAvailable(), m_keyStored));
}

void TranscriptionPane::commitKey()
{
    if (!m_key->isModified())
        return;
    const KeyField::Edit edit = KeyField::editFor(m_key->text(), m_keyStored);
    if (edit.kind == KeyField::Edit::Kind::nothing)
        return;
    if (!m_settings.setAPIKey(edit.key, m_provider)) {
        // Nothing was stored: the typed key stays in the field, so that it isn't lost.
        m_keyStatus->setText(KeyField::status(m_provider, false, false));
        return;
    }
    m_checkResult->clear();
    refreshKey();
}

QCoro::Task<> TranscriptionPane::checkKey()
{
    if (m_checking)
        co_return;
    QString key = KeyField::typedKey(m_key->text());
    if (m_key->text() == KeyField::mask() || key.isEmpty())
        key = m_settings.apiKey(m_provider).value_or(QString());
    if (key.isEmpty()) {
        m_checkResult->setText(tr("Paste a key first."));
        co_return;
    }
    QPointer<TranscriptionPane> self(this);
    const TranscriptionProvider provider = m_provider;
    m_checking = true;
    m_check->setEnabled(false);
    m_checkResult->setText(tr("Checking…"));
    auto asking = KeyCheck::check(provider, key);
    const auto answer = co_await asking;
    if (!self)
        co_return;
    m_checking = false;
    m_check->setEnabled(true);
    // The provider may have changed while the service answered; the answer belongs to the one asked about.
    if (provider == m_provider)
        m_checkResult->setText(KeyCheck::message(answer));
}

void TranscriptionPane::showModels()
{
    const QString selected = selectedModel();
    const QList<ModelRow> rows = m_models.rows();
    m_list->clear();
    for (const ModelRow &row : rows) {
        auto *item = new QTreeWidgetItem(m_list, {row.title, row.size, row.status});
        item->setData(modelColumn, Qt::UserRole, row.model);
        // The height goes on the stretching column: the others size themselves to their text.
        item->setSizeHint(statusColumn, QSize(0, m_list->fontMetrics().height() + 8));
        if (row.inUse) {
            QFont bold = item->font(modelColumn);
            bold.setBold(true);
            for (int column : {modelColumn, sizeColumn, statusColumn})
                item->setFont(column, bold);
        }
        if (row.downloading) {
            auto *bar = new QProgressBar;
            bar->setRange(0, 100);
            bar->setValue(row.percent);
            bar->setFormat(row.status);
            bar->setTextVisible(true);
            m_list->setItemWidget(item, statusColumn, bar);
        }
        if (row.model == selected || (selected.isEmpty() && row.inUse))
            m_list->setCurrentItem(item);
    }
    // Tall enough for every row, so the list never scrolls and leaves no empty space below.
    const int rowsHeight = m_list->fontMetrics().height() + 8;
    m_list->setFixedHeight(m_list->header()->sizeHint().height() + int(rows.size()) * rowsHeight +
                           2 * m_list->frameWidth() + 2);
    showModelButtons();
}

void TranscriptionPane::showModelButtons()
{
    const QString model = selectedModel();
    ModelRow row;
    for (const ModelRow &each : m_models.rows()) {
        if (each.model == model)
            row = each;
    }
    m_download->setText(row.downloadText.isEmpty() ? tr("Download") : row.downloadText);
    m_download->setEnabled(row.canDownload);
    m_cancel->setEnabled(row.canCancel);
    m_use->setEnabled(row.canUse);
    m_delete->setEnabled(row.canDelete);
}

QString TranscriptionPane::selectedModel() const
{
    const QTreeWidgetItem *item = m_list->currentItem();
    return item ? item->data(modelColumn, Qt::UserRole).toString() : QString();
}

void TranscriptionPane::useOwnModel(bool folder)
{
    const QString chosen = folder ? QFileDialog::getExistingDirectory(this, tr("Choose a CTranslate2 Model Folder"))
                                  : QFileDialog::getOpenFileName(this, tr("Choose a Model File"), QString(),
                                                                 tr("Whisper models (*.bin);;All files (*)"));
    if (!chosen.isEmpty())
        m_models.use(chosen);
}

} // namespace qm::ui
