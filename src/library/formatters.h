#pragma once

#include <QDateTime>
#include <QLocale>
#include <QString>

namespace qm::Formatters {

// Time texts. Seconds are truncated toward zero; negative values count as zero.
QString timestamp(double seconds); // "07:05", "1:00:00"
QString clock(double seconds);     // "7:05", "1:00:00"
QString srtTime(double seconds);   // "01:02:03,456", milliseconds truncated

// "yyyy-MM-dd HH-mm" in local time, independent of the user's locale and 12/24-hour choice.
QString folderDate(const QDateTime &when);

// Medium date with short time, with relative day words ("Today at 13:05"), in `locale`.
// `now` decides what counts as today; it defaults to the current moment.
QString shortDate(const QDateTime &when, const QLocale &locale = QLocale(), const QDateTime &now = QDateTime());
// Full date with short time, in `locale`.
QString longDate(const QDateTime &when, const QLocale &locale = QLocale());
// Abbreviated duration: hours and minutes from one hour on ("1h 5m"), else minutes and seconds ("12m 4s").
QString duration(double seconds);

} // namespace qm::Formatters
