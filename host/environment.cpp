// The platform's preparation before a transfer tool runs: a host has nothing to prepare.
#include "fcadmin_platform.h"

extern "C" FCADMIN_PLATFORM_API int32_t geps_2env(void) { return 0; }
