/* fcadmin: support library of a switch's management software, the whole exported interface. */
#ifndef FCADMIN_H
#define FCADMIN_H

#include <pthread.h>
#include <stddef.h>
#include <stdint.h>

#if defined(FCADMIN_BUILDING)
#define FCADMIN_API __attribute__((visibility("default")))
#else
#define FCADMIN_API
#endif

#if defined(__cplusplus)
#define FCADMIN_STATIC_ASSERT(cond, name) static_assert(cond, #name)
extern "C" {
#else
#define FCADMIN_STATIC_ASSERT(cond, name) typedef char fcadmin_assert_##name[(cond) ? 1 : -1]
#endif

/* ---- Fixed paths. A product build may place them through CMake cache variables. ---- */
#ifndef FCADMIN_TRANSFER_LOG
#define FCADMIN_TRANSFER_LOG "/var/log/fcadmin_transfer.log"
#endif
#ifndef FCADMIN_FETCH_DIR
#define FCADMIN_FETCH_DIR "/var/tmp/fcadmin"
#endif
#ifndef FCADMIN_DUMP_FILE
#define FCADMIN_DUMP_FILE "/var/tmp/fcadmin.dump"
#endif
#ifndef FCADMIN_USB_TMP_FILE
#define FCADMIN_USB_TMP_FILE "/tmp/fcadmin_usb.tmp"
#endif
#ifndef FCADMIN_EXPORT_STAGING_DIR
#define FCADMIN_EXPORT_STAGING_DIR "/tmp/fcadmin_export/"
#endif
#ifndef FCADMIN_EXPORT_BATCH_FILE
#define FCADMIN_EXPORT_BATCH_FILE "/tmp/.fcadmin_export.bat"
#endif
#ifndef FCADMIN_EXPORT_SOURCE_DIR
#define FCADMIN_EXPORT_SOURCE_DIR "/var/lib/fcadmin/export"
#endif
#ifndef FCADMIN_DEBUG_MARKER
#define FCADMIN_DEBUG_MARKER "/etc/fcadmin/debug"
#endif
#define FCADMIN_SHM_KEY 0x778899
#define FCADMIN_SEM_KEY 0x778898

/* ---- Shared segment and locks ---- */

extern FCADMIN_API int32_t global_db_shmid;
extern FCADMIN_API int32_t global_db_semid;
extern FCADMIN_API void *global_shm_data_ptr;

FCADMIN_API int32_t admin_shm_client_attach(void);
FCADMIN_API int32_t admin_shm_detach(void);
FCADMIN_API int32_t admin_semop(int32_t delta);
FCADMIN_API int32_t admin_sem_init(void);
FCADMIN_API int32_t admin_shm_db_read_lock(void);
FCADMIN_API int32_t admin_shm_db_read_unlock(void);
FCADMIN_API int32_t admin_shm_db_write_lock(void);
FCADMIN_API int32_t admin_shm_db_write_unlock(void);

/* The usage pattern of the segment: data view (segment + 16) with the lock held, or NULL. */
FCADMIN_API void *admin_shm_reader_open(void);
FCADMIN_API int32_t admin_shm_reader_close(void);
FCADMIN_API void *admin_shm_writer_open(void);
FCADMIN_API int32_t admin_shm_writer_close(void);

FCADMIN_API int32_t mr_create(pthread_rwlock_t *lock);
FCADMIN_API int32_t mr_delete(pthread_rwlock_t *lock);
FCADMIN_API int32_t mr_lock(pthread_rwlock_t *lock, int32_t mode);
FCADMIN_API int32_t mr_unlock(pthread_rwlock_t *lock);
FCADMIN_API int32_t mr_try_lock(pthread_rwlock_t *lock, int32_t mode);

extern FCADMIN_API int32_t admin_trhdl;        /* -1 until set up */
extern FCADMIN_API int32_t admin_detail_trhdl; /* -1 until set up */
extern FCADMIN_API char admin_msg_buff[128];
extern FCADMIN_API char admin_detail_msg_buff[128];
extern FCADMIN_API uint32_t admin_trace_buff[5];
extern FCADMIN_API uint32_t admin_detail_trace_buff[5];

FCADMIN_API int32_t admin_trace_init(void);
FCADMIN_API int32_t esm_trace(int32_t value); /* weak: a program's own definition replaces it */

/* ---- Remote file transfer ---- */

#define ADDR_TYPE_IPV6 2

typedef struct TransferRequest { /* offsets on a 32-bit target */
    uint32_t reserved;           /*    0 */
    char selector[24];           /*    4 */
    char remote_path[256];       /*   28 */
    char protocol[10];           /*  284 */
    char user_name[384];         /*  294 */
    char password[384];          /*  678 */
    char host[768];              /* 1062 */
    char remote_dir[82];         /* 1830 */
    int32_t port;                /* 1912 */
    uint32_t addr_type;          /* 1916 */
    const char *content;         /* 1920; may be NULL */
} TransferRequest;

FCADMIN_STATIC_ASSERT(offsetof(TransferRequest, selector) == 4, selector_offset);
FCADMIN_STATIC_ASSERT(offsetof(TransferRequest, remote_path) == 28, remote_path_offset);
FCADMIN_STATIC_ASSERT(offsetof(TransferRequest, protocol) == 284, protocol_offset);
FCADMIN_STATIC_ASSERT(offsetof(TransferRequest, user_name) == 294, user_name_offset);
FCADMIN_STATIC_ASSERT(offsetof(TransferRequest, password) == 678, password_offset);
FCADMIN_STATIC_ASSERT(offsetof(TransferRequest, host) == 1062, host_offset);
FCADMIN_STATIC_ASSERT(offsetof(TransferRequest, remote_dir) == 1830, remote_dir_offset);
FCADMIN_STATIC_ASSERT(offsetof(TransferRequest, port) == 1912, port_offset);
FCADMIN_STATIC_ASSERT(offsetof(TransferRequest, addr_type) == 1916, addr_type_offset);
FCADMIN_STATIC_ASSERT(offsetof(TransferRequest, content) == 1920, content_offset);
FCADMIN_STATIC_ASSERT(sizeof(TransferRequest) == (sizeof(void *) == 4 ? 1924 : 1928), request_size);

FCADMIN_API char *admin_convert_username_and_password_for_scp(const char *text, uint32_t size);
FCADMIN_API char *admin_convert_username_and_password_for_ftp(const char *text, uint32_t size);
FCADMIN_API int32_t admin_convert_username_and_password(TransferRequest *request);

FCADMIN_API int32_t admin_system_call(const char *command);
FCADMIN_API int32_t getCLIContext(void);
FCADMIN_API void setCLIContext(int32_t value);
extern FCADMIN_API int32_t glb_cli_context;

FCADMIN_API int32_t QueryPassword(const char *user, char *password);

FCADMIN_API int32_t copyRemoteFileToLocalSystem(TransferRequest *request, const char *local_path,
                                                int32_t use_platform_runner);
FCADMIN_API int32_t admin_lib_create_directory(void);
FCADMIN_API char *admin_lib_extract_file_name(const char *path, char *name);

FCADMIN_API int32_t exportFileToRemoteSystem(TransferRequest *request, uint32_t use_platform_shell);
FCADMIN_API int32_t admin_cleanup_after_export(void);
FCADMIN_API int32_t get_file_name_from_path(const char *path, char *dir, char *name);

#define FCADMIN_MESSAGE_TEXT_SIZE 4096

typedef struct ResultMessage {
    int32_t code;
    char text[FCADMIN_MESSAGE_TEXT_SIZE];
} ResultMessage;

typedef struct ResultMessageRow {
    int32_t code;
    char text[FCADMIN_MESSAGE_TEXT_SIZE];
} ResultMessageRow;

FCADMIN_STATIC_ASSERT(offsetof(ResultMessage, text) == 4, message_text_offset);
FCADMIN_STATIC_ASSERT(sizeof(ResultMessage) == 4100, message_size);
FCADMIN_STATIC_ASSERT(sizeof(ResultMessageRow) == 4100, message_row_size);

extern FCADMIN_API const ResultMessageRow result_message_table[]; /* ends with the row {0, ""} */
FCADMIN_API int32_t admin_lib_get_error_msg(ResultMessage *out, int32_t code, const void *context);

/* ---- File utilities ---- */

FCADMIN_API int32_t admin_file_copy(const char *source, const char *destination);
FCADMIN_API int32_t get_crc(const char *path);
FCADMIN_API int32_t get_crc2(const char *path1, const char *path2);
extern FCADMIN_API uint16_t crc_table16[256];
FCADMIN_API uint32_t endian_swap_32(uint32_t value);
FCADMIN_API uint32_t endian_swap_16(uint32_t value);
FCADMIN_API int32_t endian_check(void);
FCADMIN_API unsigned char *base64decode(const char *text, uint32_t length, uint32_t *decoded_length);
FCADMIN_API int32_t _count_bits(int32_t value);

#if defined(__cplusplus)
}
#endif

#endif /* FCADMIN_H */
