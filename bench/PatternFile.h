#pragma once

#include <QString>

// Large test files whose bytes change from one position to the next, so a reordered or repeated chunk shows.
class PatternFile
{
public:
    static bool write(const QString &path, qint64 size);
};
