// The tray's panel in each state and its icons, on the controller the tests use (stand-in sound and Zoom).

#include "shot.h"

#include "capture/capturefailure.h"
#include "support/app/controllerharness.h"
#include "ui/tray/menubarview.h"
#include "ui/tray/trayicon.h"
#include "ui/tray/trayviewmodel.h"

#include <QCoroTimer>
#include <QHBoxLayout>
#include <QLabel>
#include <QPainter>
#include <QTest>
#include <QTimer>

using namespace qm;
using namespace qm::test;
using namespace qm::ui;

namespace {

// Waits for what a scene needs; a state that never comes still gets its picture, which then shows the problem.
template <class Predicate> void waitFor(Predicate predicate)
{
    if (!QTest::qWaitFor(predicate, 10000))
        qWarning("screenshots: a state didn't come in time");
}

// A speech engine that takes its time, so that the panel can be seen while a recording is transcribed.
class SlowEngine : public SpeechEngine {
public:
    QCoro::Task<SegmentsResult> transcribe(EngineRequest, ProgressCallback progress) override
    {
        progress(QStringLiteral("Uploading to Deepgram…"));
        QTimer timer;
        timer.start(std::chrono::seconds(3));
        co_await timer;
        co_return Segments{};
    }
};

// A Zoom meeting window whose microphone button says the user is muted.
class MutedZoom : public AccessibilityTree {
public:
    class Element : public AccessibleElement {
    public:
        Element(QString name, QString description, QList<ElementPtr> children = {})
            : m_name(std::move(name)), m_description(std::move(description)), m_children(std::move(children))
        {}
        QString name() override { return m_name; }
        QString description() override { return m_description; }
        AccessibleRole role() override { return AccessibleRole::frame; }
        QList<ElementPtr> children() override { return m_children; }

    private:
        QString m_name, m_description;
        QList<ElementPtr> m_children;
    };
    bool isEnabled() override { return true; }
    ElementPtr zoomApplication() override
    {
        return std::make_shared<Element>(QStringLiteral("zoom"), QString(),
                                         QList<ElementPtr>{std::make_shared<Element>(QStringLiteral("Zoom Meeting"),
                                                                                     QStringLiteral("Audio muted"))});
    }
};

void fillLibrary(ControllerHarness &h)
{
    const QStringList titles{QStringLiteral("Design review"), QStringLiteral("Customer call – Northwind"),
                             QStringLiteral("1:1 with Dana"), QStringLiteral("Weekly planning"),
                             QStringLiteral("Hiring sync")};
    const RecordingSource sources[] = {RecordingSource::zoom, RecordingSource::systemAudio, RecordingSource::inPerson,
                                       RecordingSource::zoom, RecordingSource::systemAudio};
    for (int i = 0; i < titles.size(); ++i) {
        h.now = h.now.addSecs(3600);
        Recording recording = *h.store->create(sources[i], false);
        recording.title = titles.at(i);
        recording.duration = 600 + i * 913;
        recording.state = ProcessingState::ready;
        recording.transcriptState = i == 1 ? TranscriptState::failed : TranscriptState::done;
        if (i == 1)
            recording.lastError = QStringLiteral("Deepgram rejected the API key.");
        (void)h.store->save(recording);
    }
}

struct Scene {
    std::unique_ptr<ControllerHarness> harness;
    std::unique_ptr<TrayViewModel> model;
    std::unique_ptr<MenuBarView> panel;

    explicit Scene(std::unique_ptr<AccessibilityTree> zoom = nullptr)
        : harness(std::make_unique<ControllerHarness>(std::move(zoom)))
    {
        harness->start();
        fillLibrary(*harness);
        model = std::make_unique<TrayViewModel>(*harness->controller);
        panel = std::make_unique<MenuBarView>(*model, TrayActions{[](auto) {}, [](bool) {}, [] {}, [] {}, [] {}});
        panel->setPopup(true);
    }
};

// The four icon states, with the timer, on a light and a dark panel.
QWidget *iconStrip()
{
    auto *strip = new QWidget;
    auto *row = new QHBoxLayout(strip);
    for (const QColor &panel : {QColor(0xf6, 0xf5, 0xf4), QColor(0x24, 0x24, 0x24)}) {
        auto *bar = new QLabel;
        QPixmap pixmap(5 * 40, 40);
        pixmap.fill(panel);
        QPainter painter(&pixmap);
        ControllerHarness h;
        h.start();
        TrayViewModel model(*h.controller);
        TrayIcon icon(model, TrayActions{[](auto) {}, [](bool) {}, [] {}, [] {}, [] {}});
        int x = 8;
        const auto draw = [&](const QIcon &drawn) {
            drawn.paint(&painter, QRect(x, 9, 22, 22));
            x += 40;
        };
        draw(icon.currentIcon());
        h.controller->startRecording(RecordingSource::systemAudio);
        waitFor([&] { return h.controller->phase() == AppController::Phase::recording; });
        h.record(1);
        h.settings->setShowTimerInMenuBar(false);
        draw(icon.currentIcon());
        h.settings->setShowTimerInMenuBar(true);
        draw(icon.currentIcon());
        h.controller->togglePause();
        draw(icon.currentIcon());
        h.controller->stopRecording();
        waitFor([&] { return model.iconState() == TrayViewModel::IconState::processing; });
        draw(icon.currentIcon());
        waitFor([&] { return h.controller->activities().isEmpty(); });
        painter.end();
        bar->setPixmap(pixmap);
        row->addWidget(bar);
    }
    return strip;
}

} // namespace

int main(int argc, char *argv[])
{
    return qm::shots::run(argc, argv, [](qm::shots::Theme, const auto &save) {
        {
            Scene scene;
            save(scene.panel.get(), QStringLiteral("tray-panel-idle"));
        }
        {
            Scene scene;
            scene.harness->zoomProbes->inMeeting = true;
            scene.harness->pollZoom(2);
            save(scene.panel.get(), QStringLiteral("tray-panel-zoom-meeting"));
        }
        {
            Scene scene(std::make_unique<MutedZoom>());
            ControllerHarness &h = *scene.harness;
            h.engine = [] { return std::make_unique<SlowEngine>(); };
            h.settings->setAutoTranscribe(true);
            h.settings->setProvider(TranscriptionProvider::deepgram);
            h.secrets.put(QStringLiteral("app.quillmoor.Quillmoor"), QStringLiteral("apikey.deepgram"),
                          QStringLiteral("key"));
            h.controller->startRecording(RecordingSource::zoom);
            waitFor([&] { return h.controller->phase() == AppController::Phase::recording; });
            h.record(2);
            save(scene.panel.get(), QStringLiteral("tray-panel-recording"));
            h.controller->stopRecording();
            waitFor([&] {
                return h.controller->activities()
                    .value(h.controller->store().recordings().constFirst().id)
                    .contains(QStringLiteral("Deepgram"));
            });
            save(scene.panel.get(), QStringLiteral("tray-panel-processing"));
            waitFor([&] { return h.controller->activities().isEmpty(); });
        }
        {
            Scene scene;
            ControllerHarness &h = *scene.harness;
            h.sound.failMicrophone = CaptureFailure::of(CaptureError::microphonePermissionDenied);
            h.controller->startRecording(RecordingSource::inPerson);
            waitFor([&] { return !h.controller->errorMessageText().isEmpty(); });
            save(scene.panel.get(), QStringLiteral("tray-panel-error"));
        }
        {
            Scene scene;
            scene.panel->setPopup(false);
            scene.model->setTrayNotice(TrayViewModel::noTrayNotice());
            save(scene.panel.get(), QStringLiteral("tray-panel-no-tray"));
        }
        std::unique_ptr<QWidget> strip(iconStrip());
        save(strip.get(), QStringLiteral("tray-icons"));
    });
}
