#include "PatternFile.h"

#include <QByteArray>
#include <QFile>

bool PatternFile::write(const QString &path, qint64 size)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        return false;
    QByteArray chunk(1024 * 1024, Qt::Uninitialized);
    for (qint64 written = 0; written < size; written += chunk.size()) {
        for (qsizetype i = 0; i < chunk.size(); ++i)
            chunk[i] = char((written + i) * 131 >> 3);
        if (file.write(chunk) != chunk.size())
            return false;
    }
    return true;
}
