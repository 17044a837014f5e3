#include "CrashPoint.h"

#include <QByteArray>
#include <QtGlobal>

#include <cstdlib>

namespace Quorix {

void CrashPoint::reach(const char *name)
{
    static const QByteArray chosen = qgetenv("QUORIX_SERVER_CRASH_AT");
    if (!chosen.isEmpty() && chosen == name)
        std::abort();
}

} // namespace Quorix
