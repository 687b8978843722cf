/* RAM files: diagnostic buffers of the node (statistics, history and message filter logs,
 * application traces) published as read-only files, without copying them.
 *
 * A buffer is registered under a file name; the registry holds at most 30 files. The registry is
 * seen three ways:
 *   - the directory "fusemnt" in the current directory (the node directory once the node has started):
 *     a flat FUSE file system, served by one background thread pinned to processor 0, mode 0550,
 *     every file mode 0440 with the registered size, owned by the process's user and group;
 *   - ordinary files written by the dumps (stubAaFileRamfsDump*);
 *   - a core file of the process, from which AaFile_parseCoreFile extracts them with the debugger.
 *
 * Threads: registration, removal and the dumps may be called from any thread. The file-system thread
 * reads a buffer while the file stays registered; AaFileRamfsRemove returns only once no read
 * and no callback of that file is in progress, and from then on nothing of it (buffer, callbacks,
 * argument) is touched again, so the owner may free them. Consistency of a buffer's contents
 * while its owner changes it is the owner's business: the lock callback runs on the file-system
 * thread when a reader opens the file, the unlock callback when the reader closes it (a read
 * itself takes no lock of the owner's). A callback must not remove its own file and must not wait
 * for a thread that is removing it. */
#ifndef OLM_AAFILE_H
#define OLM_AAFILE_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#include "OlmApi.h"

OLM_API_BEGIN

#ifdef __cplusplus
extern "C" {
#endif

/* Results of the registry functions. */
typedef enum EAaFileRet {
  EAaFileRet_Ok = 0,
  EAaFileRet_NullArgument = -13,
  EAaFileRet_NoSuchFile = -19,
  EAaFileRet_RegistryFull = -20,
  EAaFileRet_AlreadyRegistered = -27
} EAaFileRet;

/* What an owner's lock or unlock callback returns. The result is not used: a failing lock callback
 * does not fail the open. */
typedef enum EAaFileCallbackAction {
  EAaFileCallbackAction_Ok = 0,
  EAaFileCallbackAction_Failed = 1
} EAaFileCallbackAction;

typedef EAaFileCallbackAction (*TAaFileCallback)(void* arg);

/* Registers size bytes at blockData as the RAM file fileName. The buffer is neither copied nor
 * owned and must stay valid until the file is removed. Names are cut to 255 characters; names that
 * cannot be directory entries ("", ".", "..", names with '/') are registered but never listed.
 * lock and unlock may be null; arg is handed to both. Sizes above 4 GiB - 1 are cut to 32 bits.
 * Reports on standard output ("RamFs set <name>" or an error line).
 * Returns EAaFileRet_Ok; EAaFileRet_NullArgument when fileName or blockData is null;
 * EAaFileRet_AlreadyRegistered when the (cut) name is registered; EAaFileRet_RegistryFull when 30
 * files are registered. On failure the registry is unchanged. */
EAaFileRet AaFileRamfsSetExt(const char* fileName, void* blockData, size_t size, TAaFileCallback lock,
                             TAaFileCallback unlock, void* arg);

/* Removes the RAM file fileName (cut to 255 characters); the owner's buffer is left as it is. Waits
 * for a read or callback of the file in progress on another thread. Reports on standard output.
 * Returns EAaFileRet_Ok; EAaFileRet_NullArgument when fileName is null; EAaFileRet_NoSuchFile when
 * no file of that name is registered. */
EAaFileRet AaFileRamfsRemove(const char* fileName);

/* Mounts the registry at "fusemnt" in the current directory, with the options default_permissions
 * and allow_other, and starts the file-system thread (all asynchronous signals blocked in it, so
 * they reach the process's other threads). A stale "fusemnt" of an earlier run is unmounted (where
 * the process may) and removed first. A process that is not root creates the mount point with owner
 * write permission, which fusermount insists on; it needs read-write access to /dev/fuse,
 * fusermount and "user_allow_other" in /etc/fuse.conf. Failures are logged with AaSysLogPrintE
 * (feature 0x10007). Nothing happens when the registry is already mounted.
 * Returns 0, or -1 when the mount point, the mount or the thread cannot be set up (nothing is left
 * mounted then). */
int AaFileFUSE_Lite_init(void);

/* Unmounts "fusemnt", ends the file-system thread and removes the mount point; nothing when nothing
 * is mounted. Waits for the request the thread is serving (including an owner's callback). Ending
 * the thread sends it SIGTERM, which it blocks: a process-wide SIGTERM disposition (even the default
 * one after a SA_RESETHAND handler has run) is never acted on for it, so a SIGTERM handler may call
 * this and then exit(0). Not async-signal-safe (libfuse's memory is freed): from a signal handler only
 * on the way out of the process. Not from the file-system thread itself (an owner's callback). */
void AaFileFUSE_Lite_terminate(void);

/* Writes every registered file whose name starts with prefix to a file of the same name (at most 99
 * characters) in the current directory, size - trim bytes of it (nothing when trim exceeds the
 * size), between the file's lock and unlock callbacks and under an exclusive flock. Files that
 * cannot be created are skipped. suffix and flag are accepted and not used. Reports each file on
 * standard output. Returns the number of files written; 0 when prefix is null. */
unsigned stubAaFileRamfsDump(const char* prefix, const char* suffix, bool flag, unsigned trim);

/* Dumps the files starting with "mac_", "dl_" and "ul_" (whole). Returns the number written. */
unsigned stubAaFileRamfsDumpHb(void);

/* Dumps the files starting with "tti" without their last four bytes. Returns the number written. */
unsigned stubAaFileRamfsDumpTti(void);

/* Extracts the RAM files registered in a core file of a process running the executable exeFilename
 * into the directory fileOutputDir (created with mode 0755 when missing; existing files are
 * overwritten), by running "/usr/bin/gdb --interpreter=mi --quiet <exe> <core>" with a script. The
 * first argument is not used. Unless keepCore is non-zero the core file is deleted afterwards, also
 * when the extraction fails. Reports through syslog(3) (LOG_ERR, one LOG_WARNING when the directory
 * exists). Returns 0 once the debugger has run its script (a file the debugger could not read is
 * missing from the directory then); -1 when a name is null, the directory cannot be created, the
 * command line exceeds 999 characters, the debugger cannot be started or fed, or the core cannot be
 * deleted. */
int AaFile_parseCoreFile(int unused, char* exeFilename, char* coreFilename, char* fileOutputDir, int keepCore);

#ifdef __cplusplus
}

/* One registered file. The layout is read by the extraction script of AaFile_parseCoreFile: the
 * name at offset 0, the data pointer at 256 and the size after it (offset 260 in a 32-bit process,
 * 264 in a 64-bit one). */
class CRamFs {
 public:
  /* Copies at most 255 characters of name (an all-zero name when name is null). */
  CRamFs(const char* name, void* data, unsigned size, TAaFileCallback lock, TAaFileCallback unlock, void* arg);

  char name[256];
  void* data;
  uint32_t size;
  TAaFileCallback lock;
  TAaFileCallback unlock;
  void* arg;
  uint32_t reserved; /* always 0 */
};

/* 30 slots of records, compared by exact name. Not thread-safe by itself: the registry functions
 * above serialise the process's one registry, g_RamFsFiles; other instances are the caller's. */
class TRamFsSet {
 public:
  static constexpr unsigned kSlotCount = 30;

  constexpr TRamFsSet() : m_slots{} {}
  /* Frees every record still in a slot. */
  ~TRamFsSet();
  TRamFsSet(const TRamFsSet&) = delete;
  TRamFsSet& operator=(const TRamFsSet&) = delete;

  /* Puts record (which the set then owns) into the highest-numbered free slot, so listings run
   * in reverse order of registration. Returns 0; -17 when a slot holds the same name (checked
   * across all slots first); -28 when no slot is free. */
  int insert(CRamFs& record);
  /* Clears the first slot holding key's name and returns its record (now the caller's), or null. */
  CRamFs* erase(const CRamFs& key);
  /* The first record holding key's name, or null. */
  CRamFs* find(const CRamFs& key) const;
  /* The first occupied slot's record, its index in cursor; null when all are free. */
  CRamFs* begin(unsigned& cursor) const;
  /* The next occupied slot's record after cursor, its index in cursor; null at the end. */
  CRamFs* next(unsigned& cursor) const;

 private:
  CRamFs* m_slots[kSlotCount];
};

/* The process's registry, read by the file system, the dumps and the extraction script. */
extern TRamFsSet g_RamFsFiles;

#endif /* __cplusplus */

OLM_API_END

#endif /* OLM_AAFILE_H */
