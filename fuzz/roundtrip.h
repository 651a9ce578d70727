#pragma once

// The property both fuzz targets check, shared with the test that replays their findings: whatever the
// decoders accept must come back from one save and reload as the value the store would have written.

#include "library/jsoncoding.h"

#include <cmath>

namespace qm::fuzz {

// A saved file holds dates in UTC with whole seconds (cut, not rounded) and 0 for non-finite numbers,
// so those are the only changes a save may make.
inline QDateTime asSaved(const QDateTime &when)
{
    const qint64 ms = when.toMSecsSinceEpoch();
    const qint64 seconds = ms / 1000 - (ms % 1000 < 0 ? 1 : 0);
    return QDateTime::fromSecsSinceEpoch(seconds, Qt::UTC);
}

inline double asSaved(double value)
{
    return std::isfinite(value) ? value : 0.0;
}

inline Recording asSaved(Recording r)
{
    r.startedAt = asSaved(r.startedAt);
    r.duration = asSaved(r.duration);
    if (r.driveSyncedAt)
        r.driveSyncedAt = asSaved(*r.driveSyncedAt);
    return r;
}

inline Transcript asSaved(Transcript t)
{
    t.createdAt = asSaved(t.createdAt);
    for (TranscriptSegment &s : t.segments) {
        s.start = asSaved(s.start);
        s.end = asSaved(s.end);
    }
    return t;
}

// Empty when `json` is rejected or survives the round trip; otherwise what broke, with the bytes written.
template <class T>
QString roundTripFailure(const QByteArray &json, expected<T, DecodeError> (*decode)(const QByteArray &))
{
    const expected<T, DecodeError> first = decode(json);
    if (!first)
        return {};
    const QByteArray written = JsonCoding::encode(*first);
    const expected<T, DecodeError> second = decode(written);
    QString failure;
    if (!second)
        failure = QStringLiteral("reading back what was written fails: ") + second.error().description();
    else if (!(*second == asSaved(*first)))
        failure = QStringLiteral("the value read back differs from the one written");
    else if (JsonCoding::encode(*second) != written)
        failure = QStringLiteral("writing the value read back gives different bytes");
    if (!failure.isEmpty())
        failure += QStringLiteral("\nwritten:\n") + QString::fromUtf8(written);
    return failure;
}

inline QString recordingRoundTripFailure(const QByteArray &json)
{
    return roundTripFailure(json, &JsonCoding::decodeRecording);
}

inline QString transcriptRoundTripFailure(const QByteArray &json)
{
    return roundTripFailure(json, &JsonCoding::decodeTranscript);
}

} // namespace qm::fuzz
