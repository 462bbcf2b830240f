#include "CrashPoint.h"

#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

void CrashPoint(const char* name) {
#ifdef CORVALINK_CRASH_POINTS
  static const char* const armed = std::getenv("CORVALINK_CRASH_AT");
  if (armed == nullptr || std::strcmp(armed, name) != 0) return;
  const std::string line = std::string("crash point ") + name + "\n";
  (void)!::write(STDERR_FILENO, line.data(), line.size());
  ::kill(::getpid(), SIGKILL);
#else
  (void)name;
#endif
}
