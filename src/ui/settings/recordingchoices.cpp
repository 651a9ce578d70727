#include "ui/settings/recordingchoices.h"

#include <QCoreApplication>

namespace qm::ui {

namespace {

QString tr(const char *text)
{
    return QCoreApplication::translate("qm::ui::RecordingChoices", text);
}

} // namespace

QList<Choice> microphoneChoices(const QList<InputDevice> &devices, const QString &stored)
{
    QList<Choice> choices{{tr("System default"), QString()}};
    bool storedPresent = stored.isEmpty();
    for (const InputDevice &device : devices) {
        const bool shared = std::count_if(devices.cbegin(), devices.cend(), [&](const InputDevice &other) {
                                return other.description == device.description;
                            }) > 1;
        QString text = device.description.isEmpty() ? device.name : device.description;
        if (shared)
            text += QStringLiteral(" (") + device.name + u')';
        choices.append({text, device.name});
        storedPresent = storedPresent || device.name == stored;
    }
    if (!storedPresent)
        choices.append({tr("%1 (not connected)").arg(stored), stored});
    return choices;
}

QList<Choice> displayChoices(const QList<DisplayInfo> &displays, int stored)
{
    QList<Choice> choices{{tr("Automatic \u2013 the screen the pointer is on"), 0}};
    bool storedPresent = stored == 0;
    for (const DisplayInfo &display : displays) {
        const QString size =
            QStringLiteral("%1 \u00d7 %2").arg(display.geometry.width()).arg(display.geometry.height());
        choices.append({QStringLiteral("%1 (%2)").arg(display.name, size), int(display.id)});
        storedPresent = storedPresent || int(display.id) == stored;
    }
    if (!storedPresent)
        choices.append({tr("Display %1 (not connected)").arg(stored), stored});
    return choices;
}

QList<Choice> frameRateChoices(int stored)
{
    QList<Choice> choices{
        {tr("10 fps \u2013 smallest files"), 10},
        {tr("15 fps \u2013 recommended"), 15},
        {tr("30 fps \u2013 smooth"), 30},
    };
    if (indexOf(choices, stored) < 0)
        choices.append({tr("%1 fps").arg(stored), stored});
    return choices;
}

int indexOf(const QList<Choice> &choices, const QVariant &value)
{
    for (qsizetype i = 0; i < choices.size(); ++i) {
        if (choices[i].value == value)
            return int(i);
    }
    return -1;
}

} // namespace qm::ui
