#include "AuthorizationFileFormats.h"

#include <QDateTime>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QSaveFile>
#include <QSet>
#include <QTextStream>

namespace Quorix {

namespace {

const QRegularExpression &discordIdPattern()
{
    static const QRegularExpression pattern(QStringLiteral("\\d{17,20}"));
    return pattern;
}

// Servers send IDs and counts as strings or numbers; a file should read the same either way.
QString fieldText(const QJsonObject &record, const QString &key)
{
    const QJsonValue value = record.value(key);
    return value.isDouble() ? QString::number(value.toInteger()) : value.toString();
}

QString withoutCommas(QString text)
{
    return text.replace(QLatin1Char(','), QLatin1Char(';'));
}

// The importer reads a record per line, so a note must not break its line whatever line ending it was typed with.
QString onOneLine(QString text)
{
    return text.replace(QLatin1String("\r\n"), QLatin1String(" "))
            .replace(QLatin1Char('\n'), QLatin1Char(' '))
            .replace(QLatin1Char('\r'), QLatin1Char(' '));
}

} // namespace

bool AuthorizationFileFormats::isCsvName(const QString &fileName)
{
    return fileName.endsWith(QLatin1String(".csv"), Qt::CaseInsensitive);
}

bool AuthorizationFileFormats::isJsonName(const QString &fileName)
{
    return fileName.endsWith(QLatin1String(".json"), Qt::CaseInsensitive);
}

QByteArray AuthorizationFileFormats::exportJson(const ExportHeader &header, const QJsonArray &authorizations)
{
    const QJsonObject document{
            {QStringLiteral("script_id"), header.scriptId},
            {QStringLiteral("script_name"), header.scriptName},
            {QStringLiteral("export_date"), QDateTime::currentDateTime().toString(Qt::ISODate)},
            {QStringLiteral("total_count"), header.totalCount},
            {QStringLiteral("exported_count"), authorizations.size()},
            {QStringLiteral("authorizations"), authorizations},
    };
    return QJsonDocument(document).toJson(QJsonDocument::Indented);
}

QByteArray AuthorizationFileFormats::exportCsv(const QJsonArray &authorizations)
{
    QString text = QStringLiteral("discord_id,username,global_name,status,notes,expires_at\n");
    for (const QJsonValue &value : authorizations) {
        const QJsonObject record = value.toObject();
        const QStringList fields{
                fieldText(record, QStringLiteral("discord_id")),
                withoutCommas(fieldText(record, QStringLiteral("username"))),
                withoutCommas(fieldText(record, QStringLiteral("global_name"))),
                fieldText(record, QStringLiteral("status")),
                onOneLine(withoutCommas(fieldText(record, QStringLiteral("authorization_notes")))),
                fieldText(record, QStringLiteral("expires_at")),
        };
        text += fields.join(QLatin1Char(',')) + QLatin1Char('\n');
    }
    return text.toUtf8();
}

QString AuthorizationFileFormats::writeFile(const QString &filePath, const QByteArray &content)
{
    QSaveFile file(filePath);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Text))
        return file.errorString();
    if (file.write(content) != content.size()) {
        const QString error = file.errorString();
        file.cancelWriting();
        return error;
    }
    return file.commit() ? QString() : file.errorString();
}

QStringList AuthorizationFileFormats::idsFromJson(const QByteArray &json)
{
    // Nesting beyond the parser's depth limit is a parse error like any other, so a hostile file yields nothing.
    const QJsonDocument document = QJsonDocument::fromJson(json);
    if (!document.isObject())
        return {};
    QStringList ids;
    const QJsonArray records = document.object().value(QStringLiteral("authorizations")).toArray();
    for (const QJsonValue &record : records) {
        const QString id = record.toObject().value(QStringLiteral("discord_id")).toString();
        if (discordIdPattern().match(id).hasMatch())
            ids.append(id);
    }
    return withoutDuplicates(ids);
}

QStringList AuthorizationFileFormats::idsFromLines(QTextStream &stream, bool csv)
{
    QStringList ids;
    bool firstLine = true;
    QString line;
    while (stream.readLineInto(&line)) {
        line = line.trimmed();
        const bool header = firstLine && csv && line.toLower().contains(QLatin1String("discord_id"));
        firstLine = false;
        if (header || line.isEmpty())
            continue;
        const QString id = idInLine(line);
        if (!id.isEmpty())
            ids.append(id);
    }
    return withoutDuplicates(ids);
}

AuthorizationFileFormats::ImportResult AuthorizationFileFormats::readImportFile(const QString &filePath)
{
    ImportResult result;
    QFile file(filePath);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text)) {
        result.openError = file.errorString();
        return result;
    }
    const QByteArray content = file.read(importReadLimit);
    if (isJsonName(filePath)) {
        result.discordIds = idsFromJson(content);
    } else {
        QTextStream stream(content);
        result.discordIds = idsFromLines(stream, isCsvName(filePath));
    }
    return result;
}

QString AuthorizationFileFormats::idInLine(const QString &line)
{
    const QString firstField = line.section(QLatin1Char(','), 0, 0).trimmed();
    QRegularExpressionMatch match = discordIdPattern().match(firstField);
    if (!match.hasMatch())
        match = discordIdPattern().match(line);
    return match.hasMatch() ? match.captured() : QString();
}

QStringList AuthorizationFileFormats::withoutDuplicates(const QStringList &ids)
{
    QStringList unique;
    QSet<QString> seen;
    for (const QString &id : ids) {
        if (!seen.contains(id)) {
            seen.insert(id);
            unique.append(id);
        }
    }
    return unique;
}

} // namespace Quorix
