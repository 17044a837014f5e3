#pragma once

#include <QByteArray>
#include <QJsonArray>
#include <QString>
#include <QStringList>

class QTextStream;

namespace Quorix {

// Reading and writing of access-list files, free of any widget: JSON and CSV exports of loaded records, and Discord
// IDs pulled out of JSON, CSV or plain-text imports.
class AuthorizationFileFormats
{
public:
    struct ExportHeader
    {
        QString scriptId;
        QString scriptName;
        int totalCount = 0;
    };

    struct ImportResult
    {
        QStringList discordIds;
        // Empty when the file could be opened.
        QString openError;
    };

    // More than this is never read from an import: a bulk grant takes far fewer IDs than fit in it, and the cap
    // keeps a huge or hostile file from exhausting memory.
    static constexpr qint64 importReadLimit = 64 * 1024 * 1024;

    static bool isCsvName(const QString &fileName);
    static bool isJsonName(const QString &fileName);

    static QByteArray exportJson(const ExportHeader &header, const QJsonArray &authorizations);
    static QByteArray exportCsv(const QJsonArray &authorizations);

    // Replaces the file as a whole or not at all; returns the error text, empty on success.
    static QString writeFile(const QString &filePath, const QByteArray &content);

    static QStringList idsFromJson(const QByteArray &json);
    // Line by line; a CSV's header line is recognised and skipped.
    static QStringList idsFromLines(QTextStream &stream, bool csv);
    // Opens, reads at most importReadLimit bytes and picks the format by the file's name. Safe on any thread.
    static ImportResult readImportFile(const QString &filePath);

private:
    static QString idInLine(const QString &line);
    static QStringList withoutDuplicates(const QStringList &ids);
};

} // namespace Quorix
