#pragma once

#include <QtGlobal>

// Resident-memory figures of this process, read from /proc (Linux).
class ProcessMemory
{
public:
    // A "VmHWM:"-style field of /proc/self/status in kilobytes; -1 when it cannot be read.
    static qint64 statusKilobytes(const char *field);
    // Makes VmHWM start again from the current resident size.
    static void resetPeakResidentSize();
};
