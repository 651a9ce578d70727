#pragma once

#include "capture/inputdevices.h"
#include "capture/screensource.h"

#include <QList>
#include <QString>
#include <QVariant>

namespace qm::ui {

// One entry of a picker: what it says and the value it stores.
struct Choice {
    QString text;
    QVariant value;
    bool operator==(const Choice &) const = default;
};

// "System default" (stored as ""), then each input by its description (two inputs with the same description
// are told apart by their names). A stored input that is not connected now stays listed, marked, so that
// opening the window never changes the setting.
QList<Choice> microphoneChoices(const QList<InputDevice> &devices, const QString &stored);

// "Automatic – the screen the pointer is on" (0), then each monitor by name with its size; a stored monitor
// that is not connected stays listed, marked.
QList<Choice> displayChoices(const QList<DisplayInfo> &displays, int stored);

// The three offered frame rates with their labels, and a stored rate that is none of them as it is.
QList<Choice> frameRateChoices(int stored);

// Where `value` is among `choices`; -1 when it isn't.
int indexOf(const QList<Choice> &choices, const QVariant &value);

} // namespace qm::ui
