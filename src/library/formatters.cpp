#include "library/formatters.h"

#include <QCoreApplication>
#include <QRegularExpression>

#include <cstdint>

namespace qm::Formatters {

namespace {

std::int64_t wholeSeconds(double seconds)
{
    if (!(seconds > 0)) // also catches NaN
        return 0;
    if (seconds > 1e15)
        return static_cast<std::int64_t>(1e15);
    return static_cast<std::int64_t>(seconds);
}

QString tr(const char *text)
{
    return QCoreApplication::translate("Formatters", text);
}

// Qt has long and short date formats only; the medium one is the long one without the weekday and with
// abbreviated month names ("Mar 4, 2025"), which keeps the locale's own order and separators.
QString mediumDateFormat(const QLocale &locale)
{
    QString format = locale.dateFormat(QLocale::LongFormat);
    static const QRegularExpression leadingWeekday(QStringLiteral("^\\s*dddd[\\s,،]*"));
    static const QRegularExpression otherWeekday(QStringLiteral("[\\s,،]*dddd"));
    format.remove(leadingWeekday);
    format.remove(otherWeekday);
    format.replace(QLatin1String("MMMM"), QLatin1String("MMM"));
    return format.trimmed();
}

QString dateAtTime(const QString &day, const QString &time)
{
    return tr("%1 at %2").arg(day, time);
}

} // namespace

QString timestamp(double seconds)
{
    const std::int64_t s = wholeSeconds(seconds);
    if (s < 3600)
        return QString::asprintf("%02d:%02d", int(s / 60), int(s % 60));
    return QString::asprintf("%lld:%02d:%02d", static_cast<long long>(s / 3600), int(s / 60 % 60), int(s % 60));
}

QString clock(double seconds)
{
    const std::int64_t s = wholeSeconds(seconds);
    if (s < 3600)
        return QString::asprintf("%d:%02d", int(s / 60), int(s % 60));
    return QString::asprintf("%lld:%02d:%02d", static_cast<long long>(s / 3600), int(s / 60 % 60), int(s % 60));
}

QString srtTime(double seconds)
{
    const std::int64_t ms = seconds > 0 && seconds < 1e12 ? static_cast<std::int64_t>(seconds * 1000) : 0;
    return QString::asprintf("%02lld:%02d:%02d,%03d", static_cast<long long>(ms / 3600000), int(ms / 60000 % 60),
                             int(ms / 1000 % 60), int(ms % 1000));
}

QString folderDate(const QDateTime &when)
{
    return QLocale::c().toString(when.toLocalTime(), QStringLiteral("yyyy-MM-dd HH-mm"));
}

QString shortDate(const QDateTime &when, const QLocale &locale, const QDateTime &now)
{
    const QDateTime local = when.toLocalTime();
    const QDate today = (now.isValid() ? now : QDateTime::currentDateTime()).toLocalTime().date();
    const QString time = locale.toString(local.time(), QLocale::ShortFormat);
    const qint64 days = today.daysTo(local.date());
    if (days == 0)
        return dateAtTime(tr("Today"), time);
    if (days == -1)
        return dateAtTime(tr("Yesterday"), time);
    if (days == 1)
        return dateAtTime(tr("Tomorrow"), time);
    return dateAtTime(locale.toString(local.date(), mediumDateFormat(locale)), time);
}

QString longDate(const QDateTime &when, const QLocale &locale)
{
    const QDateTime local = when.toLocalTime();
    return dateAtTime(locale.toString(local.date(), QLocale::LongFormat),
                      locale.toString(local.time(), QLocale::ShortFormat));
}

QString duration(double seconds)
{
    const std::int64_t s = wholeSeconds(seconds);
    QStringList parts;
    if (s >= 3600) {
        parts << tr("%1h").arg(s / 3600);
        if (s / 60 % 60)
            parts << tr("%1m").arg(s / 60 % 60);
    } else {
        if (s / 60)
            parts << tr("%1m").arg(s / 60);
        if (s % 60)
            parts << tr("%1s").arg(s % 60);
    }
    if (parts.isEmpty())
        return tr("%1s").arg(s);
    return parts.join(QLatin1Char(' '));
}

} // namespace qm::Formatters
