#pragma once

#include "library/result.h"
#include "transcription/transcriptionerror.h"

#include <QCoroTask>
#include <QHash>
#include <QList>
#include <QSet>
#include <QString>
#include <QUrl>

#include <chrono>
#include <functional>
#include <optional>

class QNetworkAccessManager;

namespace qm::whisper {

// The on-device models this computer has, and the one-time download of a published one.
//
// Models live in `directory` (by default $XDG_DATA_HOME/Quillmoor/models) as "ggml-<name>.bin". A download
// goes to "<file>.part" (resumed with a Range request when it is there from an earlier attempt), is checked
// against the published SHA-1 where one is known, and only then renamed to its final name, so a half file
// never carries a model's name. Main thread only; ensure() resumes on the main thread.
class ModelLibrary {
public:
    // Receives the downloaded fraction, 0…1, on the main thread.
    using DownloadProgress = std::function<void(double)>;

    // A model the library can download, with the size of its file.
    struct Published {
        QString name;
        qint64 bytes = 0;
    };

    explicit ModelLibrary(QNetworkAccessManager &network, QString directory = defaultDirectory(),
                          QUrl baseUrl = defaultBaseUrl());

    static QString defaultDirectory();
    static QUrl defaultBaseUrl();

    // What a transcription uses: `setting` is the user's model choice ("tiny", "base.en", "small-q5_1", …, or the
    // path of a model file or CTranslate2 directory; empty means "base"). With an empty setting and English as
    // the language, the English-only variant is chosen.
    static QString chosenModel(const QString &setting, const std::optional<QString> &language);
    // True for a named model whose name ends in ".en" (or a ".en" quantized form) and for a local model whose
    // vocabulary is English-only; false when that can't be known without loading it.
    static bool isEnglishOnly(const QString &model);
    // True for the published names this library knows how to download.
    static bool isPublishedName(const QString &model);

    // The full-precision models offered for download, smallest first, each followed by its English-only form.
    static const QList<Published> &catalog();

    QString directory() const { return m_directory; }
    // A local path for `model`: a user's file or directory as is, otherwise the file in `directory`.
    QString pathFor(const QString &model) const;
    bool isInstalled(const QString &model) const;

    // Makes `model` available locally, downloading it once when it is a published name; answers its path.
    // A missing user file, a refused download or a checksum mismatch is `modelUnavailable` with the reason.
    // A download that receives nothing for the inactivity limit is given up, its part kept for the next try.
    // The library must outlive the task; a second ensure() of a model already downloading is refused.
    QCoro::Task<expected<QString, TranscriptionError>> ensure(QString model, DownloadProgress progress);

    bool isDownloading(const QString &model) const { return m_downloading.contains(model); }
    // Stops the download of `model`, keeping what has arrived so that the next ensure() resumes from there; that
    // download's ensure() answers `modelUnavailable` ("… was cancelled"). Does nothing when none is running.
    void cancel(const QString &model);
    // Bytes of `model` kept from an interrupted download; 0 when none.
    qint64 partialBytes(const QString &model) const;
    // Deletes a downloaded model and any part of it. Only files this library downloaded are deleted: a user's
    // own model file or folder is never touched. The error is a sentence for the user.
    expected<void, QString> remove(const QString &model);

    // One minute unless set.
    void setInactivityLimit(std::chrono::milliseconds limit) { m_inactivityLimit = limit; }

private:
    QCoro::Task<expected<void, QString>> download(QString name, QString target, DownloadProgress progress);

    QNetworkAccessManager &m_network;
    QString m_directory;
    QUrl m_baseUrl;
    std::chrono::milliseconds m_inactivityLimit = std::chrono::minutes(1);
    QSet<QString> m_downloading;
    QHash<QString, std::function<void()>> m_cancels;
};

} // namespace qm::whisper
