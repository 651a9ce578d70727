#pragma once

#include <QByteArray>
#include <QList>

#include <optional>

namespace qm::test {

struct FormPart {
    QByteArray name;
    std::optional<QByteArray> fileName;
    std::optional<QByteArray> contentType;
    QByteArray data;
};

// Splits a multipart/form-data body that must follow this program's exact layout: every part opens with
// "--boundary\r\n", a Content-Disposition line (with a Content-Type line only for files), a blank line, the
// data and "\r\n"; the body ends with "--boundary--\r\n" and nothing after. Nothing when a byte is out of place.
std::optional<QList<FormPart>> readForm(const QByteArray &body, const QByteArray &contentTypeHeader);

} // namespace qm::test
