#include "support/providers/multipartreader.h"

namespace qm::test {

std::optional<QList<FormPart>> readForm(const QByteArray &body, const QByteArray &contentTypeHeader)
{
    const QByteArray prefix = "multipart/form-data; boundary=";
    if (!contentTypeHeader.startsWith(prefix))
        return std::nullopt;
    const QByteArray boundary = contentTypeHeader.mid(prefix.size());
    const QByteArray opening = "--" + boundary + "\r\n";
    const QByteArray closing = "--" + boundary + "--\r\n";
    const QByteArray disposition = "Content-Disposition: form-data; name=\"";

    QList<FormPart> parts;
    qsizetype at = 0;
    while (body.mid(at, opening.size()) == opening) {
        at += opening.size();
        if (body.mid(at, disposition.size()) != disposition)
            return std::nullopt;
        at += disposition.size();
        const qsizetype headEnd = body.indexOf("\r\n\r\n", at);
        if (headEnd < 0)
            return std::nullopt;
        const QByteArray head = body.mid(at, headEnd - at);
        FormPart part;
        const qsizetype quote = head.indexOf('"');
        if (quote < 0)
            return std::nullopt;
        part.name = head.left(quote);
        const QByteArray rest = head.mid(quote + 1);
        if (!rest.isEmpty()) {
            const QByteArray filePrefix = "; filename=\"";
            const qsizetype fileEnd = rest.indexOf("\"\r\nContent-Type: ");
            if (!rest.startsWith(filePrefix) || fileEnd < 0)
                return std::nullopt;
            part.fileName = rest.mid(filePrefix.size(), fileEnd - filePrefix.size());
            part.contentType = rest.mid(fileEnd + 17);
        }
        at = headEnd + 4;
        const qsizetype dataEnd = body.indexOf(QByteArray("\r\n--" + boundary), at);
        if (dataEnd < 0)
            return std::nullopt;
        part.data = body.mid(at, dataEnd - at);
        parts.append(part);
        at = dataEnd + 2;
    }
    if (body.mid(at) != closing)
        return std::nullopt;
    return parts;
}

} // namespace qm::test
