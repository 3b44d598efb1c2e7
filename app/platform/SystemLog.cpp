#include "app/platform/SystemLog.h"

#include <syslog.h>

#include <cstdio>
#include <string>

namespace brisvale {

SystemLogSession::SystemLogSession() { openlog("brisvale", LOG_PID, LOG_USER); }

SystemLogSession::~SystemLogSession() { closelog(); }

void systemLogOnly(std::string_view line) {
    const std::string text(line);
    syslog(LOG_NOTICE, "%s", text.c_str());
}

void systemLog(std::string_view line) {
    systemLogOnly(line);
    std::fprintf(stderr, "%.*s\n", static_cast<int>(line.size()), line.data());
    std::fflush(stderr);
}

} // namespace brisvale
