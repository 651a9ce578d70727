// How long the library takes to list a large library folder, against the floor set by reading and parsing
// the same files with nothing but QJsonDocument. The aim: 10,000 recordings in under one second.

#include "library/jsoncoding.h"
#include "library/recordingstore.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonDocument>
#include <QTemporaryDir>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <limits>

using namespace qm;

namespace {

constexpr int kRecordings = 10'000;
constexpr int kSegmentsPerTranscript = 40;
constexpr int kRuns = 3;

Recording makeRecording(int i, const QDateTime &base)
{
    Recording r;
    r.id = QUuid::createUuid();
    r.title = QStringLiteral("Team meeting %1").arg(i);
    r.source = allCases<RecordingSource>()[std::size_t(i) % allCases<RecordingSource>().size()];
    r.startedAt = base.addSecs(qint64(i) * 3600);
    r.duration = 600.0 + i % 3000;
    r.mediaFileName = QLatin1String(kMeetingTrackFileName);
    r.hasVideo = i % 4 == 0;
    r.hasMicrophoneTrack = true;
    r.hasMeetingTrack = true;
    r.state = ProcessingState::ready;
    r.transcriptState = i % 2 == 0 ? TranscriptState::done : TranscriptState::none;
    if (i % 2 == 0)
        r.transcriptEngine = QStringLiteral("local");
    return r;
}

Transcript makeTranscript(const Recording &recording)
{
    Transcript t;
    t.engine = QStringLiteral("local");
    t.language = QStringLiteral("en");
    t.createdAt = recording.startedAt.addSecs(qint64(recording.duration));
    for (int s = 0; s < kSegmentsPerTranscript; ++s) {
        TranscriptSegment segment;
        segment.start = s * 15.0;
        segment.end = segment.start + 14.5;
        segment.speaker = QStringLiteral("SPEAKER_%1").arg(s % 3);
        segment.text = QStringLiteral("Segment %1 of what was said, long enough to look like a real sentence.").arg(s);
        t.segments.append(segment);
    }
    t.speakerNames.insert(QStringLiteral("SPEAKER_0"), QStringLiteral("Ada"));
    return t;
}

bool buildLibrary(const QString &root, RecordingStore &store)
{
    const QDateTime base(QDate(2020, 1, 1), QTime(9, 0), Qt::UTC);
    for (int i = 0; i < kRecordings; ++i) {
        Recording r = makeRecording(i, base);
        const QString folder = QDir(root).filePath(QStringLiteral("Recording %1").arg(i, 5, 10, QLatin1Char('0')));
        if (!QDir().mkpath(folder + u'/' + QLatin1String(kSourceFolderName)))
            return false;
        r.folder = QUrl::fromLocalFile(folder);
        if (!writeFileAtomically(folder + u'/' + QLatin1String(kMetadataFileName), JsonCoding::encode(r)))
            return false;
        if (r.transcriptState == TranscriptState::done)
            (void)store.saveTranscript(makeTranscript(r), r);
    }
    return true;
}

// The same listing the store does, with only the JSON parse per file: no decoding into values, no sorting.
int referenceScan(const QString &root)
{
    const QDir dir(root);
    int parsed = 0;
    for (const QString &entry : dir.entryList(QDir::AllEntries | QDir::NoDotAndDotDot, QDir::NoSort)) {
        QFile file(dir.filePath(entry) + u'/' + QLatin1String(kMetadataFileName));
        if (!file.open(QIODevice::ReadOnly))
            continue;
        if (QJsonDocument::fromJson(file.readAll()).isObject())
            ++parsed;
    }
    return parsed;
}

double bestSeconds(const std::function<void()> &run)
{
    double best = std::numeric_limits<double>::max();
    for (int i = 0; i < kRuns; ++i) {
        QElapsedTimer timer;
        timer.start();
        run();
        best = std::min(best, double(timer.nsecsElapsed()) / 1e9);
    }
    return best;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QTemporaryDir dir;
    if (!dir.isValid()) {
        std::fprintf(stderr, "library_scale: no temporary folder: %s\n", qUtf8Printable(dir.errorString()));
        return 2;
    }
    const QString root = dir.filePath(QStringLiteral("Library"));
    RecordingStore store([root] { return root; });
    if (!QDir().mkpath(root) || !buildLibrary(root, store)) {
        std::fprintf(stderr, "library_scale: could not write the library under %s\n", qUtf8Printable(root));
        return 2;
    }

    const double reload = bestSeconds([&store] { store.reload(); });
    int parsed = 0;
    const double reference = bestSeconds([&] { parsed = referenceScan(root); });
    // A benchmark that silently lists fewer recordings would look fast for the wrong reason.
    if (store.count() != kRecordings || parsed != kRecordings) {
        std::fprintf(stderr, "library_scale: listed %d and parsed %d of %d recordings\n", store.count(), parsed,
                     kRecordings);
        return 2;
    }

    const bool met = reload < 1.0;
    std::printf("recordings: %d\n", store.count());
    std::printf("reload seconds (best of %d): %.3f\n", kRuns, reload);
    std::printf("recordings per second: %.0f\n", store.count() / reload);
    std::printf("reference seconds (read + QJsonDocument, best of %d): %.3f\n", kRuns, reference);
    std::printf("ratio reload/reference: %.2f\n", reload / reference);
    std::printf("verdict: %s - aim is 10,000 recordings in under one second (warm file cache)\n",
                met ? "MET" : "MISSED");
    return met ? 0 : 1;
}
