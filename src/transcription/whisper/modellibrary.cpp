#include "transcription/whisper/modellibrary.h"

#include <QCoroFuture>
#include <QCoroNetworkReply>
#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QPointer>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTimer>
#include <QtConcurrent/QtConcurrentRun>

#include <array>
#include <cstring>
#include <filesystem>
#include <memory>

namespace qm::whisper {

namespace {

constexpr std::uint32_t ggmlMagic = 0x67676d6c;
constexpr int englishVocabularySize = 51864;

struct Published {
    const char *name;
    const char *sha1; // from the publisher's list; nullptr where it publishes none
};

// The full-precision files carry the publisher's SHA-1; the quantized forms are published without one.
constexpr std::array<Published, 8> checksums{{
    {"tiny", "bd577a113a864445d4c299885e0cb97d4ba92b5f"},
    {"tiny.en", "c78c86eb1a8faa21b369bcd33207cc90d64ae9df"},
    {"base", "465707469ff3a37a2b9b8d8f89f2f99de7299dac"},
    {"base.en", "137c40403d78fd54d454da0f9bd998f78703390c"},
    {"small", "55356645c2b361a969dfd0ef2c5a50d530afd8d5"},
    {"small.en", "db8a495a91d927739e50b3fc1cc4c6b8f6c2d022"},
    {"medium", "fd9727b6e1217c2f614f9b698455c4ffd82463b4"},
    {"medium.en", "8c30f0e44ce9560643ebd10bbe50cd20eafd3723"},
}};

QByteArray publishedChecksum(const QString &name)
{
    for (const auto &entry : checksums)
        if (name == QLatin1String(entry.name))
            return QByteArray(entry.sha1);
    return {};
}

QString fileNameFor(const QString &name)
{
    return QStringLiteral("ggml-") + name + QStringLiteral(".bin");
}

bool isEnglish(const std::optional<QString> &language)
{
    if (!language)
        return false;
    const QString code = language->trimmed().toLower();
    return code == QLatin1String("en") || code.startsWith(QLatin1String("en-")) ||
           code.startsWith(QLatin1String("en_"));
}

// The vocabulary size a local model states, read without loading the model; 0 when it can't be told.
qint64 localVocabularySize(const QString &path)
{
    const QFileInfo info(path);
    if (info.isFile()) {
        QFile file(path);
        std::array<char, 8> header{};
        if (!file.open(QIODevice::ReadOnly) || file.read(header.data(), header.size()) != qint64(header.size()))
            return 0;
        std::uint32_t magic = 0;
        std::int32_t vocabulary = 0;
        std::memcpy(&magic, header.data(), 4);
        std::memcpy(&vocabulary, header.data() + 4, 4);
        return magic == ggmlMagic ? vocabulary : 0;
    }
    const QDir directory(path);
    if (QFile json(directory.filePath(QStringLiteral("vocabulary.json"))); json.open(QIODevice::ReadOnly))
        return QJsonDocument::fromJson(json.readAll()).array().size();
    if (QFile text(directory.filePath(QStringLiteral("vocabulary.txt"))); text.open(QIODevice::ReadOnly))
        return text.readAll().count('\n');
    return 0;
}

struct ReplyDeleter {
    void operator()(QNetworkReply *reply) const
    {
        reply->disconnect();
        reply->deleteLater();
    }
};

// What a finished download holds, worked out on a thread of its own: hashing a model of a gigabyte or more
// would otherwise stall the user interface for seconds.
struct Inspection {
    QByteArray sha1;
    bool hasMagic = false;
    QString error;
};

Inspection inspect(const QString &path)
{
    Inspection result;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        result.error = file.errorString();
        return result;
    }
    std::uint32_t magic = 0;
    result.hasMagic = file.peek(reinterpret_cast<char *>(&magic), 4) == 4 && magic == ggmlMagic;
    QCryptographicHash hash(QCryptographicHash::Sha1);
    if (!hash.addData(&file))
        result.error = file.errorString();
    result.sha1 = hash.result().toHex();
    return result;
}

} // namespace

ModelLibrary::ModelLibrary(QNetworkAccessManager &network, QString directory, QUrl baseUrl)
    : m_network(network), m_directory(std::move(directory)), m_baseUrl(std::move(baseUrl))
{}

const QList<ModelLibrary::Published> &ModelLibrary::catalog()
{
    // Sizes of the published files, for the user to judge a download by.
    static const QList<Published> models{
        {QStringLiteral("tiny"), 77'691'713},      {QStringLiteral("tiny.en"), 77'704'715},
        {QStringLiteral("base"), 147'951'465},     {QStringLiteral("base.en"), 147'964'211},
        {QStringLiteral("small"), 487'601'967},    {QStringLiteral("small.en"), 487'614'201},
        {QStringLiteral("medium"), 1'533'763'059}, {QStringLiteral("medium.en"), 1'533'774'781},
    };
    return models;
}

QString ModelLibrary::defaultDirectory()
{
    return QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation) + QStringLiteral("/Quillmoor/models");
}

QUrl ModelLibrary::defaultBaseUrl()
{
    return QUrl(QStringLiteral("https://huggingface.co/ggerganov/whisper.cpp/resolve/main/"));
}

QString ModelLibrary::chosenModel(const QString &setting, const std::optional<QString> &language)
{
    const QString chosen = setting.trimmed();
    if (!chosen.isEmpty())
        return chosen;
    return isEnglish(language) ? QStringLiteral("base.en") : QStringLiteral("base");
}

bool ModelLibrary::isPublishedName(const QString &model)
{
    // medium's 5-bit form is published as q5_0, the smaller ones' as q5_1.
    static const QRegularExpression names(
        QStringLiteral(R"(^(?:(?:tiny|base|small)(?:\.en)?(?:-q5_1|-q8_0)?|medium(?:\.en)?(?:-q5_0|-q5_1|-q8_0)?)$)"));
    return names.match(model).hasMatch();
}

bool ModelLibrary::isEnglishOnly(const QString &model)
{
    if (isPublishedName(model))
        return model.contains(QLatin1String(".en"));
    const qint64 vocabulary = localVocabularySize(model);
    return vocabulary > 0 && vocabulary <= englishVocabularySize;
}

QString ModelLibrary::pathFor(const QString &model) const
{
    return isPublishedName(model) ? QDir(m_directory).filePath(fileNameFor(model)) : model;
}

bool ModelLibrary::isInstalled(const QString &model) const
{
    const QFileInfo info(pathFor(model));
    return info.isFile() || (info.isDir() && QFileInfo(QDir(info.filePath()), QStringLiteral("model.bin")).isFile());
}

void ModelLibrary::cancel(const QString &model)
{
    if (const auto hook = m_cancels.constFind(model); hook != m_cancels.cend())
        (*hook)();
}

qint64 ModelLibrary::partialBytes(const QString &model) const
{
    if (!isPublishedName(model))
        return 0;
    const QFileInfo part(pathFor(model) + QStringLiteral(".part"));
    return part.isFile() ? part.size() : 0;
}

expected<void, QString> ModelLibrary::remove(const QString &model)
{
    if (!isPublishedName(model))
        return unexpected(QStringLiteral("Only models Quillmoor downloaded can be deleted here."));
    if (m_downloading.contains(model))
        return unexpected(QStringLiteral("The model %1 is being downloaded; cancel the download first.").arg(model));
    for (const QString &path : QStringList{pathFor(model), pathFor(model) + QStringLiteral(".part")}) {
        QFile file(path);
        if (file.exists() && !file.remove())
            return unexpected(QStringLiteral("%1 can't be deleted: %2.").arg(path, file.errorString()));
    }
    return {};
}

QCoro::Task<expected<QString, TranscriptionError>> ModelLibrary::ensure(QString model, DownloadProgress progress)
{
    const QString name = model.trimmed().isEmpty() ? QStringLiteral("base") : model.trimmed();
    if (isInstalled(name))
        co_return pathFor(name);

    if (!isPublishedName(name)) {
        const QFileInfo info(name);
        if (info.isDir())
            co_return unexpected(
                TranscriptionError::modelUnavailable(QStringLiteral("the folder %1 holds no model.bin.").arg(name)));
        if (name.contains(u'/'))
            co_return unexpected(
                TranscriptionError::modelUnavailable(QStringLiteral("the model file %1 doesn't exist.").arg(name)));
        co_return unexpected(TranscriptionError::modelUnavailable(
            QStringLiteral("there is no model called “%1” (the sizes are tiny, base, small and medium).").arg(name)));
    }

    if (m_downloading.contains(name))
        co_return unexpected(TranscriptionError::modelUnavailable(
            QStringLiteral("the model %1 is already being downloaded.").arg(name)));
    if (!QDir().mkpath(m_directory))
        co_return unexpected(
            TranscriptionError::modelUnavailable(QStringLiteral("the folder %1 can't be created.").arg(m_directory)));

    m_downloading.insert(name);
    auto task = download(name, pathFor(name), std::move(progress));
    auto downloaded = co_await task;
    m_downloading.remove(name);
    if (!downloaded)
        co_return unexpected(TranscriptionError::modelUnavailable(downloaded.error()));
    co_return pathFor(name);
}

QCoro::Task<expected<void, QString>> ModelLibrary::download(QString name, QString target, DownloadProgress progress)
{
    const QString fileName = fileNameFor(name);
    auto part = std::make_shared<QFile>(target + QStringLiteral(".part"));
    if (!part->open(QIODevice::ReadWrite))
        co_return unexpected(QStringLiteral("%1 can't be written: %2.").arg(part->fileName(), part->errorString()));
    const qint64 resumeAt = part->size();

    QNetworkRequest request(m_baseUrl.resolved(QUrl(fileName)));
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::NoLessSafeRedirectPolicy);
    // Byte ranges and lengths must count the file itself, not a compressed form of it.
    request.setRawHeader("Accept-Encoding", "identity");
    if (resumeAt > 0)
        request.setRawHeader("Range", "bytes=" + QByteArray::number(resumeAt) + '-');
    std::unique_ptr<QNetworkReply, ReplyDeleter> reply(m_network.get(request));

    // The first bytes decide where they go: a 206 continues the part, a 200 (a server that ignores ranges)
    // starts it over; anything else is not written at all.
    struct State {
        qint64 offset = 0;       // where the bytes of this answer go in the part
        qint64 expectedSize = 0; // of the whole file, when the answer states it
        bool decided = false;
        bool writing = false;
        bool timedOut = false;
        bool cancelled = false;
        bool discardPart = false;
        QString failure;
    };
    auto state = std::make_shared<State>();
    const auto decide = [state, part, resumeAt, target = reply.get()] {
        const int status = target->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
        // Before the headers, and while a redirection is followed, there is nothing to decide yet.
        if (state->decided || status == 0 || (status >= 300 && status < 400))
            return;
        state->decided = true;
        if (status == 206) {
            static const QRegularExpression range(QStringLiteral(R"(^bytes (\d+)-\d+/(\d+)?)"));
            const auto match = range.match(QString::fromLatin1(target->rawHeader("Content-Range")));
            state->writing = match.hasMatch() && match.captured(1).toLongLong() == resumeAt && part->seek(resumeAt);
            state->offset = resumeAt;
            state->expectedSize = match.captured(2).toLongLong();
            if (!state->writing) {
                state->failure = QStringLiteral("the download server resumed at the wrong place.");
                state->discardPart = true;
            }
        } else if (status == 200) {
            state->writing = part->resize(0) && part->seek(0);
            state->expectedSize = target->header(QNetworkRequest::ContentLengthHeader).toLongLong();
        }
    };
    auto *idle = new QTimer(reply.get());
    idle->setSingleShot(true);
    idle->setInterval(m_inactivityLimit);
    QObject::connect(idle, &QTimer::timeout, reply.get(), [state, target = reply.get()] {
        state->timedOut = true;
        // Through the event loop: abort() resumes this coroutine at once.
        QMetaObject::invokeMethod(target, &QNetworkReply::abort, Qt::QueuedConnection);
    });
    idle->start();
    m_cancels.insert(name, [state, target = QPointer<QNetworkReply>(reply.get())] {
        state->cancelled = true;
        if (target)
            QMetaObject::invokeMethod(target, &QNetworkReply::abort, Qt::QueuedConnection);
    });
    QObject::connect(
        reply.get(), &QNetworkReply::readyRead, reply.get(), [state, part, decide, idle, target = reply.get()] {
            idle->start();
            decide();
            const QByteArray bytes = target->readAll();
            if (state->writing && part->write(bytes) != bytes.size()) {
                state->writing = false;
                state->failure =
                    QStringLiteral("the model can't be written to %1: %2.").arg(part->fileName(), part->errorString());
                QMetaObject::invokeMethod(target, &QNetworkReply::abort, Qt::QueuedConnection);
            }
        });
    QObject::connect(reply.get(), &QNetworkReply::downloadProgress, reply.get(),
                     [state, progress, decide, idle](qint64 received, qint64 total) {
                         idle->start();
                         decide();
                         if (progress && state->writing && total > 0)
                             progress(double(state->offset + received) / double(state->offset + total));
                     });

    auto finished = qCoro(reply.get()).waitForFinished();
    co_await finished;
    m_cancels.remove(name);
    decide();
    part->close();
    // An attempt that got nothing leaves nothing behind.
    if (part->size() == 0 || state->discardPart)
        part->remove();

    const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    if (state->cancelled)
        co_return unexpected(QStringLiteral("the download of %1 was cancelled.").arg(fileName));
    if (state->timedOut)
        co_return unexpected(QStringLiteral("the download of %1 stopped responding.").arg(fileName));
    if (!state->failure.isEmpty())
        co_return unexpected(state->failure);
    // 416: nothing is left past the part, which an earlier attempt therefore finished when the server's
    // length agrees; the part is checked below like any download.
    static const QRegularExpression wholeLength(QStringLiteral(R"(^bytes \*/(\d+)$)"));
    const auto length = wholeLength.match(QString::fromLatin1(reply->rawHeader("Content-Range")));
    const bool finishedEarlier =
        status == 416 && resumeAt > 0 && (!length.hasMatch() || length.captured(1).toLongLong() == resumeAt);
    // A connection closed early can look like a finished answer; the length it promised tells them apart.
    const bool complete =
        finishedEarlier || ((status == 200 || status == 206) && reply->error() == QNetworkReply::NoError &&
                            (state->expectedSize <= 0 || QFileInfo(part->fileName()).size() == state->expectedSize));
    if (!complete) {
        if (status != 0 && status != 200 && status != 206)
            co_return unexpected(QStringLiteral("the download server answered %1 for %2.").arg(status).arg(fileName));
        co_return unexpected(QStringLiteral("the download of %1 was interrupted: %2.")
                                 .arg(fileName, reply->error() == QNetworkReply::NoError
                                                    ? QStringLiteral("the connection closed early")
                                                    : reply->errorString()));
    }

    QFuture<Inspection> inspection = QtConcurrent::run([path = part->fileName()] { return inspect(path); });
    const Inspection found = co_await inspection;
    const QByteArray expectedSum = publishedChecksum(name);
    QString problem;
    if (!found.error.isEmpty())
        problem = QStringLiteral("the downloaded %1 can't be read: %2.").arg(fileName, found.error);
    else if (!expectedSum.isEmpty() && found.sha1 != expectedSum)
        problem = QStringLiteral("the downloaded %1 doesn't match its published checksum.").arg(fileName);
    else if (!found.hasMagic)
        problem = QStringLiteral("the downloaded %1 isn't a model file.").arg(fileName);
    if (!problem.isEmpty()) {
        // Resuming a wrong file would only make it longer; the next try starts afresh.
        part->remove();
        co_return unexpected(problem);
    }

    std::error_code renameError;
    std::filesystem::rename(QFile::encodeName(part->fileName()).toStdString(), QFile::encodeName(target).toStdString(),
                            renameError);
    if (renameError)
        co_return unexpected(QStringLiteral("the model can't be moved to %1: %2.")
                                 .arg(target, QString::fromLocal8Bit(renameError.message())));
    if (progress)
        progress(1.0);
    co_return {};
}

} // namespace qm::whisper
