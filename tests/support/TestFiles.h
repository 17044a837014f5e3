#pragma once

#include <QByteArray>
#include <QString>

namespace Quorix::Testing {

// Whole-file reads and writes for checking what the code under test left on disk.
class TestFiles
{
public:
    // The file's bytes; empty when it cannot be read.
    static QByteArray read(const QString &path);
    // False when the file cannot be written whole.
    static bool write(const QString &path, const QByteArray &content);
};

} // namespace Quorix::Testing
