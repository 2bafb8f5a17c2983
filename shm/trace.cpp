// The two trace channels, their set-up and the line convention; the weak hook esm_trace.
#include "shm/trace.h"

#include "common/format.h"
#include "fcadmin.h"
#include "fcadmin_platform.h"

#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace {

constexpr int32_t kGeneralModuleId = 305;
constexpr int32_t kDetailModuleId = 312;
constexpr int32_t kGeneralLevel = 2;
constexpr int32_t kDetailLevel = 1;
constexpr int32_t kStoreFlags = 5;
constexpr int32_t kModuleSize = 2048;
constexpr uint32_t kMessageBufferSize = 128;
constexpr const char *kModuleName = "FCADMIN";

static_assert(sizeof admin_msg_buff == kMessageBufferSize && sizeof admin_detail_msg_buff == kMessageBufferSize,
              "the descriptor announces the size of the message buffers");

}  // namespace

extern "C" {

int32_t admin_trhdl = -1;
int32_t admin_detail_trhdl = -1;
char admin_msg_buff[128];
char admin_detail_msg_buff[128];
uint32_t admin_trace_buff[5];
uint32_t admin_detail_trace_buff[5];

__attribute__((weak)) int32_t esm_trace(int32_t value) { return value; }

}  // extern "C"

namespace {

void set_descriptor(uint32_t descriptor[5]) {
    descriptor[4] = 0;
    descriptor[3] = 0;
    descriptor[2] = 0;
    descriptor[1] = kMessageBufferSize;
    descriptor[0] = 1;
}

__attribute__((format(printf, 2, 0)))
void vtrace(fcadmin::TraceChannel channel, const char *format, va_list args) {
    const bool general = channel == fcadmin::TraceChannel::general;
    char *buffer = general ? admin_msg_buff : admin_detail_msg_buff;
    memset(buffer, 0, kMessageBufferSize);
    fcadmin::bounded_vformat(buffer, kMessageBufferSize, format, args);
    trace_module_store_lvl(general ? admin_trhdl : admin_detail_trhdl,
                           general ? kGeneralModuleId : kDetailModuleId, general ? kGeneralLevel : kDetailLevel,
                           kStoreFlags, buffer);
}

}  // namespace

// Returns the outcome of the last set-up it performed, and -1 when both channels were already set up.
extern "C" int32_t admin_trace_init(void) {
    int32_t result = -1;
    if (admin_trhdl < 0) {
        set_descriptor(admin_trace_buff);
        result = trace_module_init(&admin_trhdl, kGeneralModuleId, kModuleSize, kModuleName, admin_trace_buff);
    }
    if (admin_detail_trhdl >= 0) return result;
    set_descriptor(admin_detail_trace_buff);
    return trace_module_init(&admin_detail_trhdl, kDetailModuleId, kModuleSize, kModuleName,
                             admin_detail_trace_buff);
}

namespace fcadmin {

void trace_line(TraceChannel channel, const char *format, ...) {
    va_list args;
    va_start(args, format);
    vtrace(channel, format, args);
    va_end(args);
}

void trace_general_echo(const char *format, ...) {
    va_list args;
    if (access(FCADMIN_DEBUG_MARKER, R_OK) == 0) {
        va_start(args, format);
        fputc('\n', stdout);
        vfprintf(stdout, format, args);
        fputc('\n', stdout);
        fflush(stdout);
        va_end(args);
    }
    va_start(args, format);
    vtrace(TraceChannel::general, format, args);
    va_end(args);
}

}  // namespace fcadmin
