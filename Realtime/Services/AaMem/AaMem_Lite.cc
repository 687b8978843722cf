#include <fcntl.h>
#include <limits.h>
#include <semaphore.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>

#include "AaGpuHelpers.h"
#include "AaMem.h"
#include "IRuntime.h"
#include "OlmAssert.h"
#include "RamRoot.h"

OLM_ASSERT_SOURCE("Realtime/Services/AaMem/AaMem_Lite")

namespace {

// The two words right before a block's address.
struct SBlockHeader {
  uint32_t magic;
  uint32_t refCount;
};

constexpr size_t kPrefixSize = AAMEM_BLOCK_PREFIX_SIZE;
static_assert(sizeof(SBlockHeader) == 8, "the magic and the count are two 32-bit words");
static_assert(kPrefixSize == (sizeof(void*) == 8 ? 16u : 8u), "8-byte prefix on 32-bit targets, 16 on 64-bit");
static_assert(kPrefixSize >= sizeof(SBlockHeader), "the words end the prefix");
// operator new must hand out this alignment, and the heap gives at least that much.
static_assert(kPrefixSize % __STDCPP_DEFAULT_NEW_ALIGNMENT__ == 0, "a block keeps the heap's alignment");
static_assert(alignof(std::max_align_t) <= kPrefixSize, "a block keeps the heap's alignment");

constexpr uint32_t kMagic = AAMEM_BLOCK_MAGIC;
constexpr uint32_t kFreedMagic = 0;
constexpr int32_t kTraceOn = 1;
constexpr int32_t kTraceOff = 0;
constexpr int32_t kNotFound = -1;
constexpr uint32_t kFillWord = AAMEM_TRACE_FILL_WORD;
constexpr size_t kWordSize = sizeof(uint32_t);
constexpr int kSemaphoreSharedBetweenProcesses = 1;
constexpr unsigned kSemaphoreFree = 1;
constexpr mode_t kTraceFileMode = 0644;
constexpr size_t kSeparatorLength = 75;
// A trace line: its fixed text and numbers, and the call stack.
constexpr size_t kTraceLineSize = AAMEM_STACK_TRACE_SIZE + 256;

// The heap's exhaustion is reported as this source line and function, which the node's log
// filters know.
constexpr unsigned kHeapExhaustedLine = 237;
constexpr char kAaMemMallocSignature[] = "void* AaMemMalloc(u32)";

struct SAllocEntry {
  uintptr_t address;  // the block's address; 0 marks a free entry
  uint32_t size;
  uint32_t allocTime;  // seconds since the epoch
  char callStack[AAMEM_STACK_TRACE_SIZE];
};

SAllocEntry allocArray[AAMEM_ALLOC_TABLE_SIZE];
int32_t allocCount = 0;  // allocations performed while tracing
sem_t allocArraySem;
// Entries in use, so that releases with tracing off look into the table only when it holds some.
int32_t usedEntries = 0;

void writeAll(int fd, const char* text, size_t length) {
  while (length > 0) {
    const ssize_t written = write(fd, text, length);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;
    text += written;
    length -= static_cast<size_t>(written);
  }
}

void writeText(const char* text) { writeAll(STDERR_FILENO, text, std::strlen(text)); }

// snprintf's result clamped to what the buffer holds.
size_t formatted(int result, size_t bufferSize) {
  if (result < 0) return 0;
  return static_cast<size_t>(result) < bufferSize ? static_cast<size_t>(result) : bufferSize - 1;
}

bool tracing() { return __atomic_load_n(&glo_AllocTraceEnabled, __ATOMIC_RELAXED) == kTraceOn; }

SBlockHeader* headerOf(void* block) {
  return reinterpret_cast<SBlockHeader*>(static_cast<char*>(block) - sizeof(SBlockHeader));
}

void* heapMemoryOf(void* block) { return static_cast<char*>(block) - kPrefixSize; }

uint32_t traceSize(size_t size) { return size > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(size); }

int32_t entryHolding(uintptr_t address) {
  for (int32_t index = 0; index < AAMEM_ALLOC_TABLE_SIZE; ++index) {
    if (allocArray[index].address == address) return index;
  }
  return kNotFound;
}

void clearEntry(int32_t index) {
  allocArray[index].address = 0;
  allocArray[index].size = 0;
  __atomic_sub_fetch(&usedEntries, 1, __ATOMIC_RELAXED);
}

// Blocks entered before tracing was switched off leave the table without a word when released,
// so that no later trace reads their freed memory.
void forgetQuietly(void* block) {
  if (__atomic_load_n(&usedEntries, __ATOMIC_RELAXED) == 0) return;
  const int32_t index = entryHolding(reinterpret_cast<uintptr_t>(block));
  if (index != kNotFound) clearEntry(index);
}

void waitForTable() {
  while (sem_wait(&allocArraySem) != 0 && errno == EINTR) {
  }
}

// Never inlined: the call-stack buffer lives on the stack only while tracing.
__attribute__((noinline)) void traceAllocation(void* block, size_t size) {
  waitForTable();
  ++allocCount;
  char stack[AAMEM_STACK_TRACE_SIZE];
  getStackTrace(stack);
  addToMemAllocArr(block, traceSize(size), stack);
  sem_post(&allocArraySem);
}

// Inlined into each entry point, so that a traced call stack names AaMemMalloc or the operator
// new the caller used.
inline __attribute__((always_inline)) void* allocateBlock(size_t size) {
  // Initialised on every allocation: a long-standing habit of this service, kept (see AaMem.h).
  if (sem_init(&allocArraySem, kSemaphoreSharedBetweenProcesses, kSemaphoreFree) != 0) {
    writeText("\nallocArraySem init failed\n");
  }
  void* memory = size <= SIZE_MAX - kPrefixSize ? std::malloc(size + kPrefixSize) : nullptr;
  if (memory == nullptr) Olm::assertFail("0", kOlmAssertSource, kHeapExhaustedLine, kAaMemMallocSignature);
  void* block = static_cast<char*>(memory) + kPrefixSize;
  if (tracing()) traceAllocation(block, size);
  *headerOf(block) = SBlockHeader{kMagic, 1};
  return block;
}

void releaseBlock(void* block) {
  if (block == nullptr) return;
  void* copy = block;
  AaMemUnRef(&copy);
}

uint32_t unwrittenWords(const SAllocEntry& entry) {
  const char* bytes = reinterpret_cast<const char*>(entry.address);
  uint32_t count = 0;
  for (uint32_t word = 0; word < entry.size / kWordSize; ++word) {
    uint32_t value;
    std::memcpy(&value, bytes + word * kWordSize, sizeof(value));
    if (value == kFillWord) ++count;
  }
  return count;
}

void writeTraceEntry(int fd, const SAllocEntry& entry) {
  const uint32_t unused = unwrittenWords(entry);
  char line[kTraceLineSize];
  const int result = std::snprintf(line, sizeof(line),
                                   "allocTime:%ld:addr:0x%p:sizeAlloc:%d:sizeUsed(RSS):%d:sizeUnused:%d:callStack:%s\n",
                                   static_cast<long>(entry.allocTime), reinterpret_cast<void*>(entry.address),
                                   static_cast<int>(entry.size), static_cast<int>(entry.size - unused),
                                   static_cast<int>(unused), entry.callStack);
  writeAll(fd, line, formatted(result, sizeof(line)));
}

void writeTrace(int fd) {
  char line[kTraceLineSize];
  int result = std::snprintf(line, sizeof(line), "Sum of memory allocations performed: %d, current time: %ld\n",
                             allocCount, static_cast<long>(std::time(nullptr)));
  writeAll(fd, line, formatted(result, sizeof(line)));
  for (const SAllocEntry& entry : allocArray) {
    if (entry.address != 0) writeTraceEntry(fd, entry);
  }
  std::memset(line, '=', kSeparatorLength);
  line[kSeparatorLength] = '\n';
  writeAll(fd, line, kSeparatorLength + 1);
}

uint16_t ownNid() {
  Olm::IRuntime* runtime = Olm::IRuntime::getTheRuntime();
  return runtime != nullptr ? runtime->getOwnNid() : 0;
}

}  // namespace

extern "C" {

int32_t glo_AllocTraceEnabled = kTraceOff;

void* AaMemMalloc(uint32_t size) { return allocateBlock(size); }

void* AaMemAlloc(TAaMemPoolId, uint32_t size) { return allocateBlock(size); }

// One function under two names, as callers of either have always got.
void* AaMemAllocSafe(TAaMemPoolId poolId, uint32_t size) __attribute__((alias("AaMemAlloc")));

void* AaMemAllocSafeId(TAaMemPoolId, uint32_t size) { return allocateBlock(size); }

void AaMemRef(void* block) {
  if (block == nullptr) return;
  SBlockHeader* header = headerOf(block);
  if (header->magic == kMagic) __atomic_add_fetch(&header->refCount, 1, __ATOMIC_RELAXED);
}

void AaMemUnRef(void** handle) {
  if (handle == nullptr || *handle == nullptr) return;
  void* block = *handle;
  if (tracing()) {
    removeFromAllocArr(block);
  } else {
    forgetQuietly(block);
  }
  SBlockHeader* header = headerOf(block);
  if (header->magic != kMagic) {
    writeText("AaMemUnRef: Unknown memory pointer to free\n");
    return;
  }
  // The last holder sees every write the others made before their releases.
  if (__atomic_sub_fetch(&header->refCount, 1, __ATOMIC_ACQ_REL) == 0) {
    // A second release of the freed block is refused as long as the heap has not reused it.
    header->magic = kFreedMagic;
    std::free(heapMemoryOf(block));
  }
  *handle = nullptr;
}

void signalSIGUSR1Handler(void) {
  const int savedErrno = errno;
  char path[PATH_MAX];
  std::snprintf(path, sizeof(path), "%s/OLMLiteMemActiveAllocks_%x.log", Olm::ramRoot(),
                static_cast<unsigned>(ownNid()));
  const int fd = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, kTraceFileMode);
  char note[PATH_MAX + 64];
  if (fd < 0) {
    std::snprintf(note, sizeof(note), "signalSIGUSR1Handler(): cannot open \"%s\": %s\n", path,
                  strerrordesc_np(errno));
    writeText(note);
    errno = savedErrno;
    return;
  }
  writeTrace(fd);
  std::snprintf(note, sizeof(note), "Check file \"%s\" for allocation trace\n", path);
  writeText(note);
  close(fd);
  errno = savedErrno;
}

void signalSIGUSR2Handler(void) {
  const int savedErrno = errno;
  if (__atomic_load_n(&glo_AllocTraceEnabled, __ATOMIC_RELAXED) != kTraceOn) {
    __atomic_store_n(&glo_AllocTraceEnabled, kTraceOn, __ATOMIC_RELAXED);
    writeText("Allocation trace enabled\n");
  } else {
    __atomic_store_n(&glo_AllocTraceEnabled, kTraceOff, __ATOMIC_RELAXED);
    writeText("Allocation trace disabled\n");
  }
  errno = savedErrno;
}

// Never inlined: the stack starts at this function's own frame.
__attribute__((noinline)) void getStackTrace(char* text) {
  if (AaGpuHelpersBacktraceSymbols(text, AAMEM_STACK_TRACE_SIZE, AAMEM_STACK_TRACE_MAX_FRAMES) != EAaGpuHelpersRet_Ok) {
    text[0] = '\0';
  }
  // Keeps the call above from becoming a tail call, which would drop this frame.
  asm volatile("" ::: "memory");
}

int32_t findAddrInAllocArr(uintptr_t address) {
  const int32_t index = entryHolding(address);
  if (index == kNotFound) writeText("!!!!findAddrInAllocArr returns -1\n");
  return index;
}

void addToMemAllocArr(void* block, uint32_t size, const char* stack) {
  if (block == nullptr) {
    writeText("addToMemAllocArr(): block is null\n");
    return;
  }
  char* bytes = static_cast<char*>(block);
  for (uint32_t word = 0; word < size / kWordSize; ++word) std::memcpy(bytes + word * kWordSize, &kFillWord, kWordSize);
  const int32_t index = findAddrInAllocArr(0);
  if (index == kNotFound) {
    writeText("!!!!addToMemAllocArr - cant add elem. to table\n");
    return;
  }
  SAllocEntry& entry = allocArray[index];
  entry.address = reinterpret_cast<uintptr_t>(block);
  entry.size = size;
  entry.allocTime = static_cast<uint32_t>(std::time(nullptr));
  std::strncpy(entry.callStack, stack != nullptr ? stack : "", sizeof(entry.callStack) - 1);
  entry.callStack[sizeof(entry.callStack) - 1] = '\0';
  __atomic_add_fetch(&usedEntries, 1, __ATOMIC_RELAXED);
}

void removeFromAllocArr(void* block) {
  const int32_t index = block != nullptr ? findAddrInAllocArr(reinterpret_cast<uintptr_t>(block)) : kNotFound;
  if (index == kNotFound) {
    if (block == nullptr) writeText("!!!!findAddrInAllocArr returns -1\n");
    writeText("!!!!removeFromAllocArr - cant remove elem. from table\n");
    return;
  }
  clearEntry(index);
}

}  // extern "C"

// The library's global operator new and delete. The align_val_t forms stay the standard
// library's: they take memory from aligned_alloc and give it back with free, only ever to each
// other and never through the plain forms, and a block aligned beyond the prefix would need a
// prefix as large as the alignment, which AaMemUnRef cannot tell from the address. A failure
// inside a delete ends the process through std::terminate (they are noexcept).

void* operator new(std::size_t size) { return allocateBlock(size); }
void* operator new[](std::size_t size) { return allocateBlock(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return allocateBlock(size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return allocateBlock(size); }
void* operator new(std::size_t size, int) { return allocateBlock(size); }
void* operator new[](std::size_t size, int) { return allocateBlock(size); }
void* operator new(std::size_t size, const char*, int) { return allocateBlock(size); }
void* operator new[](std::size_t size, const char*, int) { return allocateBlock(size); }

void operator delete(void* block) noexcept { releaseBlock(block); }
void operator delete[](void* block) noexcept { releaseBlock(block); }
void operator delete(void* block, std::size_t) noexcept { releaseBlock(block); }
void operator delete[](void* block, std::size_t) noexcept { releaseBlock(block); }
void operator delete(void* block, const std::nothrow_t&) noexcept { releaseBlock(block); }
void operator delete[](void* block, const std::nothrow_t&) noexcept { releaseBlock(block); }
// The (int) forms match new(size, int): a constructor that throws gives its memory back.
void operator delete(void* block, int) noexcept { releaseBlock(block); }
void operator delete[](void* block, int) noexcept { releaseBlock(block); }
void operator delete(void* block, const char*, int) noexcept { releaseBlock(block); }
void operator delete[](void* block, const char*, int) noexcept { releaseBlock(block); }
