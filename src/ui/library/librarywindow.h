#pragma once

#include <QMainWindow>
#include <QUuid>

#include <memory>
#include <optional>

class QLabel;
class QLineEdit;
class QListView;
class QSplitter;
class QStackedWidget;

namespace qm {
class AppController;
}

namespace qm::ui {

class LibraryListModel;
class LibrarySearch;
class LibrarySelection;
class RecordingDetailView;

// "Quillmoor Library": the recordings with their search on the left, the selected one on the right. It holds
// only the search text, the selection and the player; everything else belongs to the controller and the store.
class LibraryWindow : public QMainWindow {
    Q_OBJECT

public:
    static constexpr QSize defaultSize{1000, 680};

    explicit LibraryWindow(qm::AppController &controller, QWidget *parent = nullptr);
    ~LibraryWindow() override;

    // Shows, raises and activates the window; selects `id` when given (a RECENT row or a notification).
    void showRecording(std::optional<QUuid> id = std::nullopt);

    // For tests and screenshots.
    QLineEdit *searchField() const { return m_search; }
    QListView *list() const { return m_list; }
    RecordingDetailView *detail() const { return m_detail; }
    LibrarySearch &search() { return *m_searchEngine; }
    LibrarySelection &selection() { return *m_selection; }

protected:
    void showEvent(QShowEvent *event) override;

private:
    void selectionChanged();
    void updatePlaceholder();
    void togglePlayback();

    AppController &m_controller;
    std::unique_ptr<LibrarySearch> m_searchEngine;
    std::unique_ptr<LibraryListModel> m_model;
    std::unique_ptr<LibrarySelection> m_selection;
    QLineEdit *m_search = nullptr;
    QStackedWidget *m_listStack = nullptr;
    QListView *m_list = nullptr;
    QLabel *m_listTitle = nullptr;
    QLabel *m_listDetail = nullptr;
    QLabel *m_nothingSelected = nullptr;
    QStackedWidget *m_detailStack = nullptr;
    QSplitter *m_splitter = nullptr;
    bool m_placed = false;
    RecordingDetailView *m_detail = nullptr;
};

} // namespace qm::ui
