// The library window in its states: empty, a recording playing, a search with its snippets, a failed recording;
// on the controller the tests use, with a library written for the pictures.

#include "shot.h"

#include "support/app/controllerharness.h"
#include "ui/library/librarysearch.h"
#include "ui/library/librarywindow.h"
#include "ui/library/playermodel.h"
#include "ui/library/recordingdetailview.h"
#include "ui/library/transcriptmodel.h"

#include <QDir>
#include <QLineEdit>
#include <QListView>
#include <QProcess>
#include <QTest>

using namespace qm;
using namespace qm::test;
using namespace qm::ui;

namespace {

template <class Predicate> void waitFor(Predicate predicate)
{
    if (!QTest::qWaitFor(predicate, 10000))
        qWarning("screenshots: a state didn't come in time");
}

struct Line {
    const char *speaker;
    const char *text;
};

const Line kPlanning[] = {
    {"Speaker 1", "Morning everyone. Let's start with the release plan, then the budget for next quarter."},
    {"Speaker 2", "The release branch is cut. QA found two blockers in the export screen, both fixed yesterday."},
    {"Speaker 1", "Good. Any risk to the date?"},
    {"Speaker 3", "Only the translations. German and Hebrew come back on Thursday."},
    {"Speaker 2", "If they slip, we ship English first and follow with a point release."},
    {"Speaker 1", "Agreed. Now the budget: we asked for two more seats on the support team."},
    {"Speaker 3", "Finance approved one seat. The second depends on the renewal numbers."},
    {"Speaker 1", "Then let's prepare the renewal numbers before Friday's review."},
    {"Speaker 2", "I'll pull last quarter's figures and share them in the channel."},
    {"Speaker 1", "Great. Anything else? No? Thanks, everyone."},
};

const Line kCustomer[] = {
    {"Speaker 1", "Thanks for making time. How has the rollout gone on your side?"},
    {"Speaker 2", "Mostly well. The team likes the search, but exports to our wiki need a cleaner format."},
    {"Speaker 1", "Markdown export should cover that. I'll send you an example after the call."},
    {"Speaker 2", "Perfect. The other topic is budget: our renewal is in May."},
};

const Line kOneOnOne[] = {
    {"Me", "How are you finding the new project?"},
    {"Speaker 1", "Busy, but good. I'd like more time for design reviews before we commit to a budget."},
};

void writeMedia(const QString &path, int seconds)
{
    QProcess::execute(QStringLiteral("ffmpeg"), {QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-y"),
                                                 QStringLiteral("-f"), QStringLiteral("lavfi"), QStringLiteral("-i"),
                                                 QStringLiteral("sine=frequency=220:duration=%1").arg(seconds),
                                                 QStringLiteral("-c:a"), QStringLiteral("aac"), path});
}

template <std::size_t N> Transcript transcriptOf(const Line (&lines)[N], double spacing)
{
    Transcript t;
    t.engine = QStringLiteral("Deepgram");
    t.model = QStringLiteral("nova-3");
    t.createdAt = QDateTime::currentDateTimeUtc();
    double at = 0;
    for (const Line &line : lines) {
        TranscriptSegment segment;
        segment.start = at;
        segment.end = at + spacing - 0.5;
        segment.speaker = QString::fromUtf8(line.speaker);
        segment.text = QString::fromUtf8(line.text);
        t.segments.append(segment);
        at += spacing;
    }
    return t;
}

Recording add(ControllerHarness &h, RecordingSource source, const QString &title, double duration)
{
    h.now = h.now.addSecs(26 * 3600);
    Recording r = *h.store->create(source, false);
    r.title = title;
    r.duration = duration;
    r.state = ProcessingState::ready;
    r.hasMeetingTrack = true;
    r.hasMicrophoneTrack = true;
    return r;
}

void fillLibrary(ControllerHarness &h)
{
    Recording customer = add(h, RecordingSource::zoom, QStringLiteral("Customer call – Northwind"), 1860);
    Transcript t = transcriptOf(kCustomer, 9);
    (void)h.store->saveTranscript(t, customer);
    customer.transcriptState = TranscriptState::done;
    customer.driveSyncedAt = h.now;
    (void)h.store->save(customer);

    Recording failed = add(h, RecordingSource::systemAudio, QStringLiteral("Vendor demo"), 0);
    failed.state = ProcessingState::failed;
    failed.lastError = QStringLiteral("This recording was interrupted (Quillmoor was force-quit or the computer shut "
                                      "down) before its audio could be saved.");
    writeMedia(QDir(failed.folderPath()).filePath(QStringLiteral("Source/meeting-audio.m4a")), 2);
    (void)h.store->save(failed);

    Recording oneOnOne = add(h, RecordingSource::inPerson, QStringLiteral("1:1 with Dana"), 1500);
    (void)h.store->saveTranscript(transcriptOf(kOneOnOne, 12), oneOnOne);
    oneOnOne.transcriptState = TranscriptState::done;
    (void)h.store->save(oneOnOne);

    Recording untranscribed = add(h, RecordingSource::zoom, QStringLiteral("Hiring sync"), 2400);
    (void)h.store->save(untranscribed);

    Recording planning = add(h, RecordingSource::zoom, QStringLiteral("Weekly planning"), 60);
    const QString media = QStringLiteral("Weekly planning.m4a");
    writeMedia(QDir(planning.folderPath()).filePath(media), 60);
    writeMedia(QDir(planning.folderPath()).filePath(QStringLiteral("Source/meeting-audio.m4a")), 1);
    planning.mediaFileName = media;
    Transcript plan = transcriptOf(kPlanning, 6);
    plan.speakerNames.insert(QStringLiteral("Speaker 1"), QStringLiteral("Dana"));
    (void)h.store->saveTranscript(plan, planning);
    planning.transcriptState = TranscriptState::done;
    (void)h.store->save(planning);
}

QUuid idOf(ControllerHarness &h, const QString &title)
{
    for (const Recording &r : h.store->recordings()) {
        if (r.title == title)
            return r.id;
    }
    return {};
}

} // namespace

int main(int argc, char *argv[])
{
    return shots::run(argc, argv, [](shots::Theme, const auto &save) {
        {
            ControllerHarness h;
            LibraryWindow window(h.start());
            save(&window, QStringLiteral("library-empty"));
        }
        ControllerHarness h;
        fillLibrary(h);
        AppController &controller = h.start();
        {
            LibraryWindow window(controller);
            window.showRecording(idOf(h, QStringLiteral("Weekly planning")));
            PlayerModel &player = window.detail()->player();
            waitFor([&] { return player.duration() > 0; });
            player.seek(38);
            player.toggle();
            waitFor([&] { return window.detail()->transcript().activeRow() == 6; });
            save(&window, QStringLiteral("library-playing"));
            player.toggle();
        }
        {
            LibraryWindow window(controller);
            window.show();
            QTest::keyClicks(window.searchField(), QStringLiteral("budget"));
            waitFor([&] { return !window.search().isSearching() && window.search().hits(); });
            window.showRecording(idOf(h, QStringLiteral("Weekly planning")));
            QTest::qWait(300);
            save(&window, QStringLiteral("library-search"));
        }
        {
            LibraryWindow window(controller);
            window.showRecording(idOf(h, QStringLiteral("Vendor demo")));
            save(&window, QStringLiteral("library-failed"));
        }
    });
}
