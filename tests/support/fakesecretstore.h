#pragma once

#include "library/secretstore.h"

#include <QMap>
#include <QPair>

namespace qm::test {

// An in-memory keyring for logic that only needs "a place for secrets"; keyring behaviour itself is tested
// against the real gnome-keyring.
class FakeSecretStore : public SecretStore {
public:
    std::optional<QString> get(const QString &account, const QString &service) override;
    bool set(const std::optional<QString> &value, const QString &account) override;

    // Seeds an item under any service, as an earlier installation would have left it.
    void put(const QString &service, const QString &account, const QString &value);

    QMap<QPair<QString, QString>, QString> items; // (service, account) → secret
    int writes = 0;
};

} // namespace qm::test
