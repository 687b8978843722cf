// The node ids the event machine serves right now, read from its queue table in physical memory
// (RhyddalPhysicalMemory.h): a live node's record holds its node id at index nid & (queues - 1).
#pragma once

#include <cstdint>
#include <vector>

// Empty when the table cannot be mapped (logged).
std::vector<uint16_t> liveNodes();
// The same, false without a word when the table cannot be mapped.
bool readLiveNodes(std::vector<uint16_t>& nodes);
// The same from a table already in memory (RHYDDAL_QUEUE_TABLE_BYTES bytes of 32-bit words).
std::vector<uint16_t> liveNodesIn(const uint32_t* queueTable);
