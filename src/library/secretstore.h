#pragma once

#include <QString>

#include <optional>

namespace qm {

// Where API keys live. The desktop keyring implements it (app/keychain.h); the library only needs this much.
// Calls are synchronous and bounded in time; a keyring that is missing or does not answer reads as absent.
class SecretStore {
public:
    virtual ~SecretStore() = default;

    // The secret stored for `account` under `service`, or nothing.
    virtual std::optional<QString> get(const QString &account, const QString &service) = 0;
    // Replaces this program's secret for `account`; an absent value removes it. False when it could not be stored.
    virtual bool set(const std::optional<QString> &value, const QString &account) = 0;
};

} // namespace qm
