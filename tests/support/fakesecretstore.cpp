#include "support/fakesecretstore.h"

#include "library/settingsvalues.h"

namespace qm::test {

std::optional<QString> FakeSecretStore::get(const QString &account, const QString &service)
{
    const auto it = items.constFind({service, account});
    if (it == items.cend())
        return std::nullopt;
    return *it;
}

bool FakeSecretStore::set(const std::optional<QString> &value, const QString &account)
{
    ++writes;
    const QPair<QString, QString> key{QLatin1String(kKeyringService), account};
    items.remove(key);
    if (value)
        items.insert(key, *value);
    return true;
}

void FakeSecretStore::put(const QString &service, const QString &account, const QString &value)
{
    items.insert({service, account}, value);
}

} // namespace qm::test
