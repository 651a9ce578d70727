#include "transcription/multipartform.h"

#include <QUuid>

namespace qm {

MultipartForm MultipartForm::withNewBoundary()
{
    return {QLatin1String("Quillmoor-") + QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper(), {}};
}

QByteArray MultipartForm::contentType() const
{
    return "multipart/form-data; boundary=" + boundary.toUtf8();
}

void MultipartForm::add(const QString &name, const QString &value)
{
    data += (QLatin1String("--") + boundary + QLatin1String("\r\nContent-Disposition: form-data; name=\"") + name +
             QLatin1String("\"\r\n\r\n") + value + QLatin1String("\r\n"))
                .toUtf8();
}

void MultipartForm::addFile(const QString &name, const QString &fileName, const QString &type, const QByteArray &bytes)
{
    data += (QLatin1String("--") + boundary + QLatin1String("\r\nContent-Disposition: form-data; name=\"") + name +
             QLatin1String("\"; filename=\"") + fileName + QLatin1String("\"\r\nContent-Type: ") + type +
             QLatin1String("\r\n\r\n"))
                .toUtf8();
    data += bytes;
    data += "\r\n";
}

void MultipartForm::close()
{
    data += (QLatin1String("--") + boundary + QLatin1String("--\r\n")).toUtf8();
}

} // namespace qm
