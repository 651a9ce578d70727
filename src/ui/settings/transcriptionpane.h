#pragma once

#include "library/settingsvalues.h"

#include <QCoroTask>
#include <QWidget>

class QLabel;
class QLineEdit;
class QPushButton;
class QStackedWidget;
class QTreeWidget;

namespace qm {
class AppSettings;
}

namespace qm::ui {

class ModelManager;
class PaneForm;

// The provider and its options: for a cloud provider its API key (stored in the keyring, never shown) with a
// key check, and its model; for On-Device the model list with downloads.
class TranscriptionPane : public QWidget {
    Q_OBJECT

public:
    TranscriptionPane(AppSettings &settings, ModelManager &models, QWidget *parent = nullptr);

    // Reads whether the current provider has a key again (the keyring may have changed meanwhile).
    void refreshKey();

private:
    QWidget *buildCloudPage(const PaneForm &main);
    QWidget *buildModelPage();
    void showProvider();
    void commitKey();
    QCoro::Task<> checkKey();
    void showModels();
    void showModelButtons();
    QString selectedModel() const;
    void useOwnModel(bool folder);

    AppSettings &m_settings;
    ModelManager &m_models;
    TranscriptionProvider m_provider = TranscriptionProvider::onDevice;
    bool m_keyStored = false;
    bool m_checking = false;
    QStackedWidget *m_pages = nullptr;
    QWidget *m_cloudPage = nullptr;
    QWidget *m_modelPage = nullptr;
    QLineEdit *m_key = nullptr;
    QLabel *m_keyStatus = nullptr;
    QPushButton *m_check = nullptr;
    QLabel *m_checkResult = nullptr;
    QLineEdit *m_model = nullptr;

    QTreeWidget *m_list = nullptr;
    QPushButton *m_download = nullptr;
    QPushButton *m_cancel = nullptr;
    QPushButton *m_use = nullptr;
    QPushButton *m_delete = nullptr;
    QLabel *m_modelProblem = nullptr;
};

} // namespace qm::ui
