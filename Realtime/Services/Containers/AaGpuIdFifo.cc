#include "AaGpuIdFifo.h"

#include <new>

#include "ContainerMemory.h"
#include "IdFifo.h"

// The public types are the FIFO of their identifier width.
struct SAaGpuIdFifo : Olm::IdFifo<uint32_t> {
  using IdFifo::IdFifo;
};
struct SAaGpuEuIdFifo : Olm::IdFifo<TAaGpuEuId> {
  using IdFifo::IdFifo;
};

static_assert(SAaGpuIdFifo::kMaxCount == AAGPUIDFIFO_MAX_COUNT, "the published maximum");
static_assert(SAaGpuEuIdFifo::kMaxCount == AAGPUEUIDFIFO_MAX_COUNT, "the published maximum");

// Both families are these templates; function is the exported function's name, for the log.
namespace {

using Olm::logArgumentError;

bool isFifo(const void* fifo, const char* function) { return Olm::isNonNull(fifo, "fifo", function); }

template <typename Fifo>
bool isRange(uint32_t firstId, uint32_t count, const char* function) {
  if (Fifo::isRange(firstId, count)) return true;
  logArgumentError(function, "%u identifiers from %u are not a range of 1 to %u identifiers", count, firstId,
                   Fifo::kMaxCount);
  return false;
}

template <typename Fifo>
size_t memorySize(uint32_t count) {
  return Fifo::isRange(0, count) ? Fifo::memorySize(count) : 0;
}

template <typename Fifo>
EAaGpuIdFifoRet init(void* memory, size_t size, typename Fifo::Id firstId, uint32_t count, Fifo** fifo,
                     const char* function) {
  if (!isFifo(fifo, function) || !isRange<Fifo>(firstId, count, function) ||
      !Olm::isUsableMemory(memory, size, Fifo::memorySize(count), alignof(Fifo), function)) {
    return EAaGpuIdFifoRet_InvalidParameter;
  }
  *fifo = new (memory) Fifo(firstId, count, Olm::BlockOrigin::CallerMemory);
  return EAaGpuIdFifoRet_Ok;
}

template <typename Fifo>
EAaGpuIdFifoRet create(typename Fifo::Id firstId, uint32_t count, Fifo** fifo, const char* function) {
  if (!isFifo(fifo, function) || !isRange<Fifo>(firstId, count, function)) {
    return EAaGpuIdFifoRet_InvalidParameter;
  }
  const size_t size = Fifo::memorySize(count);
  void* block = Olm::allocateBlock(size);
  if (block == nullptr) {
    logArgumentError(function, "no memory for %zu bytes", size);
    return EAaGpuIdFifoRet_NoMemory;
  }
  *fifo = new (block) Fifo(firstId, count, Olm::BlockOrigin::Allocated);
  return EAaGpuIdFifoRet_Ok;
}

template <typename Fifo>
EAaGpuIdFifoRet destroy(Fifo* fifo, const char* function) {
  if (!isFifo(fifo, function)) return EAaGpuIdFifoRet_InvalidParameter;
  if (fifo->origin() != Olm::BlockOrigin::Allocated) {
    logArgumentError(function, "fifo %p lives in its caller's memory", static_cast<void*>(fifo));
    return EAaGpuIdFifoRet_InvalidParameter;
  }
  Olm::freeBlock(fifo);
  return EAaGpuIdFifoRet_Ok;
}

template <typename Fifo>
EAaGpuIdFifoRet get(Fifo* fifo, typename Fifo::Id* id, const char* function) {
  if (!isFifo(fifo, function) || !Olm::isNonNull(id, "id", function)) return EAaGpuIdFifoRet_InvalidParameter;
  return fifo->get(*id) ? EAaGpuIdFifoRet_Ok : EAaGpuIdFifoRet_Empty;
}

template <typename Fifo>
EAaGpuIdFifoRet put(Fifo* fifo, typename Fifo::Id id, const char* function) {
  if (!isFifo(fifo, function)) return EAaGpuIdFifoRet_InvalidParameter;
  switch (fifo->put(id)) {
    case Fifo::PutResult::Ok:
      return EAaGpuIdFifoRet_Ok;
    case Fifo::PutResult::OutOfRange:
      logArgumentError(function, "id %u is not one of the %u from %u", static_cast<uint32_t>(id), fifo->capacity(),
                       fifo->firstId());
      return EAaGpuIdFifoRet_OutOfRange;
    case Fifo::PutResult::AlreadyFree:
      break;
  }
  logArgumentError(function, "id %u is free already", static_cast<uint32_t>(id));
  return EAaGpuIdFifoRet_AlreadyFree;
}

template <typename Fifo>
uint32_t count(const Fifo* fifo, const char* function) {
  return isFifo(fifo, function) ? fifo->freeCount() : 0;
}

template <typename Fifo>
uint32_t isFree(const Fifo* fifo, typename Fifo::Id id, const char* function) {
  return isFifo(fifo, function) && fifo->isFree(id) ? 1 : 0;
}

}  // namespace

extern "C" {

size_t AaGpuIdFifo_MemorySize(uint32_t count) { return memorySize<SAaGpuIdFifo>(count); }

EAaGpuIdFifoRet AaGpuIdFifo_Init(void* memory, size_t size, uint32_t firstId, uint32_t count, SAaGpuIdFifo** fifo) {
  return init(memory, size, firstId, count, fifo, __func__);
}

EAaGpuIdFifoRet AaGpuIdFifo_Create(uint32_t firstId, uint32_t count, SAaGpuIdFifo** fifo) {
  return create(firstId, count, fifo, __func__);
}

EAaGpuIdFifoRet AaGpuIdFifo_Destroy(SAaGpuIdFifo* fifo) { return destroy(fifo, __func__); }
EAaGpuIdFifoRet AaGpuIdFifo_Get(SAaGpuIdFifo* fifo, uint32_t* id) { return get(fifo, id, __func__); }
EAaGpuIdFifoRet AaGpuIdFifo_Put(SAaGpuIdFifo* fifo, uint32_t id) { return put(fifo, id, __func__); }
uint32_t AaGpuIdFifo_Count(const SAaGpuIdFifo* fifo) { return count(fifo, __func__); }
uint32_t AaGpuIdFifo_IsFree(const SAaGpuIdFifo* fifo, uint32_t id) { return isFree(fifo, id, __func__); }

size_t AaGpuEuIdFifo_MemorySize(uint32_t count) { return memorySize<SAaGpuEuIdFifo>(count); }

EAaGpuIdFifoRet AaGpuEuIdFifo_Init(void* memory, size_t size, TAaGpuEuId firstId, uint32_t count,
                                   SAaGpuEuIdFifo** fifo) {
  return init(memory, size, firstId, count, fifo, __func__);
}

EAaGpuIdFifoRet AaGpuEuIdFifo_Create(TAaGpuEuId firstId, uint32_t count, SAaGpuEuIdFifo** fifo) {
  return create(firstId, count, fifo, __func__);
}

EAaGpuIdFifoRet AaGpuEuIdFifo_Destroy(SAaGpuEuIdFifo* fifo) { return destroy(fifo, __func__); }
EAaGpuIdFifoRet AaGpuEuIdFifo_Get(SAaGpuEuIdFifo* fifo, TAaGpuEuId* id) { return get(fifo, id, __func__); }
EAaGpuIdFifoRet AaGpuEuIdFifo_Put(SAaGpuEuIdFifo* fifo, TAaGpuEuId id) { return put(fifo, id, __func__); }
uint32_t AaGpuEuIdFifo_Count(const SAaGpuEuIdFifo* fifo) { return count(fifo, __func__); }
uint32_t AaGpuEuIdFifo_IsFree(const SAaGpuEuIdFifo* fifo, TAaGpuEuId id) { return isFree(fifo, id, __func__); }

}  // extern "C"
