/*
 * The platform layer: the one write primitive the library uses, kept in a
 * source of its own so that the rest of the library never calls the system
 * directly.
 */
#include "zor_platform.h"

#include <errno.h>
#include <unistd.h>

int pk_write(int32_t fd, const void *bytes, uint64_t len)
{
    const char *p = static_cast<const char *>(bytes);
    while (len != 0) {
        ssize_t n = write(fd, p, len);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return -1;
        }
        if (n == 0) {
            /* No progress and no error: give up rather than spin. */
            errno = EIO;
            return -1;
        }
        p += n;
        len -= static_cast<uint64_t>(n);
    }
    return 0;
}
