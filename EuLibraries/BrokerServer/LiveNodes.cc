#include "LiveNodes.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>

#include "AaSysLog.h"
#include "AaSysMb.h"
#include "RhyddalHost.h"
#include "RhyddalPhysicalMemory.h"

// Present only in the host replacement of the platform library.
extern "C" RHYDDAL_HOST_OPTIONAL const char* rhyddal_host_physical_memory_path(void);

namespace {

// The file that holds physical memory: the host library's emulation, else $OLM_DEVMEM, else the
// board's device.
const char* physicalMemoryFile() {
  if (rhyddal_host_physical_memory_path != nullptr) return rhyddal_host_physical_memory_path();
  const char* device = std::getenv("OLM_DEVMEM");
  return device != nullptr && device[0] != '\0' ? device : "/dev/mem";
}

}  // namespace

std::vector<uint16_t> liveNodesIn(const uint32_t* queueTable) {
  std::vector<uint16_t> nodes;
  for (uint32_t queue = 0; queue < RHYDDAL_QUEUE_COUNT; ++queue) {
    const uint32_t nid = queueTable[queue * RHYDDAL_QUEUE_RECORD_WORDS + RHYDDAL_QUEUE_WORD_NID];
    if (nid != 0 && nid <= 0xFFFF && (nid & (RHYDDAL_QUEUE_COUNT - 1)) == queue) {
      nodes.push_back(static_cast<uint16_t>(nid));
    }
  }
  return nodes;
}

bool readLiveNodes(std::vector<uint16_t>& nodes) {
  const char* file = physicalMemoryFile();
  const int fd = file != nullptr ? open(file, O_RDONLY) : -1;
  void* table = fd >= 0 ? mmap(nullptr, RHYDDAL_QUEUE_TABLE_BYTES, PROT_READ, MAP_SHARED, fd, RHYDDAL_QUEUE_TABLE_PHYSICAL)
                        : MAP_FAILED;
  if (fd >= 0) close(fd);
  if (table == MAP_FAILED) return false;
  nodes = liveNodesIn(static_cast<const uint32_t*>(table));
  munmap(table, RHYDDAL_QUEUE_TABLE_BYTES);
  return true;
}

std::vector<uint16_t> liveNodes() {
  std::vector<uint16_t> nodes;
  if (!readLiveNodes(nodes)) {
    AaSysLogPrintE(EAaSysLogSeverityLevel_Warning, AASYSMB_FEATURE_ID,
                   "BrokerServer: The queue table could not be mapped; live nodes are not asked to announce themselves.");
  }
  return nodes;
}
