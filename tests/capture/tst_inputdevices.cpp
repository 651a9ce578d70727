#include "capture/pulse/pulseinputdevices.h"

#include <QProcess>
#include <QSignalSpy>
#include <QTest>

using namespace qm;

namespace {

QByteArray pactl(const QString &line)
{
    QProcess process;
    process.start(QStringLiteral("pactl"), line.split(u' '));
    process.waitForFinished(10000);
    return process.exitCode() == 0 ? process.readAllStandardOutput().trimmed() : QByteArray();
}

QStringList names(const InputDeviceList &list)
{
    QStringList out;
    for (const InputDevice &device : list.devices())
        out.append(device.name);
    return out;
}

} // namespace

// Runs in the private session (scripts/session), whose sound server has the input "microphone".
class TestInputDevices : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void followsDevicesAndNeverOffersAMonitor()
    {
        PulseInputDevices list;
        QTRY_VERIFY(names(list).contains(QStringLiteral("microphone")));
        const InputDevice microphone = list.devices().at(names(list).indexOf(QStringLiteral("microphone")));
        QCOMPARE(microphone.description, QStringLiteral("Microphone"));
        for (const QString &name : names(list))
            QVERIFY2(!name.endsWith(QLatin1String(".monitor")), qPrintable(name));

        // An output brings only a monitor, which is not an input.
        const QByteArray sink = pactl(QStringLiteral("load-module module-null-sink sink_name=extra"));
        QVERIFY(!sink.isEmpty());
        const QByteArray source =
            pactl(QStringLiteral("load-module module-remap-source master=extra.monitor "
                                 "source_name=headset source_properties=device.description=Headset"));
        QVERIFY(!source.isEmpty());
        QTRY_VERIFY(names(list).contains(QStringLiteral("headset")));
        QVERIFY(!names(list).contains(QStringLiteral("extra.monitor")));

        QSignalSpy changed(&list, &InputDeviceList::devicesChanged);
        pactl(QStringLiteral("unload-module ") + QString::fromLatin1(source));
        pactl(QStringLiteral("unload-module ") + QString::fromLatin1(sink));
        QTRY_VERIFY(!names(list).contains(QStringLiteral("headset")));
        QVERIFY(names(list).contains(QStringLiteral("microphone")));
        QVERIFY(changed.count() >= 1);
    }
};

QTEST_GUILESS_MAIN(TestInputDevices)
#include "tst_inputdevices.moc"
