#include "NodeAlias.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <string>

#include "HostEnvironment.h"
#include "Mailbox.h"

namespace rhyddal {
namespace {

constexpr size_t kRecordBytes = sizeof(AliasRecord);
constexpr uint16_t kGroupMask = 0xFFF0;
constexpr uint16_t kStandingDigitMask = 0x000F;

// A writable mapping of an alias object, unmapped with the object.
class WritableAlias {
 public:
  // The alias object of that name as it stands, complete or not; null when there is none.
  static std::unique_ptr<WritableAlias> open(const std::string& name) {
    const int fd = shm_open(name.c_str(), O_RDWR | O_CLOEXEC, 0);
    if (fd < 0) return nullptr;
    struct stat status {};
    void* mapping = MAP_FAILED;
    if (fstat(fd, &status) == 0 && static_cast<size_t>(status.st_size) >= kRecordBytes) {
      mapping = mmap(nullptr, kRecordBytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    }
    close(fd);
    if (mapping == MAP_FAILED) return nullptr;
    return std::unique_ptr<WritableAlias>(new WritableAlias(static_cast<AliasRecord*>(mapping)));
  }
  ~WritableAlias() { munmap(record_, kRecordBytes); }
  WritableAlias(const WritableAlias&) = delete;
  WritableAlias& operator=(const WritableAlias&) = delete;

  AliasRecord& record() { return *record_; }
  bool complete() const {
    return record_->magic.load(std::memory_order_acquire) == kAliasMagic && record_->layoutVersion == kAliasLayoutVersion;
  }
  bool isOf(uint16_t target, uint32_t targetTid) const {
    return complete() && record_->target == target && record_->targetTid == targetTid;
  }
  // Whether a sender would follow it now.
  bool live() const {
    if (!complete() || record_->revoked.load(std::memory_order_acquire) != 0) return false;
    std::shared_ptr<Mailbox> target;
    return Mailbox::open(static_cast<uint16_t>(record_->target), &target) == 0 && target->ownerAlive() &&
           target->ownerTid() == record_->targetTid;
  }

 private:
  explicit WritableAlias(AliasRecord* record) : record_(record) {}
  AliasRecord* record_;
};

// Senders that mapped the alias stop following it before its name goes.
void revokeAndUnlink(const std::string& name, WritableAlias& alias) {
  alias.record().revoked.store(1, std::memory_order_release);
  shm_unlink(name.c_str());
}

bool liveNodeAt(uint16_t nid) {
  std::shared_ptr<Mailbox> mailbox;
  return Mailbox::open(nid, &mailbox) == 0 && mailbox->ownerAlive();
}

// The record is written before its magic, so a sender that opens the object in between takes it
// for absent.
int createAlias(const std::string& name, uint16_t alias, uint16_t target, uint32_t targetTid) {
  const int fd = shm_open(name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (fd < 0) return -errno;
  void* mapping = MAP_FAILED;
  if (ftruncate(fd, static_cast<off_t>(kRecordBytes)) == 0) {
    mapping = mmap(nullptr, kRecordBytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  }
  const int rc = mapping == MAP_FAILED ? -errno : 0;
  close(fd);
  if (rc != 0) {
    shm_unlink(name.c_str());
    return rc;
  }
  auto* record = new (mapping) AliasRecord{};
  record->layoutVersion = kAliasLayoutVersion;
  record->alias = alias;
  record->target = target;
  record->targetTid = targetTid;
  record->magic.store(kAliasMagic, std::memory_order_release);
  munmap(mapping, kRecordBytes);
  return 0;
}

// Under the start lock: takeAlias's results.
int placeAlias(uint16_t alias, uint16_t target, uint32_t targetTid) {
  if (liveNodeAt(alias)) return -EADDRINUSE;
  const std::string name = aliasObjectName(alias);
  if (std::unique_ptr<WritableAlias> existing = WritableAlias::open(name)) {
    if (existing->live()) return existing->isOf(target, targetTid) ? 0 : -EBUSY;
    revokeAndUnlink(name, *existing);  // of a node that has gone, or revoked and not yet removed
  }
  return createAlias(name, alias, target, targetTid);
}

}  // namespace

int takeAlias(uint16_t alias, uint16_t target, uint32_t targetTid) {
  if (!namespaceUsable()) return -EINVAL;
  return underNodeStartLock([&] { return placeAlias(alias, target, targetTid); });
}

void revokeAlias(uint16_t nid) {
  if (!namespaceUsable()) return;
  underNodeStartLock([nid] {
    const std::string name = aliasObjectName(nid);
    if (std::unique_ptr<WritableAlias> existing = WritableAlias::open(name)) revokeAndUnlink(name, *existing);
    return 0;
  });
}

// Without the start lock: this runs at exit, possibly from a signal handler that interrupted this
// very process while it held the lock. Nothing can replace the alias meanwhile, as its node still
// lives; a node starting at the id only removes it first.
void releaseAlias(uint16_t alias, uint16_t target, uint32_t targetTid) {
  if (!namespaceUsable()) return;
  const std::string name = aliasObjectName(alias);
  std::unique_ptr<WritableAlias> existing = WritableAlias::open(name);
  if (existing != nullptr && existing->isOf(target, targetTid)) revokeAndUnlink(name, *existing);
}

// The standing alias is an alias record of its own name whose alias field holds the digit.
int takeStandingAlias(uint16_t digit, uint16_t target, uint32_t targetTid) {
  if (!namespaceUsable()) return -EINVAL;
  return underNodeStartLock([&] {
    const std::string name = standingAliasObjectName();
    if (std::unique_ptr<WritableAlias> existing = WritableAlias::open(name)) {
      if (existing->live() && !existing->isOf(target, targetTid)) return -EBUSY;
      if (existing->live() && existing->record().alias == digit) return 0;
      revokeAndUnlink(name, *existing);
    }
    return createAlias(name, digit, target, targetTid);
  });
}

void releaseStandingAlias(uint16_t target, uint32_t targetTid) {
  if (!namespaceUsable()) return;
  const std::string name = standingAliasObjectName();
  std::unique_ptr<WritableAlias> existing = WritableAlias::open(name);
  if (existing != nullptr && existing->isOf(target, targetTid)) revokeAndUnlink(name, *existing);
}

// Runs while the node at nid starts, so the alias is in place before that node can send anything.
// An alias somebody else holds, or a node running at the id, is left alone.
void takeStandingAliasFor(uint16_t nid, const std::function<bool(uint16_t)>& mayAlias) {
  if (!namespaceUsable()) return;
  underNodeStartLock([&] {
    std::unique_ptr<WritableAlias> standing = WritableAlias::open(standingAliasObjectName());
    if (standing == nullptr || !standing->live()) return 0;
    const AliasRecord& request = standing->record();
    const auto alias = static_cast<uint16_t>((nid & kGroupMask) | (request.alias & kStandingDigitMask));
    if (alias == nid || alias == request.target || !mayAlias(alias)) return 0;
    return placeAlias(alias, static_cast<uint16_t>(request.target), request.targetTid);
  });
}

// Every alias the target holds, also those nodes took for it through its standing alias.
void releaseAliasesOf(uint16_t target, uint32_t targetTid) {
  for (const uint16_t alias : listAliasNids()) releaseAlias(alias, target, targetTid);
}

int NodeAlias::open(uint16_t nid, std::shared_ptr<NodeAlias>* out) {
  if (!namespaceUsable()) return -EINVAL;
  const int fd = shm_open(aliasObjectName(nid).c_str(), O_RDONLY | O_CLOEXEC, 0);
  if (fd < 0) return errno == ENOENT ? -EHOSTUNREACH : -errno;
  struct stat status {};
  int rc = 0;
  void* mapping = MAP_FAILED;
  if (fstat(fd, &status) != 0) {
    rc = -errno;
  } else if (static_cast<size_t>(status.st_size) < kRecordBytes) {
    rc = -EHOSTUNREACH;
  } else if ((mapping = mmap(nullptr, kRecordBytes, PROT_READ, MAP_SHARED, fd, 0)) == MAP_FAILED) {
    rc = -errno;
  }
  close(fd);
  if (rc != 0) return rc;
  const auto* record = static_cast<const AliasRecord*>(mapping);
  if (record->magic.load(std::memory_order_acquire) != kAliasMagic || record->layoutVersion != kAliasLayoutVersion ||
      record->alias != nid || record->target > 0xFFFF) {
    munmap(mapping, kRecordBytes);
    return -EHOSTUNREACH;
  }
  out->reset(new NodeAlias(record));
  return 0;
}

NodeAlias::~NodeAlias() { munmap(const_cast<AliasRecord*>(record_), kRecordBytes); }

bool NodeAlias::leadsTo(const Mailbox& mailbox) const {
  return record_->revoked.load(std::memory_order_acquire) == 0 && mailbox.nid() == record_->target &&
         mailbox.ownerTid() == record_->targetTid && mailbox.ownerAlive();
}

std::vector<uint16_t> listAliasNids() { return nidsOfObjects(kAliasObjectKind); }

}  // namespace rhyddal
