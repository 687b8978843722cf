#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "AaConfig.h"
#include "AaConfigTagInternal.h"
#include "AaMem.h"
#include "FakeRuntime.h"

namespace {

constexpr uint32_t kTagSwitch = 0x1001A;
const char* const kName = "olm.test.tag";

// The tag service's blocks, each expected back exactly once; can refuse the next block of a size.
struct TrackedMemory {
  static std::set<void*> live;
  static uint32_t refusedSize;

  static void* allocate(uint32_t size) {
    if (size == refusedSize) {
      refusedSize = 0;
      return nullptr;
    }
    void* block = AaMemMalloc(size);
    live.insert(block);
    return block;
  }
  static void release(void* block) {
    EXPECT_EQ(live.erase(block), 1u) << "a block the tag service never handed out";
    AaMemUnRef(&block);
  }
};
std::set<void*> TrackedMemory::live;
uint32_t TrackedMemory::refusedSize = 0;

struct Call {
  char observer;
  std::string name;
  std::string value;
  const void* pointer;
  bool operator==(const Call& other) const {
    return observer == other.observer && name == other.name && value == other.value;
  }
};
std::vector<Call> g_calls;

void record(char observer, const char* name, const void* value, uint32_t length) {
  g_calls.push_back(Call{observer, name, std::string(static_cast<const char*>(value), length), value});
}
void observerA(const char* name, const void* value, uint32_t length) { record('A', name, value, length); }
void observerB(const char* name, const void* value, uint32_t length) { record('B', name, value, length); }

Call call(char observer, const char* name, const std::string& value) { return Call{observer, name, value, nullptr}; }
std::string bytes(uint32_t word) { return std::string(reinterpret_cast<const char*>(&word), sizeof(word)); }
std::string bytes(uint16_t word) { return std::string(reinterpret_cast<const char*>(&word), sizeof(word)); }

// Every test starts after a complete start-up; TearDown proves every block came back.
class ConfigTagTest : public OlmTest::FakeRuntimeTest {
 protected:
  void SetUp() override {
    FakeRuntimeTest::SetUp();
    Olm::setTagMemory(&TrackedMemory::allocate, &TrackedMemory::release);
    g_calls.clear();
    AaConfigEarlyStartup();
  }
  void TearDown() override {
    AaConfig_TagDatabaseEarlyStartup();
    AaConfigTagEeStartup();  // releases the tags of the tree it replaces
    EXPECT_TRUE(TrackedMemory::live.empty()) << TrackedMemory::live.size() << " blocks not released";
    TrackedMemory::live.clear();
    TrackedMemory::refusedSize = 0;
    Olm::setTagMemory(nullptr, nullptr);
    AaConfigRadSetValue(kTagSwitch, 0);
    FakeRuntimeTest::TearDown();
  }

  // The value of a tag as text, its copy released.
  static std::string valueOf(const char* name) {
    void* value = nullptr;
    uint32_t length = 0;
    EXPECT_EQ(AaConfigTagGet(name, &value, &length), EAaConfigRet_Ok);
    std::string text(static_cast<const char*>(value), length);
    if (!Olm::isEarlyMode()) TrackedMemory::release(value);
    return text;
  }

  static void enterEarlyMode() {
    AaConfig_TagDatabaseEarlyStartup();
    AaConfigTagEarlyStartup();
  }
};

TEST_F(ConfigTagTest, TypedValuesRoundTripAndGetHandsOutFreshCopies) {
  ASSERT_EQ(AaConfigTagSetU16(kName, 0xBEEF), EAaConfigRet_Ok);
  EXPECT_EQ(log.count("setConfigTag() name = olm.test.tag, value = 0xbeef, len = 2, u16 type"), 1u);
  uint16_t narrow = 0;
  EXPECT_EQ(AaConfigTagGetU16(kName, &narrow), EAaConfigRet_Ok);
  EXPECT_EQ(narrow, 0xBEEF);
  ASSERT_EQ(AaConfigTagPublicSetU32(kName, 0x12345678), EAaConfigRet_Ok);
  uint32_t wide = 0;
  EXPECT_EQ(AaConfigTagGetU32(kName, &wide), EAaConfigRet_Ok);
  EXPECT_EQ(wide, 0x12345678u);

  void* first = nullptr;
  void* second = nullptr;
  uint32_t length = 0;
  ASSERT_EQ(AaConfigTagGet(kName, &first, &length), EAaConfigRet_Ok);
  ASSERT_EQ(AaConfigTagGet(kName, &second, &length), EAaConfigRet_Ok);
  EXPECT_NE(first, second);
  EXPECT_EQ(length, 4u);
  EXPECT_EQ(std::memcmp(first, &wide, sizeof(wide)), 0);
  TrackedMemory::release(first);
  TrackedMemory::release(second);

  ASSERT_EQ(AaConfigTagSetString(kName, "eth0"), EAaConfigRet_Ok);
  char* text = nullptr;
  ASSERT_EQ(AaConfigTagGetString(kName, &text, &length), EAaConfigRet_Ok);
  EXPECT_EQ(std::string(text, length), std::string("eth0", 5)) << "the NUL is stored";
  TrackedMemory::release(text);

  int target = 0;
  const int* pointer = &target;
  ASSERT_EQ(AaConfigTagSetPointer("olm.test.pointer", pointer), EAaConfigRet_Ok);
  EXPECT_EQ(valueOf("olm.test.pointer"), std::string(reinterpret_cast<const char*>(&pointer), sizeof(pointer)));
}

TEST_F(ConfigTagTest, U16TurnsEveryReadFailureInto6WhileU32PassesTheReasonOn) {
  uint16_t narrow = 7;
  uint32_t wide = 7;
  EXPECT_EQ(AaConfigTagGetU16(kName, &narrow), EAaConfigRet_TagReadFailed);
  EXPECT_EQ(AaConfigTagGetU32(kName, &wide), EAaConfigRet_TagNotFound);

  ASSERT_EQ(AaConfigTagSetU16(kName, 7), EAaConfigRet_Ok);
  EXPECT_EQ(AaConfigTagGetU32(kName, &wide), EAaConfigRet_TypeMismatch);
  EXPECT_EQ(log.count("getConfigTag() type mismatch: name = 'olm.test.tag', requested type = 2, stored type = 1"), 1u);
  EXPECT_EQ(valueOf(kName), bytes(uint16_t{7})) << "an unspecified request reads any type";
  ASSERT_EQ(AaConfigTagSetU32("olm.test.wide", 7), EAaConfigRet_Ok);
  EXPECT_EQ(AaConfigTagGetU16("olm.test.wide", &narrow), EAaConfigRet_TagReadFailed);
  char* text = nullptr;
  uint32_t length = 0;
  EXPECT_EQ(AaConfigTagGetString("olm.test.wide", &text, &length), EAaConfigRet_TypeMismatch);

  const uint8_t three[3] = {1, 2, 3};
  ASSERT_EQ(AaConfigTagSet(kName, three, sizeof(three)), EAaConfigRet_Ok);
  EXPECT_EQ(AaConfigTagGetU16(kName, &narrow), EAaConfigRet_WrongLength);
  EXPECT_EQ(AaConfigTagGetU32(kName, &wide), EAaConfigRet_WrongLength);

  // A registration creates a tag without value.
  ASSERT_EQ(AaConfigTagRegister("olm.test.empty", observerA), EAaConfigRet_Ok);
  EXPECT_EQ(AaConfigTagIsSet("olm.test.empty"), 0u);
  EXPECT_EQ(AaConfigTagGetU16("olm.test.empty", &narrow), EAaConfigRet_TagReadFailed);
  EXPECT_EQ(AaConfigTagGetU32("olm.test.empty", &wide), EAaConfigRet_Ok);
  EXPECT_EQ(narrow, 7);
  EXPECT_EQ(wide, 7u);
}

TEST_F(ConfigTagTest, ObserversSeeEveryWriteInRegistrationOrderEvenAnUnchangedOne) {
  ASSERT_EQ(AaConfigTagRegister(kName, observerA), EAaConfigRet_Ok);
  ASSERT_EQ(AaConfigTagRegister(kName, observerB), EAaConfigRet_Ok);
  ASSERT_EQ(AaConfigTagRegister(kName, observerA), EAaConfigRet_Ok);
  EXPECT_TRUE(g_calls.empty()) << "no value yet";
  const uint32_t value = 0x01020304;
  ASSERT_EQ(AaConfigTagSet(kName, &value, sizeof(value)), EAaConfigRet_Ok);
  ASSERT_EQ(g_calls.size(), 3u);
  EXPECT_EQ(g_calls[0], call('A', kName, bytes(value)));
  EXPECT_EQ(g_calls[1], call('B', kName, bytes(value)));
  EXPECT_EQ(g_calls[2], call('A', kName, bytes(value)));
  EXPECT_EQ(g_calls[0].pointer, &value) << "observers get the writer's own value";

  log.clear();
  ASSERT_EQ(AaConfigTagSetU32(kName, value), EAaConfigRet_Ok);
  EXPECT_EQ(log.count("setConfigTag()"), 0u);
  EXPECT_EQ(g_calls.size(), 6u);
  // Equal up to the first NUL counts as unchanged, but the new bytes are stored.
  const uint8_t before[3] = {1, 0, 5};
  const uint8_t after[3] = {1, 0, 7};
  ASSERT_EQ(AaConfigTagSet(kName, before, sizeof(before)), EAaConfigRet_Ok);
  log.clear();
  ASSERT_EQ(AaConfigTagSet(kName, after, sizeof(after)), EAaConfigRet_Ok);
  EXPECT_EQ(log.count("setConfigTag()"), 0u);
  EXPECT_EQ(valueOf(kName), std::string("\x01\x00\x07", 3));

  g_calls.clear();
  ASSERT_EQ(AaConfigTagRegister(kName, observerB), EAaConfigRet_Ok);
  EXPECT_EQ(g_calls, std::vector<Call>{call('B', kName, std::string("\x01\x00\x07", 3))}) << "called at once";

  EXPECT_EQ(AaConfigTagUnregister(kName, observerA), EAaConfigRet_Ok);
  g_calls.clear();
  ASSERT_EQ(AaConfigTagSetU16(kName, 1), EAaConfigRet_Ok);
  EXPECT_EQ(g_calls.size(), 3u) << "only the first registration of A went";
  EXPECT_EQ(g_calls[0].observer, 'B');
  EXPECT_EQ(AaConfigTagUnregister(kName, observerA), EAaConfigRet_Ok);
  EXPECT_EQ(AaConfigTagUnregister(kName, observerA), EAaConfigRet_ObserverNotFound);
  EXPECT_EQ(AaConfigTagUnregister("olm.test.none", observerA), EAaConfigRet_TagNotFound);
}

TEST_F(ConfigTagTest, DeleteTakesTheObserversAlongWithoutTellingThem) {
  ASSERT_EQ(AaConfigTagSetU32(kName, 1), EAaConfigRet_Ok);
  ASSERT_EQ(AaConfigTagRegister(kName, observerA), EAaConfigRet_Ok);
  ASSERT_EQ(AaConfigTagRegister(kName, observerB), EAaConfigRet_Ok);
  g_calls.clear();
  ASSERT_EQ(AaConfigTagDelete(kName), EAaConfigRet_Ok);
  EXPECT_TRUE(g_calls.empty());
  EXPECT_EQ(AaConfigTagIsSet(kName), 0u);
  EXPECT_EQ(AaConfigTagPublicDelete(kName), EAaConfigRet_TagNotFound);
  EXPECT_TRUE(TrackedMemory::live.empty()) << "the last tag took every block along";
  ASSERT_EQ(AaConfigTagSetU32(kName, 2), EAaConfigRet_Ok);
  EXPECT_TRUE(g_calls.empty());
}

TEST_F(ConfigTagTest, GetDefaultFillsOnlyWhatHasNoValue) {
  const uint32_t fallback = 0xAABBCCDD;
  void* value = nullptr;
  uint32_t length = 0;
  ASSERT_EQ(AaConfigTagGetDefault(kName, &value, &length, &fallback, 4), EAaConfigRet_Ok);
  EXPECT_EQ(std::string(static_cast<char*>(value), length), bytes(fallback));
  TrackedMemory::release(value);
  EXPECT_EQ(AaConfigTagIsSet(kName), 1u);
  EXPECT_EQ(log.count("setConfigTag()"), 0u) << "an absent tag is created silently";

  ASSERT_EQ(AaConfigTagSetU32(kName, 5), EAaConfigRet_Ok);
  ASSERT_EQ(AaConfigTagGetDefault(kName, &value, &length, &fallback, 4), EAaConfigRet_Ok);
  EXPECT_EQ(std::string(static_cast<char*>(value), length), bytes(uint32_t{5}));
  TrackedMemory::release(value);

  ASSERT_EQ(AaConfigTagRegister("olm.test.empty", observerA), EAaConfigRet_Ok);
  EXPECT_EQ(AaConfigTagGetDefault("olm.test.empty", &value, &length, &fallback, 0), EAaConfigRet_InvalidParameter);
  ASSERT_EQ(AaConfigTagGetDefault("olm.test.empty", &value, &length, &fallback, 4), EAaConfigRet_Ok);
  TrackedMemory::release(value);
  EXPECT_EQ(g_calls, std::vector<Call>{call('A', "olm.test.empty", bytes(fallback))}) << "set like any write";

  ASSERT_EQ(AaConfigTagGetDefault("olm.test.nothing", &value, &length, &fallback, 0), EAaConfigRet_Ok);
  EXPECT_EQ(value, nullptr);
  EXPECT_EQ(length, 0u);
  EXPECT_EQ(AaConfigTagIsSet("olm.test.nothing"), 0u);
  const uint8_t big[257] = {};
  EXPECT_EQ(AaConfigTagGetDefault("olm.test.big", &value, &length, big, 257), EAaConfigRet_InvalidParameter);
}

TEST_F(ConfigTagTest, BadArgumentsAreRefusedWithoutHarm) {
  const std::string longest(80, 'n');
  const std::string tooLong(81, 'n');
  EXPECT_EQ(AaConfigTagSetU16(longest.c_str(), 1), EAaConfigRet_Ok);
  EXPECT_EQ(AaConfigTagIsSet(longest.c_str()), 1u);
  const uint8_t value[257] = {1};
  void* out = nullptr;
  uint32_t length = 0;
  uint16_t narrow = 0;
  uint32_t wide = 0;
  for (const char* bad : {tooLong.c_str(), "", static_cast<const char*>(nullptr)}) {
    EXPECT_EQ(AaConfigTagSet(bad, value, 2), EAaConfigRet_InvalidParameter);
    EXPECT_EQ(AaConfigTagSetUnsafe(bad, value, 2, 4), EAaConfigRet_InvalidParameter);
    EXPECT_EQ(AaConfigTagGet(bad, &out, &length), EAaConfigRet_InvalidParameter);
    EXPECT_EQ(AaConfigTagGetU16(bad, &narrow), EAaConfigRet_TagReadFailed);
    EXPECT_EQ(AaConfigTagGetU32(bad, &wide), EAaConfigRet_InvalidParameter);
    EXPECT_EQ(AaConfigTagGetDefault(bad, &out, &length, value, 2), EAaConfigRet_InvalidParameter);
    EXPECT_EQ(AaConfigTagIsSet(bad), 0u);
    EXPECT_EQ(AaConfigTagRegister(bad, observerA), EAaConfigRet_InvalidParameter);
    EXPECT_EQ(AaConfigTagUnregister(bad, observerA), EAaConfigRet_InvalidParameter);
    EXPECT_EQ(AaConfigTagDelete(bad), EAaConfigRet_InvalidParameter);
  }
  EXPECT_EQ(AaConfigTagSet(kName, value, 256), EAaConfigRet_Ok);
  EXPECT_EQ(AaConfigTagSet(kName, value, 257), EAaConfigRet_InvalidParameter);
  EXPECT_EQ(AaConfigTagSet(kName, value, 0), EAaConfigRet_InvalidParameter);
  EXPECT_EQ(AaConfigTagSet(kName, nullptr, 2), EAaConfigRet_InvalidParameter);
  EXPECT_EQ(AaConfigTagSetString(kName, nullptr), EAaConfigRet_InvalidParameter);
  EXPECT_EQ(AaConfigTagGet(kName, nullptr, &length), EAaConfigRet_InvalidParameter);
  EXPECT_EQ(AaConfigTagGetU16(kName, nullptr), EAaConfigRet_TagReadFailed);
  EXPECT_EQ(AaConfigTagGetU32(kName, nullptr), EAaConfigRet_InvalidParameter);
  EXPECT_EQ(AaConfigTagGetDefault(kName, &out, &length, nullptr, 2), EAaConfigRet_InvalidParameter);
  EXPECT_EQ(AaConfigTagRegister(kName, nullptr), EAaConfigRet_InvalidParameter);
  EXPECT_EQ(valueOf(kName).size(), 256u);
}

TEST_F(ConfigTagTest, UnspecifiedValuesAreLoggedAsWordStringOrOnRequestHexDump) {
  const uint8_t word[4] = {0x78, 0x56, 0x34, 0x12};
  ASSERT_EQ(AaConfigTagSet(kName, word, sizeof(word)), EAaConfigRet_Ok);
  EXPECT_EQ(log.count("value = 0x12345678, len = 4, type not specified"), 1u);
  ASSERT_EQ(AaConfigTagSet(kName, "eth0", 5), EAaConfigRet_Ok);
  EXPECT_EQ(log.count("value = eth0, len = 5, type not specified (string assumed)"), 1u);

  const uint8_t binary[6] = {1, 2, 3, 4, 5, 6};
  ASSERT_EQ(AaConfigTagSet(kName, binary, sizeof(binary)), EAaConfigRet_Ok);
  EXPECT_EQ(log.count("type not specified, value:"), 0u);
  AaConfigRadSetValue(kTagSwitch, 1);
  const uint8_t other[6] = {7, 2, 3, 4, 5, 6};
  ASSERT_EQ(AaConfigTagSet(kName, other, sizeof(other)), EAaConfigRet_Ok);
  EXPECT_EQ(log.count("setConfigTag() name = olm.test.tag, len = 6, type not specified, value:"), 1u);
  EXPECT_EQ(log.count("07 02 03 04 05 06"), 1u);
}

// Sizes no other block of these tests has: the name is 40 characters, so its fragment is 41 bytes.
TEST_F(ConfigTagTest, WithoutMemoryTheResultIs9AndNothingIsLeftBehind) {
  const char* const name = "olm.test.a.name.of.forty.characters.long";
  ASSERT_EQ(std::strlen(name), 40u);
  const uint8_t value[200] = {1, 2, 3};
  TrackedMemory::refusedSize = sizeof(Olm::TagMapEntry);
  EXPECT_EQ(AaConfigTagSet(name, value, sizeof(value)), EAaConfigRet_OutOfMemory);
  TrackedMemory::refusedSize = sizeof(Olm::TagElement);
  EXPECT_EQ(AaConfigTagRegister(name, observerA), EAaConfigRet_OutOfMemory);
  EXPECT_EQ(log.count("AaConfigTagRegisterUnsafe(): can't create new tag '" + std::string(name) + "' !!!"), 1u);
  EXPECT_TRUE(TrackedMemory::live.empty());

  ASSERT_EQ(AaConfigTagSetU16(name, 1), EAaConfigRet_Ok);
  TrackedMemory::refusedSize = sizeof(Olm::TagObserver);
  EXPECT_EQ(AaConfigTagRegister(name, observerA), EAaConfigRet_OutOfMemory);
  EXPECT_EQ(log.count("AaConfigTagRegisterUnsafe(): can't create new observer"), 1u);
  TrackedMemory::refusedSize = sizeof(value);
  EXPECT_EQ(AaConfigTagSet(name, value, sizeof(value)), EAaConfigRet_OutOfMemory);
  EXPECT_EQ(AaConfigTagIsSet(name), 1u) << "the new length stays, without data";
  void* out = nullptr;
  uint32_t length = 0;
  ASSERT_EQ(AaConfigTagGet(name, &out, &length), EAaConfigRet_Ok);
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(length, sizeof(value));
  ASSERT_EQ(AaConfigTagSet(name, value, sizeof(value)), EAaConfigRet_Ok);
  TrackedMemory::refusedSize = sizeof(value);
  EXPECT_EQ(AaConfigTagGet(name, &out, &length), EAaConfigRet_OutOfMemory);
}

// An observer that writes back the very bytes it was shown, which live in the tag.
void writeBack(const char* name, const void* value, uint32_t length) { AaConfigTagSet(name, value, length); }

TEST_F(ConfigTagTest, AnObserverMayWriteBackTheStoredValueItIsShown) {
  ASSERT_EQ(AaConfigTagSet(kName, "abcdef", 6), EAaConfigRet_Ok);
  ASSERT_EQ(AaConfigTagRegister(kName, writeBack), EAaConfigRet_Ok);
  EXPECT_EQ(valueOf(kName), "abcdef");
}

class EarlyTagTest : public ConfigTagTest {
 protected:
  void SetUp() override {
    ConfigTagTest::SetUp();
    enterEarlyMode();
  }
};

TEST_F(EarlyTagTest, TheTableHoldsTagsUntilItIsFull) {
  ASSERT_EQ(AaConfigTagSetU16(kName, 1), EAaConfigRet_Ok);
  ASSERT_EQ(AaConfigTagSetU16(kName, 2), EAaConfigRet_Ok);
  EXPECT_EQ(std::strcmp(earlyTagTable[0].name, kName), 0);
  EXPECT_EQ(earlyTagTable[1].name[0], '\0') << "overwritten in place";
  void* value = nullptr;
  uint32_t length = 0;
  ASSERT_EQ(AaConfigTagGet(kName, &value, &length), EAaConfigRet_Ok);
  EXPECT_EQ(value, earlyTagTable[0].value);
  EXPECT_EQ(AaConfigTagGet("olm.test.none", &value, &length), EAaConfigRet_TagNotFound);
  EXPECT_EQ(log.count("getConfigTag(): tag 'olm.test.none' not found in earlyTagTable"), 1u);

  for (unsigned i = 1; i < AACONFIG_EARLY_TAG_COUNT; ++i) {
    ASSERT_EQ(AaConfigTagSetU32(("olm.test." + std::to_string(i)).c_str(), i), EAaConfigRet_Ok);
  }
  EXPECT_EQ(AaConfigTagSetU32("olm.test.one.more", 1), EAaConfigRet_EarlyTableFull);
  EXPECT_EQ(AaConfigTagRegister("olm.test.one.more", observerA), EAaConfigRet_EarlyTableFull);
  EXPECT_EQ(AaConfigTagSetU32("olm.test.7", 70), EAaConfigRet_Ok);
  EXPECT_EQ(AaConfigTagDelete("olm.test.7"), EAaConfigRet_Ok);
  EXPECT_EQ(AaConfigTagSetU32("olm.test.one.more", 1), EAaConfigRet_Ok);
}

TEST_F(EarlyTagTest, TheReplayCallsEveryObserverOnceWithTheFinalValue) {
  ASSERT_EQ(AaConfigTagRegister(kName, observerA), EAaConfigRet_Ok);
  ASSERT_EQ(AaConfigTagSetU32(kName, 1), EAaConfigRet_Ok);
  for (int i = 0; i < 5; ++i) ASSERT_EQ(AaConfigTagRegister(kName, observerB), EAaConfigRet_Ok);
  ASSERT_EQ(AaConfigTagSetU32(kName, 2), EAaConfigRet_Ok);
  ASSERT_EQ(AaConfigTagRegister("olm.test.later", observerA), EAaConfigRet_Ok);
  EXPECT_EQ(std::strcmp(earlyTagTable[1].name, kName), 0) << "a sixth observer takes a second entry";
  EXPECT_EQ(earlyTagTable[1].length, 0u);
  EXPECT_TRUE(g_calls.empty()) << "early writes call nobody";

  log.clear();
  AaConfigTagEeStartup();
  EXPECT_EQ(log.count("BuildRadixTree finished"), 1u);
  const std::vector<Call> once{call('A', kName, bytes(uint32_t{2})), call('B', kName, bytes(uint32_t{2})),
                               call('B', kName, bytes(uint32_t{2})), call('B', kName, bytes(uint32_t{2})),
                               call('B', kName, bytes(uint32_t{2})), call('B', kName, bytes(uint32_t{2}))};
  EXPECT_EQ(g_calls, once);
  EXPECT_EQ(std::strcmp(earlyTagTable[0].name, kName), 0) << "the table is kept";

  g_calls.clear();
  ASSERT_EQ(AaConfigTagSetU32("olm.test.later", 3), EAaConfigRet_Ok);
  EXPECT_EQ(g_calls, std::vector<Call>{call('A', "olm.test.later", bytes(uint32_t{3}))});
}

TEST_F(EarlyTagTest, UnregisterDeleteAndGetDefaultWorkOnTheTable) {
  ASSERT_EQ(AaConfigTagRegister(kName, observerA), EAaConfigRet_Ok);
  EXPECT_EQ(AaConfigTagUnregister(kName, observerB), EAaConfigRet_ObserverNotFound);
  EXPECT_EQ(AaConfigTagUnregister(kName, observerA), EAaConfigRet_Ok);
  EXPECT_EQ(AaConfigTagUnregister("olm.test.none", observerA), EAaConfigRet_TagNotFound);
  const uint16_t fallback = 9;
  void* value = nullptr;
  uint32_t length = 0;
  ASSERT_EQ(AaConfigTagGetDefault(kName, &value, &length, &fallback, sizeof(fallback)), EAaConfigRet_Ok);
  EXPECT_EQ(value, earlyTagTable[0].value);
  EXPECT_EQ(AaConfigTagIsSet(kName), 1u);
  EXPECT_EQ(AaConfigTagDelete(kName), EAaConfigRet_Ok);
  EXPECT_EQ(AaConfigTagIsSet(kName), 0u);
  EXPECT_EQ(AaConfigTagDelete(kName), EAaConfigRet_TagNotFound);
}

}  // namespace
