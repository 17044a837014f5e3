#pragma once

#include "pyenv/PlatformProfile.h"

#include <QList>
#include <QString>

namespace Quorix {

// Unpacks an archive into an empty folder with the first extraction method that works. Each method vets the archive
// with its own tool right before extracting with it, so that no member, and no link an unpacker would follow, lands
// outside the folder, and a tool that is missing only costs its own attempt. Runs blocking, on a worker.
class ArchiveExtractor
{
public:
    enum class Verdict { Extracted, Unsafe, Failed };

    struct BlockingResult
    {
        bool succeeded = false;
        QString standardOutput;
        QString standardError;
    };

    // Each method gets at most limitMs for its listing and extraction together.
    static Verdict extract(const QList<PlatformProfile::ExtractionMethod> &methods, const QString &folder, int limitMs);
    static bool isZipFile(const QString &path);
    // Runs a program to completion; a child that outlives its limit is killed rather than left holding the worker.
    static BlockingResult runBlocking(const PlatformProfile::Command &command, int limitMs);

private:
    enum class Inspection { Safe, Unsafe, Unreadable };

    static Inspection inspect(const PlatformProfile::ExtractionMethod &method, int limitMs);
    static bool staysInside(QString member);
    static void emptyFolder(const QString &folder);
};

} // namespace Quorix
