#include "library/formatters.h"

#include <QTest>

#include <limits>

using namespace qm;

class TestFormatters : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        // A zone away from UTC, so a missing conversion to local time shows up.
        qputenv("TZ", "Asia/Kolkata");
    }

    void timeTexts_data()
    {
        QTest::addColumn<double>("seconds");
        QTest::addColumn<QString>("timestamp");
        QTest::addColumn<QString>("clock");
        QTest::addColumn<QString>("srt");
        QTest::addColumn<QString>("duration");

        const auto row = [](const char *name, double seconds, const char *timestamp, const char *clock, const char *srt,
                            const char *duration) {
            QTest::newRow(name) << seconds << QString::fromLatin1(timestamp) << QString::fromLatin1(clock)
                                << QString::fromLatin1(srt) << QString::fromLatin1(duration);
        };
        row("zero", 0, "00:00", "0:00", "00:00:00,000", "0s");
        row("whole minutes", 180, "03:00", "3:00", "00:03:00,000", "3m");
        row("minutes and seconds", 425, "07:05", "7:05", "00:07:05,000", "7m 5s");
        row("truncated, not rounded", 59.999, "00:59", "0:59", "00:00:59,999", "59s");
        row("last second of the hour", 3599.9, "59:59", "59:59", "00:59:59,900", "59m 59s");
        row("one hour", 3600, "1:00:00", "1:00:00", "01:00:00,000", "1h");
        row("seconds dropped from one hour on", 3723.4567, "1:02:03", "1:02:03", "01:02:03,456", "1h 2m");
        row("ten hours", 36061, "10:01:01", "10:01:01", "10:01:01,000", "10h 1m");
        row("negative", -5.5, "00:00", "0:00", "00:00:00,000", "0s");
        row("not a number", std::numeric_limits<double>::quiet_NaN(), "00:00", "0:00", "00:00:00,000", "0s");
    }

    void timeTexts()
    {
        QFETCH(double, seconds);
        QTEST(Formatters::timestamp(seconds), "timestamp");
        QTEST(Formatters::clock(seconds), "clock");
        QTEST(Formatters::srtTime(seconds), "srt");
        QTEST(Formatters::duration(seconds), "duration");
    }

    void folderDate_data()
    {
        QTest::addColumn<QDateTime>("when");
        QTest::addColumn<QString>("expected");

        const QDateTime morning(QDate(2025, 3, 4), QTime(9, 7, 59), Qt::LocalTime);
        QTest::newRow("morning keeps the leading zero") << morning << QStringLiteral("2025-03-04 09-07");
        QTest::newRow("given in UTC") << morning.toUTC() << QStringLiteral("2025-03-04 09-07");
        QTest::newRow("evening in 24-hour form")
            << QDateTime(QDate(2024, 12, 31), QTime(21, 30), Qt::LocalTime) << QStringLiteral("2024-12-31 21-30");
    }

    void folderDate()
    {
        QFETCH(QDateTime, when);
        // Folder names must not follow the user's locale: neither its digits nor its 12-hour clock.
        QLocale::setDefault(QLocale(QLocale::Arabic, QLocale::Egypt));
        const QString text = Formatters::folderDate(when);
        QLocale::setDefault(QLocale::c());
        QTEST(text, "expected");
    }

    void shortDate_data()
    {
        QTest::addColumn<QDateTime>("when");
        QTest::addColumn<QDateTime>("now");
        QTest::addColumn<QLocale>("locale");
        QTest::addColumn<QString>("expected");

        const auto at = [](int month, int day, int hour, int minute) {
            return QDateTime(QDate(2025, month, day), QTime(hour, minute), Qt::LocalTime);
        };
        const QLocale uk(QLocale::English, QLocale::UnitedKingdom);
        const QLocale us(QLocale::English, QLocale::UnitedStates);
        QTest::newRow("earlier today") << at(3, 4, 0, 10) << at(3, 4, 23, 50) << uk << QStringLiteral("Today at 00:10");
        QTest::newRow("today given in UTC, still yesterday there")
            << at(3, 4, 0, 30).toUTC() << at(3, 4, 9, 0) << uk << QStringLiteral("Today at 00:30");
        QTest::newRow("yesterday by calendar, minutes ago")
            << at(3, 3, 23, 50) << at(3, 4, 0, 10) << uk << QStringLiteral("Yesterday at 23:50");
        QTest::newRow("two days ago") << at(3, 2, 13, 5) << at(3, 4, 8, 0) << uk
                                      << QStringLiteral("2 Mar 2025 at 13:05");
        QTest::newRow("last year") << at(12, 31, 8, 0).addYears(-1) << at(3, 4, 8, 0) << uk
                                   << QStringLiteral("31 Dec 2024 at 08:00");
        QTest::newRow("locale order, no weekday")
            << at(3, 4, 13, 5) << at(3, 10, 12, 0) << us << QStringLiteral("Mar 4, 2025 at 1:05 PM");
    }

    void shortDate()
    {
        QFETCH(QDateTime, when);
        QFETCH(QDateTime, now);
        QFETCH(QLocale, locale);
        QTEST(Formatters::shortDate(when, locale, now), "expected");
    }
};

QTEST_APPLESS_MAIN(TestFormatters)
#include "tst_formatters.moc"
