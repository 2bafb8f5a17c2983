/* fcadmin: the services that a platform supplies to the library (libfcadmin_host on a Linux host). */
#ifndef FCADMIN_PLATFORM_H
#define FCADMIN_PLATFORM_H

#include <stdint.h>

#if defined(FCADMIN_BUILDING_HOST)
#define FCADMIN_PLATFORM_API __attribute__((visibility("default")))
#else
#define FCADMIN_PLATFORM_API
#endif

#if defined(__cplusplus)
extern "C" {
#endif

#define FCADMIN_EXPORT_LIST_SIZE 1280

FCADMIN_PLATFORM_API int32_t trace_module_init(int32_t *handle, int32_t module_id, int32_t size,
                                               const char *name, uint32_t *descriptor);
FCADMIN_PLATFORM_API int32_t trace_module_store_lvl(int32_t handle, int32_t module_id, int32_t level,
                                                    int32_t flags, const char *text);
FCADMIN_PLATFORM_API int32_t ork_infra_system(const char *command, int32_t options, const char *redirect[5]);
FCADMIN_PLATFORM_API int32_t ork_infra_scanf(const char *prompt, char *answer, int32_t limit);
FCADMIN_PLATFORM_API int32_t ork_verify_password(const char *password);
FCADMIN_PLATFORM_API int32_t console_printf(const char *format, ...) __attribute__((format(printf, 1, 2)));
FCADMIN_PLATFORM_API int32_t geps_2env(void); /* result ignored */
FCADMIN_PLATFORM_API void MD5_hash_compute(unsigned char digest[16], const unsigned char *data, uint32_t length);
FCADMIN_PLATFORM_API int32_t stage_export_content(const char *selector, const char *item,
                                                  char list[FCADMIN_EXPORT_LIST_SIZE]);

#if defined(__cplusplus)
}
#endif

#endif /* FCADMIN_PLATFORM_H */
