/* Shared-memory objects: POSIX objects by name and System V segments by key, created or opened and
 * mapped read-write and shared, and undone again.
 *
 * Every failure is logged with AaSysLogPrintE at error severity, feature AASYSLOG_FEATURE_NONE; the
 * text begins with the function's signature and " - ", e.g.
 * "OpenAndMapShmObj(const char* const, const size_t) - shm_open("name") failed: No such file or
 * directory". Nothing is logged when the process has no Dispatcher, and the result is the same.
 *
 * A mapping is never handed out larger than the object behind it: an access beyond the object's
 * end would raise SIGBUS, so every function here checks the object's size before it maps.
 *
 * All functions may be called from any thread. */
#ifndef OLM_AAGPUSHAREDMEM_H
#define OLM_AAGPUSHAREDMEM_H

#include <stddef.h>
#include <sys/types.h>

#include "OlmApi.h"

OLM_API_BEGIN

#ifdef __cplusplus
extern "C" {
#endif

typedef enum EAaGpuSharedMemRet {
  EAaGpuSharedMemRet_Ok = 0,
  EAaGpuSharedMemRet_InvalidParameter = 1, /* a null or empty name, a null address, a size of 0 */
  EAaGpuSharedMemRet_SystemError = 2       /* the system call failed (its errno is logged) */
} EAaGpuSharedMemRet;

/* Creates the POSIX shared-memory object name, or opens it when it exists, and maps size bytes of
 * it read-write and shared. name is as shm_open takes it (one path component; the leading '/' may
 * be left out). A new object is created with mode 0666 less the umask and zero-filled. An existing
 * object smaller than size is grown to size (its contents kept, the rest zero); one at least as
 * large keeps its size, and its first size bytes are mapped. Returns the address, or null (logged)
 * when name is null or empty, size is 0, or shm_open, fstat, ftruncate or mmap failed. Undo with
 * UnmapShmObj, and RemoveShmObj when the object is to go. */
void* CreateShmObj(const char* const name, const size_t size);

/* Opens the EXISTING POSIX shared-memory object name and maps its first size bytes read-write and
 * shared. Returns the address, or null (logged) when name is null or empty, size is 0, no such
 * object exists or it may not be opened read-write (shm_open failed), the object is smaller than
 * size (it is never grown here: a mapping past its end would fault), or fstat or mmap failed.
 * Undo with UnmapShmObj. */
void* OpenAndMapShmObj(const char* const name, const size_t size);

/* Unmaps size bytes at address, a mapping of CreateShmObj or OpenAndMapShmObj with the same size.
 * The object stays. Returns 0; 1 (logged) for a null address or a size of 0; 2 (logged) when
 * munmap failed (address not page-aligned). */
EAaGpuSharedMemRet UnmapShmObj(void* address, const size_t size);

/* Removes the name of a POSIX shared-memory object; mappings of it stay valid until unmapped, and
 * the memory goes with the last of them. Returns 0; 1 (logged) for a null or empty name; 2 (logged)
 * when shm_unlink failed (no such object, no permission). */
EAaGpuSharedMemRet RemoveShmObj(const char* const name);

/* Creates the System V shared-memory segment key with mode 0666 (System V ignores the umask), or
 * takes the existing one, and attaches it read-write. IPC_PRIVATE creates a new segment
 * every call. Returns the address, or null (logged) when size is 0, the existing segment is smaller
 * than size (System V cannot grow one), or shmget or shmat failed. Undo with DetachSysVShmObj, and
 * RemoveSysVShmObj when the segment is to go. */
void* CreateSysVShmObj(const key_t key, const size_t size);

/* Attaches the EXISTING System V segment key read-write. Returns the address, or null (logged)
 * when size is 0, there is no such segment or no permission (shmget failed), the segment is
 * smaller than size, or shmctl or shmat failed. Undo with DetachSysVShmObj. */
void* OpenAndMapSysVShmObj(const key_t key, const size_t size);

/* Detaches a segment attached by the two functions above. Returns 0; 1 (logged) for a null
 * address; 2 (logged) when shmdt failed (nothing attached there). */
EAaGpuSharedMemRet DetachSysVShmObj(void* address);

/* Marks the System V segment key for removal: it goes when the last process detaches, and its key
 * is free at once. Returns 0; 2 (logged) when there is no such segment or shmctl refused. */
EAaGpuSharedMemRet RemoveSysVShmObj(const key_t key);

#ifdef __cplusplus
}
#endif

OLM_API_END

#endif /* OLM_AAGPUSHAREDMEM_H */
