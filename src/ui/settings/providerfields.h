#pragma once

#include "library/settingsvalues.h"

#include <QString>
#include <QStringList>

namespace qm::ui {

// The rules of the API-key field. The field never shows a stored key: when one is stored it holds `mask()`
// (drawn as dots, like any password), so the user sees that a key is there, can replace it by typing over it,
// and can remove it by clearing the field.
namespace KeyField {

// The stand-in text for a stored key.
QString mask();

// What finishing an edit (Return, or leaving the field) does with the field's text.
struct Edit {
    enum class Kind { nothing, store, remove };
    Kind kind = Kind::nothing;
    QString key; // for store: the key without surrounding blanks
    bool operator==(const Edit &) const = default;
};
Edit editFor(const QString &text, bool stored);

// The key "Check Key" sends: a key being typed, else nothing (the stored one is read from the keyring).
QString typedKey(const QString &text);

// The line under the field: whether a key is stored, or that none can be.
QString status(TranscriptionProvider provider, bool keyringAvailable, bool stored);

} // namespace KeyField

// The hint the Model field shows while empty, and the model names offered as the user types.
QString modelHint(TranscriptionProvider provider);
QStringList modelSuggestions(TranscriptionProvider provider);

} // namespace qm::ui
