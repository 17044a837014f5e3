#include "QenvPackage.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QRegularExpression>

namespace Quorix {

namespace {

constexpr int maximumPackages = 2000;

bool readStrings(const QJsonValue &value, QStringList *out)
{
    if (value.isUndefined() || value.isNull())
        return true;
    if (!value.isArray())
        return false;
    const QJsonArray array = value.toArray();
    if (array.size() > maximumPackages)
        return false;
    for (const QJsonValue &item : array) {
        if (!item.isString() || item.toString().trimmed().isEmpty() || item.toString().size() > 512)
            return false;
        out->append(item.toString().trimmed());
    }
    return true;
}

} // namespace

QenvPackage QenvPackage::parse(QByteArrayView content, QString *error)
{
    QenvPackage package;
    error->clear();
    QJsonParseError parseError;
    const QJsonDocument document
            = QJsonDocument::fromJson(QByteArray::fromRawData(content.data(), content.size()), &parseError);
    if (parseError.error != QJsonParseError::NoError || !document.isObject()) {
        *error = QStringLiteral("Environment package is not a JSON object");
        return package;
    }
    const QJsonObject object = document.object();
    static const QRegularExpression pythonVersion(QStringLiteral("^\\d+\\.\\d+(\\.\\d+)?$"));
    package.name = object.value(QStringLiteral("name")).toString();
    package.python = object.value(QStringLiteral("python")).toString();
    if (!package.python.isEmpty() && !pythonVersion.match(package.python).hasMatch()) {
        *error = QStringLiteral("Environment package has an invalid Python version");
        return package;
    }
    if (!readStrings(object.value(QStringLiteral("packages")), &package.packages)
        || !readStrings(object.value(QStringLiteral("extra_index_urls")), &package.extraIndexUrls)) {
        *error = QStringLiteral("Environment package lists must be arrays of strings");
        return package;
    }
    return package;
}

QJsonObject QenvPackage::metadata() const
{
    QJsonObject metadata{{QStringLiteral("python"), python.isEmpty() ? QStringLiteral("3.x") : python},
                         {QStringLiteral("package_count"), packages.size()},
                         {QStringLiteral("packages"), QJsonArray::fromStringList(packages)}};
    // PyTorch-style indexes name the CUDA release they were built for, e.g. .../whl/cu121 for CUDA 12.1.
    static const QRegularExpression cudaIndex(QStringLiteral("/cu(\\d{2})(\\d)\\b"));
    for (const QString &url : extraIndexUrls) {
        const QRegularExpressionMatch match = cudaIndex.match(url);
        if (match.hasMatch()) {
            metadata.insert(QStringLiteral("cuda"),
                            QString::number(match.captured(1).toInt()) + QLatin1Char('.') + match.captured(2));
            break;
        }
    }
    return metadata;
}

} // namespace Quorix
