#pragma once

#include <QObject>
#include <QString>
#include <QStringList>

namespace Quorix::Testing {

// Stands in for a host plugin that shows files ("GPC 3", "CV Python"): it implements the openFile hand-off and
// writes down every path it was given. Register it with PluginHost::registerPlugin under the name to stand in for.
class RecordingFilePlugin : public QObject
{
    Q_OBJECT

public:
    using QObject::QObject;

    Q_INVOKABLE void openFile(const QString &filePath);

    QStringList opened;
};

} // namespace Quorix::Testing
