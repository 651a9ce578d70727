#include "transcription/whisper/modellibrary.h"

#include <QCoroTask>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QNetworkAccessManager>
#include <QNetworkProxy>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTest>

using namespace qm;
using namespace qm::whisper;
using namespace std::chrono_literals;

namespace {

// Serves files over HTTP/1.1 on 127.0.0.1, honouring "Range: bytes=N-" with a 206. Each request closes its
// connection. It can misbehave the ways a real download does: cut the body after some bytes, or stall.
class FileServer : public QObject {
public:
    enum class Fault { none, cutAfter, stallAfter, ignoreRange };

    FileServer()
    {
        m_server.listen(QHostAddress::LocalHost);
        connect(&m_server, &QTcpServer::newConnection, this, [this] {
            while (QTcpSocket *socket = m_server.nextPendingConnection()) {
                connect(socket, &QTcpSocket::readyRead, this, [this, socket] { serve(socket); });
                connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
            }
        });
    }

    QUrl base() const { return QUrl(QStringLiteral("http://127.0.0.1:%1/models/").arg(m_server.serverPort())); }

    QHash<QByteArray, QByteArray> files; // path → contents
    Fault fault = Fault::none;
    qint64 faultAt = 0;
    QList<QByteArray> ranges; // the Range header of each request, empty when none

private:
    void serve(QTcpSocket *socket)
    {
        QByteArray &pending = m_pending[socket];
        pending += socket->readAll();
        if (!pending.contains("\r\n\r\n"))
            return;
        const QByteArray head = pending;
        m_pending.remove(socket);

        const QByteArray path = head.split(' ').value(1);
        static const QRegularExpression rangeHeader(QStringLiteral(R"(\r\nRange: bytes=(\d+)-)"),
                                                    QRegularExpression::CaseInsensitiveOption);
        const auto range = rangeHeader.match(QString::fromLatin1(head));
        ranges.append(range.hasMatch() ? range.captured(1).toLatin1() : QByteArray());

        if (!files.contains(path)) {
            socket->write("HTTP/1.1 404 Not Found\r\nContent-Length: 9\r\nConnection: close\r\n\r\nnot found");
            socket->disconnectFromHost();
            return;
        }
        const QByteArray &file = files[path];
        const qint64 from = range.hasMatch() && fault != Fault::ignoreRange ? range.captured(1).toLongLong() : 0;
        QByteArray answer;
        if (from >= file.size() && from > 0) {
            answer = "HTTP/1.1 416 Range Not Satisfiable\r\nContent-Range: bytes */" + QByteArray::number(file.size()) +
                     "\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
        } else {
            answer = from > 0
                         ? "HTTP/1.1 206 Partial Content\r\nContent-Range: bytes " + QByteArray::number(from) + '-' +
                               QByteArray::number(file.size() - 1) + '/' + QByteArray::number(file.size()) + "\r\n"
                         : QByteArray("HTTP/1.1 200 OK\r\n");
            answer += "Content-Length: " + QByteArray::number(file.size() - from) +
                      "\r\nContent-Type: application/octet-stream\r\nConnection: close\r\n\r\n";
            qint64 length = file.size() - from;
            if (fault == Fault::cutAfter || fault == Fault::stallAfter)
                length = std::min(length, faultAt);
            answer += file.mid(from, length);
        }
        socket->write(answer);
        // A cut closes the connection short of the promised length; a stalled one stays open until the
        // client gives up.
        if (fault != Fault::stallAfter)
            socket->disconnectFromHost();
    }

    QTcpServer m_server;
    QHash<QTcpSocket *, QByteArray> m_pending;
};

// A file that starts like a ggml model, with enough bytes behind it to arrive in several pieces.
QByteArray modelBytes(qint64 size)
{
    QByteArray bytes("lmgg");
    bytes.resize(size);
    auto *generator = QRandomGenerator::global();
    for (qint64 i = 4; i < size; ++i)
        bytes[i] = char(generator->bounded(256));
    return bytes;
}

QByteArray readAll(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

} // namespace

class TestModelLibrary : public QObject {
    Q_OBJECT

    QNetworkAccessManager m_network;
    std::unique_ptr<QTemporaryDir> m_dir;
    std::unique_ptr<FileServer> m_server;
    std::unique_ptr<ModelLibrary> m_library;
    QList<double> m_progress;

    expected<QString, TranscriptionError> ensure(const QString &model)
    {
        return QCoro::waitFor(m_library->ensure(model, [this](double fraction) { m_progress.append(fraction); }));
    }

    QString modelPath(const QString &name) const { return m_dir->filePath(QStringLiteral("ggml-%1.bin").arg(name)); }

private Q_SLOTS:
    void initTestCase() { QNetworkProxy::setApplicationProxy(QNetworkProxy::NoProxy); }

    void init()
    {
        m_dir = std::make_unique<QTemporaryDir>();
        m_server = std::make_unique<FileServer>();
        m_library = std::make_unique<ModelLibrary>(m_network, m_dir->path(), m_server->base());
        m_progress.clear();
    }

    void names_data()
    {
        QTest::addColumn<QString>("setting");
        QTest::addColumn<QString>("language"); // "-" for auto-detect
        QTest::addColumn<QString>("chosen");
        QTest::addColumn<bool>("englishOnly");
        QTest::addColumn<bool>("published");

        QTest::newRow("default, English") << ""
                                          << "en"
                                          << "base.en" << true << true;
        QTest::newRow("default, Hebrew") << ""
                                         << "he"
                                         << "base" << false << true;
        QTest::newRow("default, auto-detect") << " "
                                              << "-"
                                              << "base" << false << true;
        QTest::newRow("chosen size kept for English") << "small"
                                                      << "en"
                                                      << "small" << false << true;
        QTest::newRow("English-only quantized") << "tiny.en-q5_1"
                                                << "-"
                                                << "tiny.en-q5_1" << true << true;
        QTest::newRow("multilingual quantized") << "medium-q8_0"
                                                << "he"
                                                << "medium-q8_0" << false << true;
        QTest::newRow("medium's 5-bit form") << "medium.en-q5_0"
                                             << "en"
                                             << "medium.en-q5_0" << true << true;
        QTest::newRow("unknown size") << "large"
                                      << "en"
                                      << "large" << false << false;
        QTest::newRow("missing local file") << "/nowhere/ggml-base.en.bin"
                                            << "en"
                                            << "/nowhere/ggml-base.en.bin" << false << false;
    }

    void names()
    {
        QFETCH(QString, setting);
        QFETCH(QString, language);
        QFETCH(QString, chosen);
        QFETCH(bool, englishOnly);
        QFETCH(bool, published);
        const auto code = language == QLatin1String("-") ? std::nullopt : std::optional<QString>(language);
        QCOMPARE(ModelLibrary::chosenModel(setting, code), chosen);
        QCOMPARE(ModelLibrary::isEnglishOnly(chosen), englishOnly);
        QCOMPARE(ModelLibrary::isPublishedName(chosen), published);
    }

    // A local model tells its kind by its vocabulary: 51864 tokens is English-only.
    void localModelsTellTheirLanguage_data()
    {
        QTest::addColumn<int>("vocabulary");
        QTest::addColumn<bool>("englishOnly");
        QTest::newRow("English-only") << 51864 << true;
        QTest::newRow("multilingual") << 51865 << false;
    }

    void localModelsTellTheirLanguage()
    {
        QFETCH(int, vocabulary);
        QFETCH(bool, englishOnly);
        const QString file = m_dir->filePath(QStringLiteral("own.bin"));
        QFile ggml(file);
        QVERIFY(ggml.open(QIODevice::WriteOnly));
        const std::int32_t header[2] = {0x67676d6c, vocabulary};
        ggml.write(reinterpret_cast<const char *>(header), sizeof header);
        ggml.close();
        QCOMPARE(ModelLibrary::isEnglishOnly(file), englishOnly);

        const QString folder = m_dir->filePath(QStringLiteral("converted"));
        QDir().mkpath(folder);
        QFile text(folder + QStringLiteral("/vocabulary.txt"));
        QVERIFY(text.open(QIODevice::WriteOnly));
        for (int i = 0; i < vocabulary; ++i)
            text.write("t\n");
        text.close();
        QCOMPARE(ModelLibrary::isEnglishOnly(folder), englishOnly);
    }

    void downloadsOnceWithProgress()
    {
        const QByteArray model = modelBytes(3 << 20);
        m_server->files["/models/ggml-base-q8_0.bin"] = model;
        QVERIFY(!m_library->isInstalled(QStringLiteral("base-q8_0")));

        const auto path = ensure(QStringLiteral("base-q8_0"));
        QVERIFY2(path, qPrintable(path ? QString() : path.error().description()));
        QCOMPARE(*path, modelPath(QStringLiteral("base-q8_0")));
        QVERIFY(readAll(*path) == model);
        QVERIFY(!QFile::exists(*path + QStringLiteral(".part")));
        QVERIFY(m_library->isInstalled(QStringLiteral("base-q8_0")));
        QVERIFY(m_progress.size() >= 2);
        QVERIFY(std::is_sorted(m_progress.begin(), m_progress.end()));
        QCOMPARE(m_progress.back(), 1.0);

        // Installed: nothing more is fetched.
        QVERIFY(ensure(QStringLiteral("base-q8_0")));
        QCOMPARE(m_server->ranges.size(), 1);
    }

    // A connection cut halfway leaves a part; the next ensure() asks for the rest, and a server that ignores
    // the range (answering 200 with the whole file) still ends in the right file.
    void resumesAfterACutConnection_data()
    {
        QTest::addColumn<bool>("serverHonoursRange");
        QTest::newRow("206 continues the part") << true;
        QTest::newRow("200 starts it over") << false;
    }

    void resumesAfterACutConnection()
    {
        QFETCH(bool, serverHonoursRange);
        const QByteArray model = modelBytes(2 << 20);
        m_server->files["/models/ggml-tiny-q5_1.bin"] = model;
        m_server->fault = FileServer::Fault::cutAfter;
        m_server->faultAt = model.size() / 2;

        const auto cut = ensure(QStringLiteral("tiny-q5_1"));
        QVERIFY(!cut);
        QCOMPARE(cut.error().kind, TranscriptionError::Kind::modelUnavailable);
        QVERIFY2(cut.error().message.contains(QLatin1String("interrupted")), qPrintable(cut.error().message));
        const QString final = modelPath(QStringLiteral("tiny-q5_1"));
        QVERIFY(!QFile::exists(final));
        const QByteArray part = readAll(final + QStringLiteral(".part"));
        QVERIFY(part.size() > 0 && part.size() <= model.size() / 2);

        m_server->fault = serverHonoursRange ? FileServer::Fault::none : FileServer::Fault::ignoreRange;
        m_progress.clear();
        const auto resumed = ensure(QStringLiteral("tiny-q5_1"));
        QVERIFY2(resumed, qPrintable(resumed ? QString() : resumed.error().description()));
        QCOMPARE(m_server->ranges.last(), QByteArray::number(part.size()));
        QVERIFY(readAll(final) == model);
        QVERIFY(!QFile::exists(final + QStringLiteral(".part")));
        if (serverHonoursRange)
            QVERIFY(m_progress.front() >= double(part.size()) / double(model.size()));
    }

    // A part that an earlier attempt finished but could not rename is checked and used.
    void completePartIsTakenAsIs()
    {
        const QByteArray model = modelBytes(100'000);
        m_server->files["/models/ggml-small-q8_0.bin"] = model;
        QFile part(modelPath(QStringLiteral("small-q8_0")) + QStringLiteral(".part"));
        QVERIFY(part.open(QIODevice::WriteOnly));
        part.write(model);
        part.close();
        QVERIFY(ensure(QStringLiteral("small-q8_0")));
        QVERIFY(readAll(modelPath(QStringLiteral("small-q8_0"))) == model);
    }

    void refusedDownloads_data()
    {
        QTest::addColumn<QString>("model");
        QTest::addColumn<QByteArray>("served"); // empty: nothing at that address
        QTest::addColumn<QString>("reason");

        // "base" carries its published checksum, which these bytes can't match.
        QTest::newRow("checksum mismatch") << "base" << modelBytes(50'000) << "published checksum";
        QTest::newRow("not a model") << "base-q5_1" << QByteArray("<html>sign in</html>") << "isn't a model file";
        QTest::newRow("not published there") << "small.en" << QByteArray() << "answered 404";
    }

    void refusedDownloads()
    {
        QFETCH(QString, model);
        QFETCH(QByteArray, served);
        QFETCH(QString, reason);
        if (!served.isEmpty())
            m_server->files["/models/ggml-" + model.toLatin1() + ".bin"] = served;
        const auto result = ensure(model);
        QVERIFY(!result);
        QCOMPARE(result.error().kind, TranscriptionError::Kind::modelUnavailable);
        QVERIFY2(result.error().message.contains(reason), qPrintable(result.error().message));
        QVERIFY(!QFile::exists(modelPath(model)));
        // A wrong file is not kept to be resumed.
        QVERIFY(!QFile::exists(modelPath(model) + QStringLiteral(".part")));
    }

    void stalledDownloadIsGivenUp()
    {
        const QByteArray model = modelBytes(1 << 20);
        m_server->files["/models/ggml-tiny.en-q8_0.bin"] = model;
        m_server->fault = FileServer::Fault::stallAfter;
        m_server->faultAt = 100'000;
        m_library->setInactivityLimit(300ms);

        QElapsedTimer clock;
        clock.start();
        const auto result = ensure(QStringLiteral("tiny.en-q8_0"));
        QVERIFY(!result);
        QVERIFY2(result.error().message.contains(QLatin1String("stopped responding")),
                 qPrintable(result.error().message));
        QVERIFY(clock.elapsed() < 10'000);
        // What arrived is kept for the next attempt.
        QCOMPARE(QFileInfo(modelPath(QStringLiteral("tiny.en-q8_0")) + QStringLiteral(".part")).size(), 100'000);
    }

    // Cancelling keeps what arrived, a later download resumes from it, and deleting removes file and part alike.
    void cancelledDownloadResumesAndDeletesWhole()
    {
        const QByteArray model = modelBytes(1 << 20);
        const QString name = QStringLiteral("base.en-q5_1");
        m_server->files["/models/ggml-base.en-q5_1.bin"] = model;
        m_server->fault = FileServer::Fault::stallAfter;
        m_server->faultAt = 100'000;

        auto task = m_library->ensure(name, {});
        QTRY_VERIFY(m_library->partialBytes(name) > 0);
        QVERIFY(m_library->isDownloading(name));
        QVERIFY(!m_library->remove(name));
        m_library->cancel(name);
        const auto cancelled = QCoro::waitFor(std::move(task));
        QVERIFY(!cancelled);
        QVERIFY2(cancelled.error().message.contains(QLatin1String("cancelled")), qPrintable(cancelled.error().message));
        QVERIFY(!m_library->isDownloading(name));
        QCOMPARE(m_library->partialBytes(name), 100'000);

        m_server->fault = FileServer::Fault::none;
        QVERIFY(ensure(name));
        QCOMPARE(m_server->ranges.last(), QByteArray("100000"));
        QCOMPARE(m_library->partialBytes(name), 0);

        QVERIFY(m_library->remove(name));
        QVERIFY(!m_library->isInstalled(name));
        // A user's own file is never deleted.
        QVERIFY(!m_library->remove(m_dir->filePath(QStringLiteral("ggml-base.en-q5_1.bin"))));
    }

    void localModelsAreUsedAsTheyAre()
    {
        const QString file = m_dir->filePath(QStringLiteral("mine.bin"));
        QFile own(file);
        QVERIFY(own.open(QIODevice::WriteOnly));
        own.write("lmgg");
        own.close();
        QCOMPARE(ensure(file).value_or(QString()), file);

        const QString folder = m_dir->filePath(QStringLiteral("converted"));
        QDir().mkpath(folder);
        const auto empty = ensure(folder);
        QVERIFY(!empty && empty.error().message.contains(QLatin1String("no model.bin")));
        QFile(folder + QStringLiteral("/model.bin")).open(QIODevice::WriteOnly);
        QCOMPARE(ensure(folder).value_or(QString()), folder);

        const auto missing = ensure(m_dir->filePath(QStringLiteral("gone.bin")));
        QVERIFY(!missing && missing.error().message.contains(QLatin1String("doesn't exist")));
        const auto unknown = ensure(QStringLiteral("huge"));
        QVERIFY(!unknown && unknown.error().message.contains(QLatin1String("no model called")));
        QVERIFY(m_server->ranges.isEmpty());
    }
};

QTEST_GUILESS_MAIN(TestModelLibrary)
#include "tst_modellibrary.moc"
