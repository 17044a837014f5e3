#pragma once

#include <QByteArray>
#include <QColor>
#include <QJsonArray>
#include <QJsonObject>
#include <QSize>
#include <QString>

namespace Quorix::Testing {

// Catalogue records and list envelopes shaped like the server's, for the browser tests.
class BrowserTestData
{
public:
    static QJsonObject script(const QString &id, const QString &type = QStringLiteral("gpc3"));
    static QJsonObject environment(const QString &id);
    static QJsonObject weights(const QString &id, bool encrypted = false);
    // A record of the kind a card shows ("script", "qenv" or "onnx") with `changes` applied; a null value removes
    // that key.
    static QJsonObject record(const QString &kind, const QString &id, const QJsonObject &changes = {});
    // Records "<prefix><first>" .. "<prefix><first + count - 1>".
    static QJsonArray scripts(const QString &prefix, int first, int count);

    static QJsonObject scriptPage(const QJsonArray &items, int currentPage, int totalPages, int totalScripts);
    static QJsonObject environmentPage(const QJsonArray &items, int totalPages, int totalEnvironments);
    static QJsonObject weightsPage(const QJsonArray &items, int currentPage, int totalPages, int totalWeights);

    // A PNG of one colour, as a server sends a thumbnail.
    static QByteArray png(const QSize &size, const QColor &colour = Qt::red);
};

} // namespace Quorix::Testing
