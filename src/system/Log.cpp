#include "system/Log.h"

#include <errno.h>
#include <syslog.h>

namespace talvern {

void Log::sKeepSyslogOffConsole() {
    openlog(program_invocation_short_name, LOG_NDELAY | LOG_PID, LOG_USER);
}

}  // namespace talvern
