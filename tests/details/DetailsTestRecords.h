#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QString>

class QWidget;

namespace Quorix {
class ResourceDetailsDialog;
}

namespace Quorix::Testing {

// Records and dialogs for the details tests: one complete record per kind, refined per case with extra keys.
class DetailsTestRecords
{
public:
    enum Kind { Script, Environment, Weights };

    static constexpr const char *authorDiscordId = "231456789012345678";
    static constexpr const char *administratorDiscordId = "100000000000000009";
    static constexpr const char *strangerDiscordId = "300000000000000003";

    // Keys in `changes` replace the defaults; a null value removes the key.
    static QJsonObject record(Kind kind, const QJsonObject &changes = {});
    static ResourceDetailsDialog *createDialog(Kind kind, QWidget *parent = nullptr);
    static QByteArray pngBytes(const QColor &colour);
};

} // namespace Quorix::Testing
