/*
 * zor_platform.h - the platform layer: the system primitives the library
 * uses, declared for its own sources (and its tests); not installed and not
 * exported from the shared library.
 */
#ifndef ZOR_PLATFORM_H
#define ZOR_PLATFORM_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/*
 * The platform's write primitive, a thin layer over POSIX write(2): writes
 * all `len` bytes of `bytes` to `fd`, retrying after an interruption by a
 * signal (EINTR) and after a short write. Returns 0 when every byte was
 * written (at once for `len` 0, without calling write(2)), or -1 with errno
 * set by write(2) when a write fails; bytes written before the failure
 * have gone out. A non-blocking descriptor that is full fails with EAGAIN.
 * Writing to a pipe with no reader raises SIGPIPE unless it is ignored.
 */
int pk_write(int32_t fd, const void *bytes, uint64_t len);

#ifdef __cplusplus
}
#endif

#endif /* ZOR_PLATFORM_H */
