// Names and settings the host port shares between processes: the names of its objects in
// /dev/shm and the environment variables that size the mailboxes, the pool and the timing updater.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace rhyddal {

// Where POSIX shared-memory objects live on Linux; the port opens some of them as plain files
// (the emulated physical memory, lock files, the directory scan of live nodes).
constexpr const char kShmDirectory[] = "/dev/shm";

// RHYDDAL_NAMESPACE: at most this many letters, digits or underscores.
constexpr size_t kMaxNamespaceLength = 32;

// A positive number from the environment (decimal, 0x hex or 0 octal), clamped to [minimum,
// maximum]; the fallback when the variable is unset. A value that does not parse is reported on
// stderr once per read and replaced by the fallback.
uint64_t environmentNumber(const char* name, uint64_t fallback, uint64_t minimum, uint64_t maximum);

// True when RHYDDAL_NAMESPACE is unset, empty, or a valid word. An invalid word is reported on
// stderr once; the port then creates and opens no object at all rather than fall back to the
// names outside the namespace, which belong to real nodes.
bool namespaceUsable();

// "rhyddal-<uid>-" or, with RHYDDAL_NAMESPACE=<word>, "rhyddal-<uid>-<word>-". Every object of the
// port carries it, so two users, and two test processes, never see each other's nodes. Read from
// the environment on each call (tests fork and set it before the first platform call).
std::string objectPrefix();

// What follows the prefix in the names of nodes' mailboxes and of aliases, before the node id.
constexpr char kMailboxObjectKind[] = "node-";
constexpr char kAliasObjectKind[] = "alias-";

// POSIX shm name of a node's receive mailbox: "/<prefix>node-<nid as 4 hex digits>".
std::string mailboxObjectName(uint16_t nid);
// POSIX shm name of the alias of a node id (NodeAlias.h): "/<prefix>alias-<nid as 4 hex digits>".
std::string aliasObjectName(uint16_t nid);
// POSIX shm name of the host's standing alias (NodeAlias.h): "/<prefix>standing-alias".
std::string standingAliasObjectName();
// The node ids of the objects in /dev/shm named "<prefix><kind><nid as 4 hex digits>".
std::vector<uint16_t> nidsOfObjects(const char* kind);

// POSIX shm name of the host's bridge mailbox: "/<prefix>bridge". Beside it the bridge keeps
// "<prefix>bridge.lock", whose flock elects the process that runs the bridge, and
// "/<prefix>remote-nodes", the node ids on other hosts it can reach now.
std::string bridgeMailboxObjectName();
std::string bridgeLockPath();
std::string remoteNodesObjectName();

// The file behind a POSIX shm name.
std::string shmFilePath(const std::string& objectName);

// Lock file that serialises node start-ups, so that replacing a dead node's mailbox never races
// with another start of the same node id.
std::string nodeStartLockPath();

// The emulated physical memory when OLM_DEVMEM does not name another file.
std::string defaultPhysicalMemoryPath();

// The shm name under which this host keeps the object the system knows by a fixed name
// (rhyddal_host_shm_name). Returns 0, -EINVAL for a name that is empty or holds a '/' after an
// optional leading one, or for an unusable namespace.
int systemObjectName(const char* systemName, std::string* name);

}  // namespace rhyddal
