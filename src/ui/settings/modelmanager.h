#pragma once

#include "ui/settings/modelrows.h"

#include <QCoroTask>
#include <QHash>
#include <QObject>
#include <QSet>

namespace qm {
class AppSettings;
namespace whisper {
class ModelLibrary;
}
} // namespace qm

namespace qm::ui {

// The on-device model list behind the Transcription pane: which models there are, which one is in use, and
// the downloads the user started here. Main thread only; owns no widgets.
//
// The model in use is the onDevice model setting, or, when that is empty, the default for the language
// (base, or base.en for English). Choosing a model only changes the setting; a model that isn't downloaded yet
// is fetched by the first transcription that needs it, or here with download().
class ModelManager : public QObject {
    Q_OBJECT

public:
    ModelManager(whisper::ModelLibrary &library, AppSettings &settings, QObject *parent = nullptr);

    // The catalogue's models, then the model in use when it is none of them (a quantized name, a user's file).
    QList<ModelRow> rows() const;
    QString inUse() const;

    // Each does nothing when it doesn't apply (a download of a model already downloading, say).
    void download(const QString &model);
    void cancel(const QString &model);
    void remove(const QString &model);
    // An empty `model` goes back to the default choice, which follows the language.
    void use(const QString &model);

Q_SIGNALS:
    // The rows changed (progress, a finished download, another model in use).
    void changed();
    // A model was downloaded or deleted: whether on-device transcription is ready may have changed.
    void installedChanged();
    // A sentence for the user: a download or a deletion failed.
    void failed(const QString &message);

private:
    QCoro::Task<> fetch(QString model);

    whisper::ModelLibrary &m_library;
    AppSettings &m_settings;
    QHash<QString, double> m_progress;
    QSet<QString> m_cancelled;
};

} // namespace qm::ui
