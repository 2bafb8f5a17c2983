// Stand-in trace service for a host library that does not supply one: set-up succeeds, lines are
// dropped. Linked after the host library, so it is used only when nothing there defines these calls.
#include "fcadmin_platform.h"

extern "C" {

int32_t trace_module_init(int32_t *handle, int32_t, int32_t, const char *, uint32_t *) {
    if (handle != nullptr) *handle = 0;
    return 0;
}

int32_t trace_module_store_lvl(int32_t, int32_t, int32_t, int32_t, const char *) { return 0; }

}  // extern "C"
