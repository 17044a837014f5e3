#include "MultipartForm.h"

#include <QRegularExpression>

namespace Quorix {

namespace {

constexpr int maximumParts = 32;
constexpr qsizetype maximumHeaderBlock = 8192;

QByteArray boundaryOf(const QByteArray &contentType)
{
    if (!contentType.trimmed().toLower().startsWith("multipart/form-data"))
        return {};
    static const QRegularExpression pattern(QStringLiteral("boundary=(\"([^\"]+)\"|([^;\\s]+))"),
                                            QRegularExpression::CaseInsensitiveOption);
    const QRegularExpressionMatch match = pattern.match(QString::fromLatin1(contentType));
    if (!match.hasMatch())
        return {};
    const QString value = match.captured(2).isEmpty() ? match.captured(3) : match.captured(2);
    return value.size() <= 70 ? value.toLatin1() : QByteArray();
}

// Reads name="..." style parameters from a Content-Disposition value.
QString dispositionParameter(const QString &disposition, const QString &key)
{
    const QRegularExpression pattern(QStringLiteral("(?:^|;)\\s*%1=\"([^\"]*)\"").arg(key),
                                     QRegularExpression::CaseInsensitiveOption);
    return pattern.match(disposition).captured(1);
}

} // namespace

MultipartForm MultipartForm::parse(const QByteArray &contentType, const QByteArray &body, QString *error)
{
    MultipartForm form;
    form.body = body;
    error->clear();
    const QByteArray boundary = boundaryOf(contentType);
    if (boundary.isEmpty()) {
        *error = QStringLiteral("Expected a multipart/form-data body");
        return form;
    }
    const QByteArray delimiter = "--" + boundary;
    const QByteArray partEnd = "\r\n" + delimiter;
    qsizetype position = body.indexOf(delimiter);
    if (position < 0) {
        *error = QStringLiteral("Malformed multipart body");
        return form;
    }
    position += delimiter.size();
    while (true) {
        if (body.mid(position, 2) == "--")
            return form;
        if (body.mid(position, 2) != "\r\n" || form.parts.size() >= maximumParts) {
            *error = QStringLiteral("Malformed multipart body");
            return form;
        }
        position += 2;
        const qsizetype headerEnd = body.indexOf("\r\n\r\n", position);
        if (headerEnd < 0 || headerEnd - position > maximumHeaderBlock) {
            *error = QStringLiteral("Malformed multipart body");
            return form;
        }
        Part part;
        const QList<QByteArray> headerLines = body.mid(position, headerEnd - position).split('\n');
        for (const QByteArray &line : headerLines) {
            const qsizetype colon = line.indexOf(':');
            if (colon < 0 || line.left(colon).trimmed().toLower() != "content-disposition")
                continue;
            const QString disposition = QString::fromUtf8(line.mid(colon + 1).trimmed());
            part.name = dispositionParameter(disposition, QStringLiteral("name"));
            part.isFile = disposition.contains(QStringLiteral("filename="), Qt::CaseInsensitive);
            part.fileName = dispositionParameter(disposition, QStringLiteral("filename"));
        }
        const qsizetype contentStart = headerEnd + 4;
        const qsizetype contentEnd = body.indexOf(partEnd, contentStart);
        if (contentEnd < 0 || part.name.isEmpty()) {
            *error = QStringLiteral("Malformed multipart body");
            return form;
        }
        part.offset = contentStart;
        part.size = contentEnd - contentStart;
        if (!form.has(part.name))
            form.parts.append(part);
        position = contentEnd + partEnd.size();
    }
}

bool MultipartForm::has(const QString &name) const
{
    return part(name) != nullptr;
}

const MultipartForm::Part *MultipartForm::part(const QString &name) const
{
    for (const Part &candidate : parts) {
        if (candidate.name == name)
            return &candidate;
    }
    return nullptr;
}

QString MultipartForm::text(const QString &name) const
{
    const Part *found = part(name);
    return found ? QString::fromUtf8(data(*found)) : QString();
}

QByteArrayView MultipartForm::data(const Part &part) const
{
    return QByteArrayView(body.constData() + part.offset, part.size);
}

} // namespace Quorix
