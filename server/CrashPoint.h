#pragma once

namespace Quorix {

// Named places in the storage path where a test can make the real server process die, to prove that whatever a crash
// interrupts, start-up puts right. The environment variable QUORIX_SERVER_CRASH_AT names the place; unset, nothing
// happens.
class CrashPoint
{
public:
    static void reach(const char *name);
};

} // namespace Quorix
