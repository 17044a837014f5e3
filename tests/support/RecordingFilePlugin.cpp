#include "RecordingFilePlugin.h"

namespace Quorix::Testing {

void RecordingFilePlugin::openFile(const QString &filePath)
{
    opened.append(filePath);
}

} // namespace Quorix::Testing
