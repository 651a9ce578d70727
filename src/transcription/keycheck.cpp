#include "transcription/keycheck.h"

#include "transcription/assemblyaiengine.h"
#include "transcription/deepgramengine.h"
#include "transcription/elevenlabsengine.h"
#include "transcription/enginesupport.h"
#include "transcription/http.h"
#include "transcription/openaiengine.h"

#include <QCoreApplication>
#include <QUrlQuery>

namespace qm::KeyCheck {

namespace {

QString tr(const char *text)
{
    return QCoreApplication::translate("qm::KeyCheck", text);
}

// A key check is a small question; a service that takes longer than this is not going to answer it.
constexpr HttpLimits kLimits{std::chrono::seconds(20), std::chrono::seconds(30)};

QNetworkRequest requestFor(TranscriptionProvider provider, const QString &key, const QUrl &base)
{
    const QByteArray secret = key.toUtf8();
    switch (provider) {
    case TranscriptionProvider::deepgram: {
        QNetworkRequest request(engine::endpoint(base, QStringLiteral("/v1/projects")));
        request.setRawHeader("Authorization", "Token " + secret);
        return request;
    }
    case TranscriptionProvider::openAI: {
        QNetworkRequest request(engine::endpoint(base, QStringLiteral("/v1/models")));
        request.setRawHeader("Authorization", "Bearer " + secret);
        return request;
    }
    case TranscriptionProvider::assemblyAI: {
        QUrl url = engine::endpoint(base, QStringLiteral("/transcript"));
        url.setQuery(QStringLiteral("limit=1"));
        QNetworkRequest request(url);
        request.setRawHeader("authorization", secret);
        return request;
    }
    case TranscriptionProvider::elevenLabs: {
        QNetworkRequest request(engine::endpoint(base, QStringLiteral("/v1/user")));
        request.setRawHeader("xi-api-key", secret);
        return request;
    }
    case TranscriptionProvider::onDevice:
        break;
    }
    return QNetworkRequest();
}

} // namespace

QUrl defaultBase(TranscriptionProvider provider)
{
    switch (provider) {
    case TranscriptionProvider::deepgram:
        return DeepgramEngine::defaultBase();
    case TranscriptionProvider::openAI:
        return OpenAIEngine::defaultBase();
    case TranscriptionProvider::assemblyAI:
        return AssemblyAIEngine::defaultBase();
    case TranscriptionProvider::elevenLabs:
        return ElevenLabsEngine::defaultBase();
    case TranscriptionProvider::onDevice:
        break;
    }
    return {};
}

QCoro::Task<expected<void, TranscriptionError>> check(TranscriptionProvider provider, QString key, QUrl base)
{
    if (provider == TranscriptionProvider::onDevice)
        co_return expected<void, TranscriptionError>{};
    if (base.isEmpty())
        base = defaultBase(provider);
    QNetworkRequest request = requestFor(provider, key.trimmed(), base);
    auto asking = HTTP::send(std::move(request), std::nullopt, shortName(provider), kLimits);
    const auto answer = co_await asking;
    if (!answer)
        co_return unexpected(answer.error());
    co_return expected<void, TranscriptionError>{};
}

QString message(const expected<void, TranscriptionError> &result)
{
    if (result)
        return tr("Key works");
    const TranscriptionError &error = result.error();
    // The engine's sentence for a silent service talks about a cancelled transcription; here nothing was.
    if (error.kind == TranscriptionError::Kind::timedOut)
        return error.service + tr(" didn't answer in time. Try again in a moment.");
    return error.description();
}

} // namespace qm::KeyCheck
