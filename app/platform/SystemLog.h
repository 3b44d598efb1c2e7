#pragma once

#include <string_view>

namespace brisvale {

// The system log: syslog(3) with the ident "brisvale". Open for the life of this object.
class SystemLogSession {
public:
    SystemLogSession();
    ~SystemLogSession();
    SystemLogSession(const SystemLogSession&) = delete;
    SystemLogSession& operator=(const SystemLogSession&) = delete;
};

// One entry in the system log and the same line on standard error, as a platform log does for a
// program started from a terminal.
void systemLog(std::string_view line);

// One entry in the system log only (the caller writes its own line to standard error).
void systemLogOnly(std::string_view line);

} // namespace brisvale
