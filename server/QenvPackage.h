#pragma once

#include <QByteArrayView>
#include <QJsonObject>
#include <QString>
#include <QStringList>

namespace Quorix {

// An environment package (.qenv): the JSON description of a Python environment that clients install locally.
class QenvPackage
{
public:
    // Empty error text on success.
    static QenvPackage parse(QByteArrayView content, QString *error);

    // The summary the catalogue shows for the package: python, package_count, packages and, when the package pulls
    // from a CUDA wheel index, cuda.
    QJsonObject metadata() const;

    QString name;
    QString python;
    QStringList packages;
    QStringList extraIndexUrls;
};

} // namespace Quorix
