#pragma once

#include <QByteArray>
#include <QByteArrayView>
#include <QList>
#include <QString>

namespace Quorix {

// A multipart/form-data body split into its parts. Part contents are views into the request body, which the form
// keeps alive, so a 500 MB upload is not copied again while it is parsed and stored.
class MultipartForm
{
public:
    struct Part
    {
        QString name;
        QString fileName;
        bool isFile = false;
        qsizetype offset = 0;
        qsizetype size = 0;
    };

    // Empty error text on success.
    static MultipartForm parse(const QByteArray &contentType, const QByteArray &body, QString *error);

    bool has(const QString &name) const;
    QString text(const QString &name) const;
    const Part *part(const QString &name) const;
    QByteArrayView data(const Part &part) const;

private:
    QByteArray body;
    QList<Part> parts;
};

} // namespace Quorix
