#include "app/keychain.h"

#include "library/settingsvalues.h"

#include <libsecret/secret.h>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

namespace qm {

namespace {

// Matching ignores the schema name so items written by earlier installations are found by attributes alone.
const SecretSchema kSchema = {
    "app.quillmoor.Quillmoor.ApiKey",
    SECRET_SCHEMA_DONT_MATCH_NAME,
    {
        {"service", SECRET_SCHEMA_ATTRIBUTE_STRING},
        {"account", SECRET_SCHEMA_ATTRIBUTE_STRING},
        {nullptr, SECRET_SCHEMA_ATTRIBUTE_STRING},
    },
    0,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
};

struct GObjectUnref {
    void operator()(gpointer object) const { g_object_unref(object); }
};
using CancellablePtr = std::unique_ptr<GCancellable, GObjectUnref>;

struct ErrorFree {
    void operator()(GError *error) const { g_error_free(error); }
};
using ErrorPtr = std::unique_ptr<GError, ErrorFree>;

struct PasswordFree {
    void operator()(gchar *password) const { secret_password_free(password); }
};
using PasswordPtr = std::unique_ptr<gchar, PasswordFree>;

// What one keyring call produced: whether the keyring answered, and the secret if one was asked for.
struct Outcome {
    bool reached = false;
    std::optional<QString> secret;
};

// Runs `work` on its own thread and waits at most `timeout`. The shared state outlives an abandoned call:
// the cancelled thread finishes on its own and drops it.
template <class Work> Outcome runBounded(std::chrono::milliseconds timeout, Work work)
{
    struct Shared {
        std::mutex mutex;
        std::condition_variable done;
        bool finished = false;
        Outcome outcome;
        CancellablePtr cancellable{g_cancellable_new()};
    };
    auto shared = std::make_shared<Shared>();
    std::thread([shared, work = std::move(work)]() mutable {
        Outcome outcome = work(shared->cancellable.get());
        const std::lock_guard lock(shared->mutex);
        shared->outcome = std::move(outcome);
        shared->finished = true;
        shared->done.notify_all();
    }).detach();

    std::unique_lock lock(shared->mutex);
    if (!shared->done.wait_for(lock, timeout, [&] { return shared->finished; })) {
        g_cancellable_cancel(shared->cancellable.get());
        return {};
    }
    return shared->outcome;
}

} // namespace

Keychain::Keychain(std::chrono::milliseconds timeout, QObject *parent) : QObject(parent), m_timeout(timeout) {}

QString Keychain::itemLabel(const QString &account)
{
    return QStringLiteral("Quillmoor – ") + account;
}

std::optional<QString> Keychain::get(const QString &account, const QString &service)
{
    const QByteArray serviceText = service.toUtf8();
    const QByteArray accountText = account.toUtf8();
    const Outcome outcome = runBounded(m_timeout, [serviceText, accountText](GCancellable *cancellable) {
        GError *raw = nullptr;
        PasswordPtr password(secret_password_lookup_sync(&kSchema, cancellable, &raw, "service",
                                                         serviceText.constData(), "account", accountText.constData(),
                                                         nullptr));
        const ErrorPtr error(raw);
        Outcome result;
        result.reached = !error;
        if (password) {
            const QByteArray bytes(password.get());
            const QString text = QString::fromUtf8(bytes);
            // Data that is not valid UTF-8 is not a key this program can use.
            if (text.toUtf8() == bytes)
                result.secret = text;
        }
        return result;
    });
    noteOutcome(outcome.reached);
    return outcome.secret;
}

bool Keychain::set(const std::optional<QString> &value, const QString &account)
{
    const QByteArray serviceText = QByteArray(kKeyringService);
    const QByteArray accountText = account.toUtf8();
    const QByteArray label = itemLabel(account).toUtf8();
    const std::optional<QByteArray> secret = value ? std::optional(value->toUtf8()) : std::nullopt;

    const Outcome outcome = runBounded(m_timeout, [serviceText, accountText, label, secret](GCancellable *cancellable) {
        GError *raw = nullptr;
        // Clearing first keeps exactly one item per account, whatever earlier versions left behind.
        secret_password_clear_sync(&kSchema, cancellable, &raw, "service", serviceText.constData(), "account",
                                   accountText.constData(), nullptr);
        ErrorPtr error(raw);
        raw = nullptr;
        Outcome result;
        if (error)
            return result;
        if (!secret) {
            result.reached = true;
            return result;
        }
        const gboolean stored = secret_password_store_sync(
            &kSchema, SECRET_COLLECTION_DEFAULT, label.constData(), secret->constData(), cancellable, &raw, "service",
            serviceText.constData(), "account", accountText.constData(), nullptr);
        error.reset(raw);
        result.reached = stored && !error;
        return result;
    });
    noteOutcome(outcome.reached);
    return outcome.reached;
}

bool Keychain::probe()
{
    get(QStringLiteral("probe"), QStringLiteral("app.quillmoor.Quillmoor.probe"));
    return m_available;
}

void Keychain::noteOutcome(bool reached)
{
    if (reached == m_available)
        return;
    m_available = reached;
    Q_EMIT availableChanged(m_available);
}

} // namespace qm
