#pragma once

#include "library/secretstore.h"

#include <QObject>

#include <chrono>

namespace qm {

// API keys in the desktop keyring (Secret Service, through libsecret). Items carry the attributes "service"
// and "account" and the label "Quillmoor – " + account.
//
// Every call is synchronous but bounded: it runs on a short-lived helper thread and is abandoned (and
// cancelled) after `timeout`, so a missing, locked or hung keyring never stalls the caller. A failed or
// abandoned call reads as absent / not stored and marks the keyring unavailable until a call succeeds.
class Keychain : public QObject, public SecretStore {
    Q_OBJECT
    Q_PROPERTY(bool available READ isAvailable NOTIFY availableChanged)

public:
    explicit Keychain(std::chrono::milliseconds timeout = std::chrono::seconds(5), QObject *parent = nullptr);

    std::optional<QString> get(const QString &account, const QString &service) override;
    bool set(const std::optional<QString> &value, const QString &account) override;

    // Asks the keyring something harmless to learn whether it answers. Updates isAvailable().
    bool probe();
    bool isAvailable() const { return m_available; }

    // Label given to this program's items.
    static QString itemLabel(const QString &account);

Q_SIGNALS:
    void availableChanged(bool available);

private:
    void noteOutcome(bool reached);

    std::chrono::milliseconds m_timeout;
    bool m_available = true;
};

} // namespace qm
