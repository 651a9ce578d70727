#pragma once

#include <QByteArray>
#include <QString>

namespace qm {

// A multipart/form-data body, built in the order the parts are added. One task builds it; it is a value.
struct MultipartForm {
    QString boundary;
    QByteArray data;

    // A form with a fresh boundary: "Quillmoor-" + a new UUID in upper case with hyphens.
    static MultipartForm withNewBoundary();

    // "multipart/form-data; boundary=" + boundary, for the request's Content-Type header.
    QByteArray contentType() const;

    // A text field.
    void add(const QString &name, const QString &value);
    // A file field; `fileName` is the name the server sees, `bytes` go in unchanged.
    void addFile(const QString &name, const QString &fileName, const QString &type, const QByteArray &bytes);
    // The closing boundary line; nothing may be added afterwards.
    void close();
};

} // namespace qm
