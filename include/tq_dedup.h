/*
 * tq_dedup.h - the C interface of the next-generation dedup store library
 * (libtq_dedup.so; tq_dedup.dll on Windows).
 *
 * The module loads the library at run time, on the first Vk4NG saveset it
 * opens: the path comes from the environment variable TQ_DEDUP_LIB, default
 * "libtq_dedup.so" on the library search path.  Every call into the library
 * is made under one process-wide mutex, so an implementation need not be
 * thread-safe; handles are small non-negative integers.
 *
 * Results: negative values are failures unless a function says otherwise;
 * dedup_get_last_message() then describes the last failure.  Strings the
 * library returns are owned by the library and valid until the next call.
 *
 * Log callback: the library reports through the callback given to
 * dedup_init_v2, one NUL-terminated line per call.  A line may start with a
 * level marker "%lN " (N: 0 error, 1 warning, 2 info, 3 trace, other debug).
 */
#ifndef TQ_DEDUP_H
#define TQ_DEDUP_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef int32_t (*TQ_DEDUP_LOG_FN)(const char *line);

/* Connects to the store at host:port with the given transfer type ("hyper",
 * ...); returns a handle (>= 0) or a negative value. */
typedef int32_t (*PFN_dedup_init_v2)(const char *host, int32_t port, const char *httpType, TQ_DEDUP_LOG_FN log);
/* Starts restoring the object `name` on the handle; negative on failure. */
typedef int32_t (*PFN_dedup_start_restore)(int32_t handle, const char *name);
/* Size of the object in bytes; negative on failure. */
typedef int64_t (*PFN_dedup_get_object_size)(int32_t handle, const char *name);
/* Reads up to size bytes of the restore stream into buffer; returns the count
 * (fewer only at the end of the object), 0 on failure. */
typedef int64_t (*PFN_dedup_read_restore)(int32_t handle, char *buffer, int64_t size);
/* Skips bytes of the restore stream; negative on failure. */
typedef int32_t (*PFN_dedup_skip_restore)(int32_t handle, int64_t bytes);
/* Back to the start of the object; non-zero on failure. */
typedef int32_t (*PFN_dedup_rewind_restore)(int32_t handle);
/* Ends the restore and releases the handle; non-zero on failure. */
typedef int32_t (*PFN_dedup_finish_restore)(int32_t handle);
/* Text of the last failure of the calling thread ("" when none). */
typedef const char *(*PFN_dedup_get_last_message)(void);

int32_t dedup_init_v2(const char *host, int32_t port, const char *httpType, TQ_DEDUP_LOG_FN log);
int32_t dedup_start_restore(int32_t handle, const char *name);
int64_t dedup_get_object_size(int32_t handle, const char *name);
int64_t dedup_read_restore(int32_t handle, char *buffer, int64_t size);
int32_t dedup_skip_restore(int32_t handle, int64_t bytes);
int32_t dedup_rewind_restore(int32_t handle);
int32_t dedup_finish_restore(int32_t handle);
const char *dedup_get_last_message(void);

#ifdef __cplusplus
}
#endif

#endif /* TQ_DEDUP_H */
