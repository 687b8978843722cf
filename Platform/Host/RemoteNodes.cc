#include "RemoteNodes.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "HostEnvironment.h"

namespace rhyddal {

static_assert(std::atomic<uint64_t>::is_always_lock_free, "shared words must be plain words");

int RemoteNodes::open(std::unique_ptr<RemoteNodes>* out) {
  if (!namespaceUsable()) return -EINVAL;
  const std::string name = remoteNodesObjectName();
  const int fd = shm_open(name.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0) return -errno;
  struct stat status {};
  int rc = 0;
  void* mapping = MAP_FAILED;
  // Never shrunk: another process may have it mapped already.
  if (fstat(fd, &status) != 0 || (static_cast<size_t>(status.st_size) < kBytes && ftruncate(fd, kBytes) != 0) ||
      (mapping = mmap(nullptr, kBytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0)) == MAP_FAILED) {
    rc = -errno;
  }
  close(fd);
  if (rc != 0) return rc;
  out->reset(new RemoteNodes(static_cast<std::atomic<uint64_t>*>(mapping), true));
  return 0;
}

RemoteNodes::~RemoteNodes() {
  if (mapped_) munmap(words_, kBytes);
}

std::vector<uint16_t> RemoteNodes::reachableNids() const {
  std::vector<uint16_t> nids;
  for (size_t word = 0; word < kWords; ++word) {
    uint64_t bits = words_[word].load(std::memory_order_acquire);
    while (bits != 0) {
      nids.push_back(static_cast<uint16_t>(word * 64 + static_cast<size_t>(__builtin_ctzll(bits))));
      bits &= bits - 1;
    }
  }
  return nids;
}

void RemoteNodes::setBit(size_t firstWord, uint16_t nid, bool value) {
  const uint64_t bit = uint64_t{1} << (nid % 64);
  if (value) {
    words_[firstWord + nid / 64].fetch_or(bit, std::memory_order_release);
  } else {
    words_[firstWord + nid / 64].fetch_and(~bit, std::memory_order_release);
  }
}

void RemoteNodes::set(uint16_t nid, bool reachable) { setBit(0, nid, reachable); }

void RemoteNodes::setAlias(uint16_t nid, bool alias) { setBit(kAliasWords, nid, alias); }

void RemoteNodes::clearAll() {
  for (size_t i = 0; i < kWords; ++i) {
    words_[i].store(0, std::memory_order_release);
    words_[kAliasWords + i].store(0, std::memory_order_release);
  }
}

}  // namespace rhyddal
