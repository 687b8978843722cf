#include "AaMem.h"

#include <malloc.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define OLM_SANITIZER_HEAP 1
// The sanitizers' allocator statistics (GCC ships no header for them).
extern "C" size_t __sanitizer_get_current_allocated_bytes(void);
#endif

#include "FakeRuntime.h"
#include "RamRoot.h"

namespace {

using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

constexpr char kUnknownPointer[] = "AaMemUnRef: Unknown memory pointer to free";
constexpr char kTableFull[] = "!!!!addToMemAllocArr - cant add elem. to table";
constexpr size_t kLargeBlock = 1 << 20;  // served by mmap and unmapped when freed

struct SWords {
  uint32_t magic;
  uint32_t refCount;
};

// Out of line and through an opaque pointer: the compiler knows how large a new-expression's
// memory is and would call reading before it out of bounds, which here is the point.
__attribute__((noinline)) SWords wordsBefore(const void* block) {
  asm("" : "+r"(block));
  SWords words;
  std::memcpy(&words, static_cast<const char*>(block) - sizeof(words), sizeof(words));
  return words;
}

// Bytes the heap has handed out and not taken back.
size_t heapBytesInUse() {
#ifdef OLM_SANITIZER_HEAP
  return __sanitizer_get_current_allocated_bytes();
#else
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
#endif
}

// Looked up with tracing off, so that the capture's own allocations stay out of the table.
bool inTable(uintptr_t address) {
  const int32_t tracing = glo_AllocTraceEnabled;
  glo_AllocTraceEnabled = 0;
  CaptureStderr();
  const bool found = findAddrInAllocArr(address) >= 0;
  GetCapturedStderr();
  glo_AllocTraceEnabled = tracing;
  return found;
}

// The host's installation: the handlers take no signal number.
void installTraceSignals() {
  struct sigaction action = {};
  sigemptyset(&action.sa_mask);
  action.sa_handler = [](int) { signalSIGUSR1Handler(); };
  sigaction(SIGUSR1, &action, nullptr);
  action.sa_handler = [](int) { signalSIGUSR2Handler(); };
  sigaction(SIGUSR2, &action, nullptr);
}

class AaMemTest : public OlmTest::FakeRuntimeTest {
 protected:
  static void SetUpTestSuite() {
    static char root[] = "/tmp/aamem_test.XXXXXX";
    static const bool made = mkdtemp(root) != nullptr && setenv(Olm::kRamRootVariable, root, 1) == 0;
    ASSERT_TRUE(made);
    ASSERT_STREQ(Olm::ramRoot(), root);
    installTraceSignals();
    // A fixed threshold: large blocks always come from mmap, whatever was freed before.
    mallopt(M_MMAP_THRESHOLD, kLargeBlock / 2);
  }
  static void TearDownTestSuite() {
    unlink(traceFile().c_str());
    rmdir(Olm::ramRoot());
  }
  void TearDown() override {
    glo_AllocTraceEnabled = 0;
    FakeRuntimeTest::TearDown();
  }

  static std::string traceFile() {
    char name[64];
    std::snprintf(name, sizeof(name), "/OLMLiteMemActiveAllocks_%x.log", OlmTest::kOwnNid);
    return Olm::ramRoot() + std::string(name);
  }
  static std::string traceText() {
    std::ifstream file(traceFile());
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
  }
};

TEST_F(AaMemTest, BlocksCarryMagicAndCountBeforeTheAlignedAddress) {
  void* blocks[] = {AaMemMalloc(1), AaMemAlloc(7, 100), AaMemAllocSafe(7, 0), AaMemAllocSafeId(7, 3)};
  for (void*& block : blocks) {
    EXPECT_EQ(reinterpret_cast<uintptr_t>(block) % __STDCPP_DEFAULT_NEW_ALIGNMENT__, 0u);
    EXPECT_EQ(wordsBefore(block).magic, AAMEM_BLOCK_MAGIC);
    EXPECT_EQ(wordsBefore(block).refCount, 1u);
    AaMemUnRef(&block);
    EXPECT_EQ(block, nullptr);
  }
  EXPECT_EQ(reinterpret_cast<void*>(&AaMemAllocSafe), reinterpret_cast<void*>(&AaMemAlloc));
}

TEST_F(AaMemTest, SecondUnRefAfterOneRefFreesTheBlockAndEachNullsItsHandle) {
  void* block = AaMemMalloc(kLargeBlock);
  void* other = block;
  AaMemRef(block);
  const size_t inUse = heapBytesInUse();
  AaMemUnRef(&block);
  EXPECT_EQ(block, nullptr);
  EXPECT_EQ(wordsBefore(other).refCount, 1u);
  EXPECT_EQ(heapBytesInUse(), inUse);
  AaMemUnRef(&other);
  EXPECT_EQ(other, nullptr);
  EXPECT_LE(heapBytesInUse() + kLargeBlock, inUse);
}

TEST_F(AaMemTest, ForeignPointersAndNullsAreLeftAlone) {
  uint32_t foreign[8] = {0, 0, 1, 1, 0, 0, 0, 0};
  void* handle = &foreign[4];
  AaMemRef(handle);
  CaptureStderr();
  AaMemUnRef(&handle);
  EXPECT_NE(GetCapturedStderr().find(kUnknownPointer), std::string::npos);
  EXPECT_EQ(handle, &foreign[4]);
  EXPECT_EQ(foreign[3], 1u);

  void* null = nullptr;
  AaMemRef(null);
  AaMemUnRef(&null);
  AaMemUnRef(nullptr);
}

TEST_F(AaMemTest, ReferencesFromSeveralThreadsBalance) {
  void* block = AaMemMalloc(8);
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 4; ++thread) {
    threads.emplace_back([block] {
      for (int round = 0; round < 1000; ++round) {
        AaMemRef(block);
        void* copy = block;
        AaMemUnRef(&copy);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wordsBefore(block).refCount, 1u);
  AaMemUnRef(&block);
}

TEST_F(AaMemTest, HeapExhaustionIsTheFixedAssertion) {
  volatile size_t beyondTheAddressSpace = SIZE_MAX - 4;
  EXPECT_DEATH(static_cast<void>(::operator new(beyondTheAddressSpace)),
               "Realtime/Services/AaMem/AaMem_Lite:237: void\\* AaMemMalloc\\(u32\\): Assertion `0' failed");
}

TEST_F(AaMemTest, Sigusr2TogglesTracing) {
  glo_AllocTraceEnabled = 5;
  CaptureStderr();
  raise(SIGUSR2);
  EXPECT_EQ(glo_AllocTraceEnabled, 1);
  raise(SIGUSR2);
  EXPECT_EQ(glo_AllocTraceEnabled, 0);
  EXPECT_EQ(GetCapturedStderr(), "Allocation trace enabled\nAllocation trace disabled\n");
}

TEST_F(AaMemTest, BlockBeyondAFullTableIsReturnedButNotEntered) {
  std::vector<uint32_t> placeholders(AAMEM_ALLOC_TABLE_SIZE);
  for (uint32_t& placeholder : placeholders) addToMemAllocArr(&placeholder, sizeof(placeholder), "placeholder;");
  glo_AllocTraceEnabled = 1;
  CaptureStderr();
  void* block = AaMemMalloc(16);
  glo_AllocTraceEnabled = 0;
  EXPECT_NE(GetCapturedStderr().find(kTableFull), std::string::npos);
  EXPECT_EQ(wordsBefore(block).magic, AAMEM_BLOCK_MAGIC);
  EXPECT_FALSE(inTable(reinterpret_cast<uintptr_t>(block)));
  AaMemUnRef(&block);
  CaptureStderr();
  for (uint32_t& placeholder : placeholders) removeFromAllocArr(&placeholder);
  EXPECT_EQ(GetCapturedStderr(), "");
}

// The allocation count of each dump in text, in order.
std::vector<int> sums(const std::string& text) {
  static const std::string kSum = "Sum of memory allocations performed: ";
  std::vector<int> counts;
  for (size_t at = text.find(kSum); at != std::string::npos; at = text.find(kSum, at + 1)) {
    counts.push_back(std::atoi(text.c_str() + at + kSum.size()));
  }
  return counts;
}

std::string entryLine(void* block, const char* sizes) {
  char address[32];
  std::snprintf(address, sizeof(address), "0x%p", block);
  return std::string(":addr:") + address + sizes + ":callStack:getStackTrace+0x";
}

TEST_F(AaMemTest, Sigusr1AppendsTheTableWithTheWordsNeverWritten) {
  const size_t start = traceText().size();
  CaptureStderr();
  raise(SIGUSR1);
  glo_AllocTraceEnabled = 1;
  void* fourBytesWritten = AaMemMalloc(16);
  void* allWritten = AaMemMalloc(16);
  void* partialWord = AaMemMalloc(6);
  glo_AllocTraceEnabled = 0;
  std::memset(fourBytesWritten, 0, 4);
  std::memset(allWritten, 0, 16);
  raise(SIGUSR1);
  const std::string notes = GetCapturedStderr();
  const std::string text = traceText().substr(start);

  const std::vector<int> counts = sums(text);
  ASSERT_EQ(counts.size(), 2u) << text;
  EXPECT_EQ(counts[1] - counts[0], 3);
  EXPECT_NE(text.find(entryLine(fourBytesWritten, ":sizeAlloc:16:sizeUsed(RSS):13:sizeUnused:3")), std::string::npos);
  EXPECT_NE(text.find(entryLine(allWritten, ":sizeAlloc:16:sizeUsed(RSS):16:sizeUnused:0")), std::string::npos);
  EXPECT_NE(text.find(entryLine(partialWord, ":sizeAlloc:6:sizeUsed(RSS):5:sizeUnused:1")), std::string::npos);
  EXPECT_NE(text.find(";AaMemMalloc+0x"), std::string::npos);
  EXPECT_EQ(text.substr(text.size() - 76), std::string(75, '=') + "\n");
  const std::string note = "Check file \"" + traceFile() + "\" for allocation trace\n";
  EXPECT_EQ(notes, note + note);
  for (void* block : {fourBytesWritten, allWritten, partialWord}) AaMemUnRef(&block);
}

TEST_F(AaMemTest, StackTextEndsEachOfAtMost16FramesWithASemicolon) {
  char text[AAMEM_STACK_TRACE_SIZE];
  getStackTrace(text);
  const std::string stack(text);
  EXPECT_EQ(stack.rfind("getStackTrace+0x", 0), 0u) << stack;
  EXPECT_EQ(stack.back(), ';');
  EXPECT_LE(std::count(stack.begin(), stack.end(), ';'), 16);
}

struct Plain {
  uint64_t value[3];
};
struct alignas(16) Aligned16 {
  char value[24];
};
struct alignas(64) Aligned64 {
  char value[64];
};
struct Throwing {
  Throwing() { throw 1; }
};

// With tracing on, an allocation through AaMem is in the table until its release takes it out.
template <typename Allocate, typename Release>
void expectRoutedThroughAaMem(Allocate allocate, Release release) {
  glo_AllocTraceEnabled = 1;
  auto* block = allocate();
  EXPECT_EQ(wordsBefore(block).magic, AAMEM_BLOCK_MAGIC);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(block) % __STDCPP_DEFAULT_NEW_ALIGNMENT__, 0u);
  const uintptr_t address = reinterpret_cast<uintptr_t>(block);
  EXPECT_TRUE(inTable(address));
  release(block);
  EXPECT_FALSE(inTable(address));
  glo_AllocTraceEnabled = 0;
}

TEST_F(AaMemTest, EveryFormOfNewAndDeleteRoundTripsThroughAaMem) {
  expectRoutedThroughAaMem([] { return new Plain; }, [](Plain* p) { delete p; });
  expectRoutedThroughAaMem([] { return new Plain[3]; }, [](Plain* p) { delete[] p; });
  // 16 bytes is the ordinary new's alignment on 64-bit builds; on 32-bit ARM (8) such a type takes
  // the aligned forms, which stay the standard library's.
  if constexpr (alignof(Aligned16) <= __STDCPP_DEFAULT_NEW_ALIGNMENT__) {
    expectRoutedThroughAaMem([] { return new Aligned16; }, [](Aligned16* p) { delete p; });
  }
  expectRoutedThroughAaMem([] { return new (std::nothrow) Plain; }, [](Plain* p) { ::operator delete(p, std::nothrow); });
  expectRoutedThroughAaMem([] { return new (std::nothrow) Plain[2]; },
                           [](Plain* p) { ::operator delete[](p, std::nothrow); });
  expectRoutedThroughAaMem([] { return ::operator new(24); }, [](void* p) { ::operator delete(p, 24); });
  expectRoutedThroughAaMem([] { return ::operator new[](24); }, [](void* p) { ::operator delete[](p, 24); });
  expectRoutedThroughAaMem([] { return new (3) Plain; }, [](Plain* p) { ::operator delete(p, 3); });
  expectRoutedThroughAaMem([] { return new (3) Plain[2]; }, [](Plain* p) { ::operator delete[](p, 3); });
  expectRoutedThroughAaMem([] { return new (__FILE__, __LINE__) Plain; },
                           [](Plain* p) { ::operator delete(p, __FILE__, __LINE__); });
  expectRoutedThroughAaMem([] { return new (__FILE__, __LINE__) Plain[2]; },
                           [](Plain* p) { ::operator delete[](p, __FILE__, __LINE__); });
}

TEST_F(AaMemTest, ThrowingConstructorGivesItsBlockBackAndOverAlignedTypesStayStandard) {
  CaptureStderr();
  const int32_t firstFree = findAddrInAllocArr(0);
  glo_AllocTraceEnabled = 1;
  EXPECT_THROW(new (3) Throwing, int);
  EXPECT_THROW(new ("file", 1) Throwing, int);
  glo_AllocTraceEnabled = 0;
  EXPECT_EQ(findAddrInAllocArr(0), firstFree) << "a block stayed in the table";
  GetCapturedStderr();
  Aligned64* aligned = new Aligned64[2];
  EXPECT_EQ(reinterpret_cast<uintptr_t>(aligned) % 64, 0u);
  EXPECT_FALSE(inTable(reinterpret_cast<uintptr_t>(aligned)));
  delete[] aligned;
}

}  // namespace
