#include "ui/library/librarywindow.h"

#include "app/appcontroller.h"
#include "library/recordingstore.h"
#include "ui/library/desktopactions.h"
#include "ui/library/librarylistmodel.h"
#include "ui/library/librarysearch.h"
#include "ui/library/libraryselection.h"
#include "ui/library/libraryviewstate.h"
#include "ui/library/playermodel.h"
#include "ui/library/recordingdelegate.h"
#include "ui/library/recordingdetailview.h"

#include <QAbstractButton>
#include <QApplication>
#include <QComboBox>
#include <QLabel>
#include <QLineEdit>
#include <QListView>
#include <QShortcut>
#include <QSplitter>
#include <QStackedWidget>
#include <QStyle>
#include <QToolBar>
#include <QVBoxLayout>

namespace qm::ui {

namespace {

QWidget *placeholder(QWidget *parent, QLabel **title, QLabel **detail)
{
    auto *page = new QWidget(parent);
    auto *column = new QVBoxLayout(page);
    column->addStretch(1);
    *title = new QLabel(page);
    QFont font = (*title)->font();
    font.setPointSizeF(font.pointSizeF() * 1.2);
    font.setBold(true);
    (*title)->setFont(font);
    (*title)->setAlignment(Qt::AlignCenter);
    (*title)->setWordWrap(true);
    column->addWidget(*title);
    if (detail) {
        *detail = new QLabel(page);
        (*detail)->setAlignment(Qt::AlignCenter);
        (*detail)->setWordWrap(true);
        (*detail)->setEnabled(false);
        column->addWidget(*detail);
    }
    column->addStretch(2);
    return page;
}

} // namespace

LibraryWindow::LibraryWindow(AppController &controller, QWidget *parent)
    : QMainWindow(parent), m_controller(controller),
      m_searchEngine(std::make_unique<LibrarySearch>(controller.store(), LibrarySearch::defaultIndexPath()))
{
    setWindowTitle(tr("Quillmoor Library"));
    resize(defaultSize);
    RecordingStore &store = controller.store();
    m_model = std::make_unique<LibraryListModel>(store, *m_searchEngine);
    m_model->setActivities(controller.activities());
    m_selection = std::make_unique<LibrarySelection>(store, *m_model, RecordingStore::IdRole);

    auto *toolbar = addToolBar(tr("Library"));
    toolbar->setMovable(false);
    toolbar->setToolButtonStyle(Qt::ToolButtonTextBesideIcon);
    toolbar
        ->addAction(QIcon::fromTheme(QStringLiteral("view-refresh"), style()->standardIcon(QStyle::SP_BrowserReload)),
                    tr("Refresh"), this, [&store] { store.reload(); })
        ->setShortcut(QKeySequence::Refresh);
    toolbar->addAction(QIcon::fromTheme(QStringLiteral("folder-open"), style()->standardIcon(QStyle::SP_DirOpenIcon)),
                       tr("Open Folder"), this, [&store] { openFolder(store.rootPath()); });

    auto *splitter = new QSplitter(this);
    m_splitter = splitter;
    splitter->setChildrenCollapsible(false);
    auto *left = new QWidget(splitter);
    left->setMinimumWidth(260);
    auto *leftColumn = new QVBoxLayout(left);
    leftColumn->setContentsMargins(8, 8, 0, 8);
    leftColumn->setSpacing(6);
    m_search = new QLineEdit(left);
    m_search->setPlaceholderText(tr("Search recordings & transcripts"));
    m_search->setAccessibleName(tr("Search recordings & transcripts"));
    m_search->setClearButtonEnabled(true);
    m_search->addAction(
        QIcon::fromTheme(QStringLiteral("edit-find"), style()->standardIcon(QStyle::SP_FileDialogContentsView)),
        QLineEdit::LeadingPosition);
    m_search->setToolTip(tr("Search titles and transcripts (Ctrl+F)"));
    leftColumn->addWidget(m_search);
    m_listStack = new QStackedWidget(left);
    m_list = new QListView(m_listStack);
    m_list->setModel(m_model.get());
    m_list->setItemDelegate(new RecordingDelegate(m_list));
    m_list->setUniformItemSizes(false);
    m_list->setVerticalScrollMode(QAbstractItemView::ScrollPerPixel);
    m_list->setSelectionMode(QAbstractItemView::SingleSelection);
    m_list->setAccessibleName(tr("Recordings"));
    m_list->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    m_listStack->addWidget(m_list);
    m_listStack->addWidget(placeholder(m_listStack, &m_listTitle, &m_listDetail));
    leftColumn->addWidget(m_listStack, 1);

    m_detailStack = new QStackedWidget(splitter);
    m_detailStack->addWidget(placeholder(m_detailStack, &m_nothingSelected, nullptr));
    m_nothingSelected->setText(noSelectionPlaceholder().title);
    m_nothingSelected->setEnabled(false);
    m_detail = new RecordingDetailView(controller, m_detailStack);
    m_detailStack->addWidget(m_detail);
    splitter->addWidget(left);
    splitter->addWidget(m_detailStack);
    splitter->setStretchFactor(0, 0);
    splitter->setStretchFactor(1, 1);
    splitter->setSizes({320, 680});
    setCentralWidget(splitter);

    connect(m_search, &QLineEdit::textChanged, m_searchEngine.get(), &LibrarySearch::setQuery);
    connect(m_searchEngine.get(), &LibrarySearch::hitsChanged, this, [this] {
        updatePlaceholder();
        if (m_selection->selected()) {
            const QModelIndex at = m_model->indexOf(*m_selection->selected());
            if (at.isValid())
                m_list->setCurrentIndex(at);
        }
    });
    connect(m_searchEngine.get(), &LibrarySearch::searchingChanged, this, &LibraryWindow::updatePlaceholder);
    connect(m_model.get(), &QAbstractItemModel::rowsInserted, this, &LibraryWindow::updatePlaceholder);
    connect(m_model.get(), &QAbstractItemModel::rowsRemoved, this, &LibraryWindow::updatePlaceholder);
    connect(m_model.get(), &QAbstractItemModel::modelReset, this, [this] {
        updatePlaceholder();
        selectionChanged();
    });
    connect(m_list->selectionModel(), &QItemSelectionModel::currentChanged, this, [this](const QModelIndex &index) {
        if (index.isValid())
            m_selection->select(m_model->idAt(index.row()));
    });
    connect(m_selection.get(), &LibrarySelection::selectedChanged, this, &LibraryWindow::selectionChanged);
    connect(&controller, &AppController::activitiesChanged, this,
            [this] { m_model->setActivities(m_controller.activities()); });

    // Keyboard: Space plays, arrows skip, Ctrl+F searches, Delete trashes (after asking), F2 renames. Text
    // fields keep their own keys, since they claim them before shortcuts are looked at.
    auto shortcut = [this](const QKeySequence &keys, auto action) {
        auto *s = new QShortcut(keys, this);
        s->setContext(Qt::WindowShortcut);
        connect(s, &QShortcut::activated, this, action);
    };
    shortcut(QKeySequence(Qt::Key_Space), [this] { togglePlayback(); });
    shortcut(QKeySequence(Qt::Key_Left), [this] { m_detail->player().skip(-PlayerModel::kSkipSeconds); });
    shortcut(QKeySequence(Qt::Key_Right), [this] { m_detail->player().skip(PlayerModel::kSkipSeconds); });
    shortcut(QKeySequence::Find, [this] {
        m_search->setFocus(Qt::ShortcutFocusReason);
        m_search->selectAll();
    });
    shortcut(QKeySequence(Qt::Key_Delete), [this] { m_detail->askToTrash(); });
    shortcut(QKeySequence(Qt::Key_F2), [this] { m_detail->editTitle(); });

    updatePlaceholder();
    selectionChanged();
}

LibraryWindow::~LibraryWindow() = default;

void LibraryWindow::showRecording(std::optional<QUuid> id)
{
    if (id && m_controller.store().recording(*id)) {
        // A recording hidden by the search is shown by clearing it.
        if (!m_model->indexOf(*id).isValid())
            m_search->clear();
        m_selection->select(id);
    }
    show();
    if (isMinimized())
        showNormal();
    raise();
    activateWindow();
}

void LibraryWindow::showEvent(QShowEvent *event)
{
    QMainWindow::showEvent(event);
    // The split is only kept once the window has its size.
    if (!m_placed) {
        m_placed = true;
        m_splitter->setSizes({320, std::max(400, width() - 320)});
    }
}

void LibraryWindow::togglePlayback()
{
    // Space still presses a focused button or opens a focused list of choices.
    if (auto *button = qobject_cast<QAbstractButton *>(QApplication::focusWidget())) {
        button->animateClick();
        return;
    }
    if (auto *choice = qobject_cast<QComboBox *>(QApplication::focusWidget())) {
        choice->showPopup();
        return;
    }
    m_detail->player().toggle();
}

void LibraryWindow::selectionChanged()
{
    const std::optional<QUuid> id = m_selection->selected();
    m_detail->showRecording(id, m_searchEngine->query());
    m_detailStack->setCurrentIndex(id ? 1 : 0);
    const QModelIndex at = id ? m_model->indexOf(*id) : QModelIndex();
    if (at.isValid()) {
        if (m_list->currentIndex() != at)
            m_list->setCurrentIndex(at);
        m_list->scrollTo(at);
    } else {
        m_list->clearSelection();
    }
}

void LibraryWindow::updatePlaceholder()
{
    const std::optional<Placeholder> empty = listPlaceholder(m_controller.store().count(), m_model->rowCount(),
                                                             m_searchEngine->query(), m_searchEngine->isSearching());
    m_listStack->setCurrentIndex(empty ? 1 : 0);
    // With nothing to select, the list's own text says it all.
    m_nothingSelected->setVisible(m_controller.store().count() > 0);
    if (empty) {
        m_listTitle->setText(empty->title);
        m_listDetail->setText(empty->detail);
        m_listDetail->setVisible(!empty->detail.isEmpty());
    }
}

} // namespace qm::ui
