/* A C99 program over the installed fcadmin: renders a result message and digests a file, and checks
 * both against their known values. Usage: check_install FILE_HOLDING_123456789 */
#include <fcadmin.h>

#include <stdio.h>
#include <string.h>

static const char kPortMessage[] = "The Server portnumber is not supported for ftp protocol\n";
static const int32_t kDigitsDigest = 637134740;

int main(int argc, char **argv) {
    static ResultMessage message; /* 4 KiB of text: not for the stack of a small thread */
    int32_t digest;
    int failures = 0;

    if (argc != 2) {
        fprintf(stderr, "usage: %s FILE_HOLDING_123456789\n", argv[0]);
        return 2;
    }
    admin_lib_get_error_msg(&message, -44, NULL);
    printf("message of -44: %s", message.text);
    if (strcmp(message.text, kPortMessage) != 0) {
        fprintf(stderr, "unexpected message of -44\n");
        ++failures;
    }
    digest = get_crc(argv[1]);
    printf("digest of %s: %ld\n", argv[1], (long)digest);
    if (digest != kDigitsDigest) {
        fprintf(stderr, "unexpected digest: want %ld\n", (long)kDigitsDigest);
        ++failures;
    }
    return failures == 0 ? 0 : 1;
}
