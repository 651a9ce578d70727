#pragma once

#include "library/enumtext.h"
#include "library/settingsvalues.h"

#include <QCheckBox>
#include <QComboBox>
#include <QLineEdit>
#include <QSignalBlocker>

// Ties a control to one observable setting: the control shows the setting's value now and whenever it changes
// (also when another program changed the file), and the user's change is written at once. Writing a value
// equal to the current one is a no-op in the settings objects, so the two directions can't chase each other.
namespace qm::ui::bind {

template <class Source, class Changed>
void check(QCheckBox *box, Source *source, bool (Source::*get)() const, void (Source::*set)(bool), Changed changed)
{
    const auto show = [box, source, get] {
        const QSignalBlocker quiet(box);
        box->setChecked((source->*get)());
    };
    show();
    // Read back after writing: a setting that couldn't be changed (launch at login) shows what really holds.
    QObject::connect(box, &QCheckBox::toggled, source, [source, set, show](bool on) {
        (source->*set)(on);
        show();
    });
    QObject::connect(source, changed, box, show);
}

// A new check box saying `text`, named `name` (the setting's key, for tests and accessibility), tied as above.
template <class Source, class Changed>
QCheckBox *checkBox(const QString &text, const char *name, Source *source, bool (Source::*get)() const,
                    void (Source::*set)(bool), Changed changed)
{
    auto *box = new QCheckBox(text);
    box->setObjectName(QLatin1String(name));
    check(box, source, get, set, changed);
    return box;
}

// The combo box lists every case of `E` by its label, in the enumeration's order.
template <class E, class Source, class Changed>
void choice(QComboBox *combo, Source *source, E (Source::*get)() const, void (Source::*set)(E), Changed changed)
{
    for (E each : allCases<E>())
        combo->addItem(label(each), rawValue(each));
    const auto show = [combo, source, get] {
        const QSignalBlocker quiet(combo);
        combo->setCurrentIndex(combo->findData(rawValue((source->*get)())));
    };
    show();
    QObject::connect(combo, &QComboBox::activated, source, [combo, source, set](int index) {
        if (const std::optional<E> value = fromRawValue<E>(combo->itemData(index).toString()))
            (source->*set)(*value);
    });
    QObject::connect(source, changed, combo, show);
}

// Written when editing finishes (Return, or focus leaving the field), not at every key press. An outside
// change doesn't overwrite what the user is in the middle of typing.
template <class Source, class Changed>
void text(QLineEdit *field, Source *source, QString (Source::*get)() const, void (Source::*set)(const QString &),
          Changed changed)
{
    field->setText((source->*get)());
    QObject::connect(field, &QLineEdit::editingFinished, source, [field, source, set] {
        if (field->isModified())
            (source->*set)(field->text());
        field->setModified(false);
    });
    QObject::connect(source, changed, field, [field, source, get] {
        if (!field->isModified())
            field->setText((source->*get)());
    });
}

} // namespace qm::ui::bind
