// Names and settings the host port shares between processes: per-user object names in /dev/shm
// and the environment variables that size the mailboxes, the pool and the timing updater.
#pragma once

#include <cstdint>
#include <string>

namespace rhyddal {

// Where POSIX shared-memory objects live on Linux; the port opens some of them as plain files
// (the emulated physical memory, lock files, the directory scan of live nodes).
constexpr const char kShmDirectory[] = "/dev/shm";

// A positive number from the environment (decimal, 0x hex or 0 octal), clamped to [minimum,
// maximum]; the fallback when the variable is unset. A value that does not parse is reported on
// stderr once per read and replaced by the fallback.
uint64_t environmentNumber(const char* name, uint64_t fallback, uint64_t minimum, uint64_t maximum);

// "rhyddal-<uid>-": every object of this port is private to the user that runs the nodes, so two
// developers on one host never see each other's nodes.
std::string userObjectPrefix();

// POSIX shm name of a node's receive mailbox: "/rhyddal-<uid>-node-<nid as 4 hex digits>".
std::string mailboxObjectName(uint16_t nid);

// The file behind a POSIX shm name.
std::string shmFilePath(const std::string& objectName);

// Lock file that serialises node start-ups of one user, so that replacing a dead node's mailbox
// never races with another start of the same node id.
std::string nodeStartLockPath();

// The emulated physical memory of this user when OLM_DEVMEM does not name another file.
std::string defaultPhysicalMemoryPath();

}  // namespace rhyddal
