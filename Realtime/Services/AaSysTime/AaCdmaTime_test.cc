#include "AaCdmaTime.h"

#include <sys/mman.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "AaCdmaLongCode.h"
#include "AaCdmaTimeObject.h"
#include "AaGpuSharedMem.h"
#include "FakeRuntime.h"
#include "RhyddalBtsTimeSync.h"
#include "RhyddalHost.h"

namespace {

// ---------------------------------------------------------------------------------------------
// Long code, against computations written apart from the implementation.

constexpr unsigned kDegree = 42;
constexpr uint64_t kFullPolynomial = [] {
  const unsigned exponents[] = {42, 35, 33, 31, 27, 26, 25, 22, 21, 19, 18, 17, 16, 10, 7, 6, 5, 3, 2, 1, 0};
  uint64_t polynomial = 0;
  for (unsigned exponent : exponents) polynomial |= uint64_t{1} << exponent;
  return polynomial;
}();
constexpr uint64_t kPeriod = (uint64_t{1} << kDegree) - 1;
constexpr uint64_t kStateX41 = 0x20000000000;
constexpr uint64_t kChipsPerUnit = 12288;

// One step of the generator as a Galois shift register: the state times x.
uint64_t stepOnce(uint64_t state) {
  state <<= 1;
  return (state >> kDegree) & 1 ? state ^ kFullPolynomial : state;
}

// Product modulo the polynomial, from the top bit of b down (Horner), not the implementation's
// bottom-up shift-and-add.
uint64_t productModulo(uint64_t a, uint64_t b) {
  uint64_t product = 0;
  for (int bit = kDegree - 1; bit >= 0; --bit) {
    product = stepOnce(product);
    if ((b >> bit) & 1) product ^= a;
  }
  return product;
}

uint64_t xToThe(uint64_t exponent) {
  uint64_t result = 1;
  uint64_t square = 2;
  for (; exponent != 0; exponent >>= 1) {
    if (exponent & 1) result = productModulo(result, square);
    square = productModulo(square, square);
  }
  return result;
}

TEST(AaCdmaLongCode, TableHoldsXToTheSuccessivePowersOfTwo) {
  uint64_t power = 2;  // x^(2^0)
  for (unsigned i = 0; i < Olm::kLongCodeBits; ++i) {
    EXPECT_EQ(Olm::kLongCodePowersOfX[i], power) << "entry " << i;
    power = productModulo(power, power);
  }
  EXPECT_EQ(xToThe(kPeriod), 1u) << "the polynomial's x has order dividing 2^42 - 1";
}

TEST(AaCdmaLongCode, SmallTimesMatchTheShiftRegisterSteppedChipByChip) {
  uint64_t state = kStateX41;
  for (uint64_t t = 0; t <= 3; ++t) {
    EXPECT_EQ(AaCdmaLongCodeState1XRTT(t), state) << "t = " << t;
    for (uint64_t chip = 0; chip < kChipsPerUnit; ++chip) state = stepOnce(state);
  }
}

TEST(AaCdmaLongCode, LargeTimesMatchExponentiation) {
  const uint64_t times[] = {1000, 0x123456789, uint64_t{1} << 40, 0xFFFFFFFFFFFFFFFF, 0x0123456789ABCDEF};
  for (uint64_t t : times) {
    const uint64_t exponent = (t * kChipsPerUnit) % kPeriod;  // the product wraps at 64 bits
    EXPECT_EQ(AaCdmaLongCodeState1XRTT(t), productModulo(kStateX41, xToThe(exponent))) << "t = " << t;
  }
  // 12288 = 3 * 4096 and 3 divides 2^42 - 1: a third of the period is a whole one in chips.
  EXPECT_EQ(AaCdmaLongCodeState1XRTT(kPeriod / 3), kStateX41);
  EXPECT_EQ(AaCdmaLongCodeState1XRTT(kPeriod), kStateX41);
}

// ---------------------------------------------------------------------------------------------
// The time functions and the synchronisation object.

// The object under this test process's private name, as the host library names it.
std::string timeObjectName() {
  char name[256];
  EXPECT_EQ(rhyddal_host_shm_name(RHYDDAL_BTS_TIME_SYNC_NAME, name, sizeof(name)), 0);
  return name;
}

// Each test starts with no object and none mapped.
class TimeObjectTest : public ::testing::Test {
 protected:
  void SetUp() override { removeObject(); }
  void TearDown() override { removeObject(); }

  void removeObject() {
    Olm::forgetCdmaTimeObject();
    shm_unlink(name.c_str());
  }

  SRhyddalBtsTimeSync& createObject(uint32_t syncMode, uint32_t asyncOffset) {
    auto* object = static_cast<SRhyddalBtsTimeSync*>(CreateShmObj(name.c_str(), sizeof(SRhyddalBtsTimeSync)));
    EXPECT_NE(object, nullptr);
    object->cdmaSyncMode = syncMode;
    object->cdmaAsyncOffset = asyncOffset;
    return *object;
  }

  const std::string name = timeObjectName();
};

class CdmaTimeTest : public TimeObjectTest {
 protected:
  void TearDown() override {
    TimeObjectTest::TearDown();
    EXPECT_EQ(runtime.leakedBuffers(), 0u);
  }

  OlmTest::FakeRuntime runtime;
};

TEST_F(CdmaTimeTest, WithoutTheObjectAsyncTimeFailsAndSyncModeIsZeroUntilTheObjectAppears) {
  runtime.time.setCdmaTime(100, 0);
  uint64_t time = 7;
  EXPECT_EQ(AaCdmaTimeAsyncGet(&time, 0, 0), EAaCdmaTimeRetVal_NoTimeObject);
  EXPECT_EQ(time, 7u) << "nothing is read without the object";
  EXPECT_EQ(AaCdmaSyncModeGet(), 0u);
  EXPECT_EQ(runtime.log.count("OpenAndMapShmObj(const char* const, const size_t) - shm_open(\"" + name), 2u);

  createObject(RHYDDAL_CDMA_SYNC_MODE_ASYNCHRONOUS, 2 * 6510);
  EXPECT_EQ(AaCdmaSyncModeGet(), RHYDDAL_CDMA_SYNC_MODE_ASYNCHRONOUS);
  EXPECT_EQ(AaCdmaTimeAsyncGet(&time, 0, 0), EAaCdmaTimeRetVal_Ok);
  EXPECT_EQ(time, 100u * 1536 + 2);
}

TEST_F(CdmaTimeTest, AsyncTimeIsScaledPlusTheOffsetInItsUnitsAndZeroStaysZero) {
  SRhyddalBtsTimeSync& object = createObject(RHYDDAL_CDMA_SYNC_MODE_ASYNCHRONOUS, 0);
  struct Case {
    uint64_t time;
    uint32_t offset;
    uint64_t expected;
  };
  const Case cases[] = {
      {5, 6509, 5 * 1536},  // below one unit of the offset
      {5, 6510, 5 * 1536 + 1},
      {0, 6510 * 100, 0},  // no time: the offset is not added
      {0xFFFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFFFFull * 1536 + 0xFFFFFFFFu / 6510},
  };
  for (const Case& c : cases) {
    object.cdmaAsyncOffset = c.offset;
    runtime.time.setCdmaTime(c.time, 0);
    uint64_t time = 1;
    EXPECT_EQ(AaCdmaTimeAsyncGet(&time, 0, 0), EAaCdmaTimeRetVal_Ok);
    EXPECT_EQ(time, c.expected) << "time " << c.time << ", offset " << c.offset;
  }
}

TEST_F(CdmaTimeTest, NullTimeIsRefusedWithALogLine) {
  EXPECT_EQ(AaCdmaTimeGet(nullptr, 0, 0), EAaCdmaTimeRetVal_InvalidParameter);
  EXPECT_EQ(AaCdmaTimeAsyncGet(nullptr, 0, 0), EAaCdmaTimeRetVal_InvalidParameter);
  EXPECT_EQ(runtime.log.count("AaCdmaTimeAsyncGet(): cdmaTime is null"), 1u);
}

// A runtime whose CDMA time read moves the platform's offset, as a platform update between the two
// reads would, and that records the arguments it was given.
class OffsetMovingRuntime : public OlmTest::FakeRuntime {
 public:
  int getCdmaTime(unsigned long long* time, unsigned int a, unsigned int b) override {
    arguments = {a, b};
    if (object != nullptr) object->cdmaAsyncOffset = newOffset;
    return FakeRuntime::getCdmaTime(time, a, b);
  }

  SRhyddalBtsTimeSync* object = nullptr;
  uint32_t newOffset = 0;
  std::pair<unsigned, unsigned> arguments;
};

TEST_F(TimeObjectTest, TheOffsetIsReadBeforeTheTimeAndTheArgumentsReachTheTimeSource) {
  OffsetMovingRuntime runtime;
  runtime.object = &createObject(RHYDDAL_CDMA_SYNC_MODE_ASYNCHRONOUS, 6510);
  runtime.newOffset = 6510 * 50;
  runtime.time.setCdmaTime(3, 0);
  uint64_t time = 0;
  EXPECT_EQ(AaCdmaTimeAsyncGet(&time, 0x3, 0x155), EAaCdmaTimeRetVal_Ok);
  EXPECT_EQ(time, 3u * 1536 + 1);
  EXPECT_EQ(runtime.arguments, std::make_pair(0x3u, 0x155u));

  EXPECT_EQ(AaCdmaTimeGet(&time, 1, 2), EAaCdmaTimeRetVal_Ok);
  EXPECT_EQ(time, 3u);
  EXPECT_EQ(runtime.arguments, std::make_pair(1u, 2u));
}

TEST(CdmaTimeWithoutDispatcher, TimeReadAborts) {
  ASSERT_EQ(Olm::IRuntime::getTheRuntime(), nullptr);
  uint64_t time = 0;
  EXPECT_DEATH(AaCdmaTimeGet(&time, 0, 0), "theDispatcher != 0");
}

}  // namespace
