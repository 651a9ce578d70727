#include "meeting/zoommuteobserver.h"

#include <QPointer>
#include <QTimer>

namespace qm {

namespace mute {

namespace {

constexpr int deepest = 4;

} // namespace

std::optional<bool> stateOf(AccessibleElement &element)
{
    const QString description = element.description().toLower();
    if (description.endsWith(QLatin1String("audio unmuted")))
        return false;
    if (description.endsWith(QLatin1String("audio muted")))
        return true;
    if (element.role() == AccessibleRole::menuItem) {
        // The menu offers the opposite of the current state.
        const QString title = element.name().toLower();
        if (title == QLatin1String("mute audio"))
            return false;
        if (title == QLatin1String("unmute audio"))
            return true;
    }
    return std::nullopt;
}

MuteReading search(const ElementPtr &element, int depth)
{
    if (!element)
        return {};
    if (const auto state = stateOf(*element))
        return {state, element};
    if (depth >= deepest)
        return {};
    for (const ElementPtr &child : element->children()) {
        if (MuteReading found = search(child, depth + 1); found.muted)
            return found;
    }
    return {};
}

MuteReading stateFromMenu(const ElementPtr &app)
{
    for (const ElementPtr &frame : app->children()) {
        for (const ElementPtr &bar : frame->children()) {
            if (bar->role() != AccessibleRole::menuBar)
                continue;
            for (const ElementPtr &menu : bar->children()) {
                for (const ElementPtr &item : menu->children()) {
                    if (item->role() != AccessibleRole::menuItem)
                        continue;
                    if (const auto state = stateOf(*item))
                        return {state, item};
                }
            }
        }
    }
    return {};
}

MuteReading stateFromMeetingWindow(const ElementPtr &app)
{
    for (const ElementPtr &window : app->children()) {
        if (window->name() != QLatin1String("Zoom Meeting"))
            continue;
        if (MuteReading found = search(window, 0); found.muted)
            return found;
    }
    return {};
}

MuteReading read(AccessibilityTree &tree)
{
    if (!tree.isEnabled())
        return {};
    const ElementPtr app = tree.zoomApplication();
    if (!app)
        return {};
    if (MuteReading fromMenu = stateFromMenu(app); fromMenu.muted)
        return fromMenu;
    return stateFromMeetingWindow(app);
}

} // namespace mute

namespace {

// Owns the tree and the remembered control; lives on the helper thread.
class MuteReader : public QObject {
public:
    explicit MuteReader(std::unique_ptr<AccessibilityTree> tree) : m_tree(std::move(tree)) {}

    std::optional<bool> read()
    {
        if (m_control) {
            if (!m_tree->isEnabled()) {
                m_control.reset();
                return std::nullopt;
            }
            if (const auto state = mute::stateOf(*m_control))
                return state;
            m_control.reset();
        }
        MuteReading reading = mute::read(*m_tree);
        m_control = std::move(reading.control);
        return reading.muted;
    }

private:
    std::unique_ptr<AccessibilityTree> m_tree;
    ElementPtr m_control;
};

} // namespace

ZoomMuteObserver::ZoomMuteObserver(std::unique_ptr<AccessibilityTree> tree, std::chrono::milliseconds timeout,
                                   QObject *parent)
    : QObject(parent), m_timeout(timeout)
{
    m_thread.setObjectName(QStringLiteral("app.quillmoor.accessibility"));
    auto *worker = new MuteReader(std::move(tree));
    worker->moveToThread(&m_thread);
    connect(&m_thread, &QThread::finished, worker, &QObject::deleteLater);
    m_worker = worker;
    m_thread.start();
}

ZoomMuteObserver::~ZoomMuteObserver()
{
    m_thread.quit();
    m_thread.wait();
}

std::optional<bool> ZoomMuteObserver::isMutedInZoom()
{
    request();
    return m_muted;
}

void ZoomMuteObserver::request()
{
    if (m_reading)
        return;
    m_reading = true;
    const int generation = ++m_generation;
    QPointer<ZoomMuteObserver> self(this);
    auto *reader = static_cast<MuteReader *>(m_worker);
    QMetaObject::invokeMethod(reader, [self, reader, generation] {
        const std::optional<bool> muted = reader->read();
        QMetaObject::invokeMethod(
            self,
            [self, muted, generation] {
                if (self)
                    self->answered(muted, generation);
            },
            Qt::QueuedConnection);
    });
    QTimer::singleShot(m_timeout, this, [this, generation] {
        // The read hangs: stop trusting the last answer, but let the read finish before starting another.
        if (m_reading && generation == m_generation && m_muted) {
            m_muted.reset();
            Q_EMIT mutedInZoomChanged();
        }
    });
}

void ZoomMuteObserver::answered(std::optional<bool> muted, int generation)
{
    if (generation != m_generation)
        return;
    m_reading = false;
    if (muted != m_muted) {
        m_muted = muted;
        Q_EMIT mutedInZoomChanged();
    }
}

} // namespace qm
