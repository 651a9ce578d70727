#include "ui/settings/modelmanager.h"

#include "app/appsettings.h"
#include "transcription/transcriptionservice.h"
#include "transcription/whisper/modellibrary.h"

#include <QFileInfo>
#include <QPointer>

namespace qm::ui {

ModelManager::ModelManager(whisper::ModelLibrary &library, AppSettings &settings, QObject *parent)
    : QObject(parent), m_library(library), m_settings(settings)
{
    connect(&m_settings, &AppSettings::modelsChanged, this, &ModelManager::changed);
    connect(&m_settings, &AppSettings::languageChanged, this, &ModelManager::changed);
}

QString ModelManager::inUse() const
{
    return whisper::ModelLibrary::chosenModel(m_settings.model(TranscriptionProvider::onDevice),
                                              TranscriptionService::languageCode(m_settings.language()));
}

QList<ModelRow> ModelManager::rows() const
{
    const QString current = inUse();
    const bool followsLanguage = m_settings.model(TranscriptionProvider::onDevice).trimmed().isEmpty();
    const auto factsOf = [this](const QString &model, qint64 bytes) {
        ModelFacts facts{model, bytes, m_library.isInstalled(model), m_library.partialBytes(model), std::nullopt};
        if (const auto running = m_progress.constFind(model); running != m_progress.cend())
            facts.progress = *running;
        return facts;
    };
    QList<ModelRow> rows;
    bool listed = false;
    for (const auto &published : whisper::ModelLibrary::catalog()) {
        rows.append(
            modelRow(factsOf(published.name, published.bytes), published.name == current, followsLanguage, false));
        listed = listed || published.name == current;
    }
    if (!listed) {
        const bool ownFile = !whisper::ModelLibrary::isPublishedName(current);
        const QFileInfo file(current);
        rows.append(modelRow(factsOf(current, ownFile && file.isFile() ? file.size() : 0), true, false, ownFile));
    }
    return rows;
}

void ModelManager::download(const QString &model)
{
    if (m_progress.contains(model) || !whisper::ModelLibrary::isPublishedName(model))
        return;
    fetch(model);
}

QCoro::Task<> ModelManager::fetch(QString model)
{
    QPointer<ModelManager> self(this);
    m_progress.insert(model, 0.0);
    m_cancelled.remove(model);
    Q_EMIT changed();
    auto fetching = m_library.ensure(model, [self, model](double fraction) {
        if (!self || !self->m_progress.contains(model))
            return;
        // The list shows whole percents; redrawing it for every network packet would be wasted work.
        const bool visible = int(fraction * 100) != int(self->m_progress.value(model) * 100);
        self->m_progress.insert(model, fraction);
        if (visible)
            Q_EMIT self->changed();
    });
    const auto result = co_await fetching;
    if (!self)
        co_return;
    m_progress.remove(model);
    const bool cancelled = m_cancelled.remove(model);
    if (!result && !cancelled)
        Q_EMIT failed(result.error().description());
    Q_EMIT changed();
    if (result)
        Q_EMIT installedChanged();
}

void ModelManager::cancel(const QString &model)
{
    if (!m_progress.contains(model))
        return;
    m_cancelled.insert(model);
    m_library.cancel(model);
}

void ModelManager::remove(const QString &model)
{
    if (const auto removed = m_library.remove(model); !removed)
        Q_EMIT failed(removed.error());
    Q_EMIT changed();
    Q_EMIT installedChanged();
}

void ModelManager::use(const QString &model)
{
    m_settings.setModel(model, TranscriptionProvider::onDevice);
}

} // namespace qm::ui
