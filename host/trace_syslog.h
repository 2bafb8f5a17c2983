// The host trace service's system-log sink. Internal to the host services (hidden).
#pragma once

#include <cstdint>

namespace fcadmin::host {

// With FCADMIN_TRACE=syslog in the environment, sends "MODULE LEVEL text" to the system log (/dev/log)
// as fcadmin, facility user: level 1 (the detail channel) at LOG_DEBUG, higher levels at LOG_INFO.
// Never waits: a line that the log socket cannot take now is dropped.
void trace_to_syslog(int32_t module_id, int32_t level, const char *text);

}  // namespace fcadmin::host
