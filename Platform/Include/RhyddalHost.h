/* What the host replacement of libRHYDDAL.so offers beyond the board's library.
 *
 * The board's closed library does not have these functions. The runtime declares them weak (see
 * RHYDDAL_HOST_OPTIONAL) and calls one only when the library it was loaded with defines it, so the
 * same runtime binary works over either library: on the board it maps /dev/mem and opens the
 * system's fixed object names; on a host it asks the host library where these things are. */
#ifndef RHYDDAL_HOST_H
#define RHYDDAL_HOST_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* How a caller that must also run over the board's library declares these: a weak reference that
 * is null where the function does not exist. */
#define RHYDDAL_HOST_OPTIONAL __attribute__((weak))

/* The file this host emulates the node's physical memory in (layout: RhyddalPhysicalMemory.h):
 * $OLM_DEVMEM when set, else this user's (and namespace's) file in /dev/shm, created sparse on the
 * first call. Null when it cannot be created, or when RHYDDAL_NAMESPACE is not a valid word (a
 * line on stderr says why). Decided on the first call; the string stays valid for the life of the
 * process. */
const char* rhyddal_host_physical_memory_path(void);

/* The POSIX shared-memory name under which this host keeps the object the system knows by the
 * fixed name systemName (for example RHYDDAL_QUEUE_HISTORY_NAME). In a normal run that is the
 * fixed name itself; with RHYDDAL_NAMESPACE set (tests) it is a name private to the namespace.
 * Writes a NUL-terminated name into name. Returns:
 *   0              written
 *   -EINVAL        systemName or name is null; systemName is empty or holds a '/' after an
 *                  optional leading one; or RHYDDAL_NAMESPACE is not a valid word
 *   -ENAMETOOLONG  size is too small; nothing useful was written */
int rhyddal_host_shm_name(const char* systemName, char* name, uint32_t size);

/* Tells the host that this process reads the timing register page (simulation mode, CDMA time)
 * from now on, so that the host keeps the page's words current at the updater's full rate while
 * the node this process serves lives; the updater hears of it at once. A host where no live node
 * asked updates the page only every 100 ms, to save the wake-ups. May be called before or after
 * vak_em_server_init; calling it again does nothing. */
void rhyddal_host_timing_page_in_use(void);

/* Makes what the processes of this host send to node id nid reach the node this process serves,
 * for as long as no node runs at nid: a node of a group without a log collector of its own (the
 * node id ending in hexadecimal D) keeps sending its lines there, and another node collects them.
 * A node that starts at nid takes its id back at once; the alias ends with this process's node (it
 * is removed at an orderly exit, and senders ignore the alias of a node that has gone). Taking an
 * alias this process holds already changes nothing; call it again after a node at nid has gone to
 * take the id back. Returns:
 *   0             sends to nid reach this process's node
 *   -ENOTCONN     this process serves no node (vak_em_server_init first)
 *   -EINVAL       nid is above 0xFFFF or this process's own node id, the node map places nid on
 *                 another host, or RHYDDAL_NAMESPACE is not a valid word
 *   -EADDRINUSE   a node runs at nid
 *   -EBUSY        nid is the alias of another live node
 *   other < 0     the negated errno of a failed system call */
int rhyddal_host_alias(uint32_t nid);

/* Makes every node that starts on this host from now on give the node this process serves the
 * alias of its group's id ending in digit, (its node id AND 0xFFF0) OR digit, as rhyddal_host_alias
 * would, before the starting node can send anything: a log collector so gets a new group's lines
 * from the first one on. Nothing happens for a node whose group's id runs a node, is the starting
 * node itself, is aliased to another live node, or lies on another host by the node map. Aliases
 * so taken end as those of rhyddal_host_alias do; the standing request ends with this process's
 * node. One node per host holds it; calling it again with another digit replaces the digit.
 * Returns:
 *   0             held by this process's node
 *   -ENOTCONN     this process serves no node (vak_em_server_init first)
 *   -EINVAL       digit is above 0xF, or RHYDDAL_NAMESPACE is not a valid word
 *   -EBUSY        another live node holds it
 *   other < 0     the negated errno of a failed system call */
int rhyddal_host_standing_alias(uint32_t digit);

/* One node that runs on this host, as rhyddal_host_live_nodes lists it. */
struct rhyddal_host_node {
  uint16_t nid;
  uint16_t reserved; /* zero */
  uint32_t waiting;  /* messages sent to the node that it has not received yet */
};

/* The nodes that run on this host for this user (in RHYDDAL_NAMESPACE when set), the caller's own
 * node included, in ascending node id order. Writes the first capacity of them into nodes (which
 * may be null when capacity is 0) and returns how many there are, which may exceed capacity; or
 * -EINVAL for nodes null with a capacity, or for an invalid RHYDDAL_NAMESPACE. A node that starts
 * or stops during the call may or may not be listed. Needs no vak_em_server_init: tools that only
 * look at the host call it too. */
int rhyddal_host_live_nodes(struct rhyddal_host_node* nodes, uint32_t capacity);

/* One node on another host, as rhyddal_host_remote_nodes lists it. */
struct rhyddal_host_remote_node {
  uint16_t nid;
  uint16_t reserved;  /* zero */
  char endpoint[204]; /* its host's endpoint in the node map, NUL-terminated */
};

/* The nodes on other hosts that this host's bridge reaches now (they run, and their host has been
 * heard within the last seconds), in ascending node id order: those a send from this host would
 * reach; not the ids their nodes hold as aliases. Writes the first capacity of them into nodes (null when capacity is 0) and returns how
 * many there are, which may exceed capacity. Without a node map (RHYDDAL_NODE_MAP unset) there are
 * none; before a bridge of this host has heard the others, none or some. Returns -EINVAL for nodes
 * null with a capacity, for an invalid RHYDDAL_NAMESPACE or for a map that cannot be read or
 * parsed; another negative errno when the host's table of them cannot be mapped. Needs no
 * vak_em_server_init. */
int rhyddal_host_remote_nodes(struct rhyddal_host_remote_node* nodes, uint32_t capacity);

/* Whether the node map places nid on this host, as the host's bridge knows which host it is: what
 * a tool that is not started with a node id of its own asks before it takes one. Returns 1 (also
 * for every id when there is no map), 0 for an id of another host or of none; -ENOTCONN when no
 * bridge has started on this host yet, so which host it is is not known; -EINVAL for nid above
 * 0xFFFF, an invalid RHYDDAL_NAMESPACE or a map that cannot be read or parsed; another negative
 * errno when the host's table of other hosts cannot be mapped. Needs no vak_em_server_init. */
int rhyddal_host_is_on_this_host(uint32_t nid);

#ifdef __cplusplus
}
#endif

#endif /* RHYDDAL_HOST_H */
