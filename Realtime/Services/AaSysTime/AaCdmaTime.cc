#include "AaCdmaTime.h"

#include <sys/mman.h>

#include <atomic>
#include <cstdio>

#include "AaCdmaLongCode.h"
#include "AaCdmaTimeObject.h"
#include "AaGpuSharedMem.h"
#include "AaSysLog.h"
#include "IRuntime.h"
#include "RhyddalBtsTimeSync.h"
#include "RhyddalHost.h"

// Present only in the host replacement of the platform library.
extern "C" RHYDDAL_HOST_OPTIONAL int rhyddal_host_shm_name(const char* systemName, char* name, uint32_t size);

namespace {

constexpr size_t kShmNameSize = 256;
constexpr uint64_t kAsyncTimeScale = 1536;
constexpr uint32_t kAsyncOffsetDivisor = 6510;

// Long code: one state step per chip, 12288 chips per unit of the time argument.
constexpr uint64_t kChipsPerTimeUnit = 12288;
using Olm::kLongCodeBits;
constexpr uint64_t kLongCodePeriod = (uint64_t{1} << kLongCodeBits) - 1;
constexpr uint64_t kLongCodeTopBit = uint64_t{1} << (kLongCodeBits - 1);
constexpr uint64_t kLongCodeInitialState = kLongCodeTopBit;  // x^41
// The characteristic polynomial below x^42: x^35 + x^33 + ... + x + 1.
constexpr uint64_t kLongCodePolynomialLow = 0x0A8E6F04EFu;

// Set once by whichever call first maps the object; the mapping is never replaced.
std::atomic<SRhyddalBtsTimeSync*> s_timeObject{nullptr};

// The system's fixed name, unless the host library keeps the object under another one.
void timeObjectName(char (&name)[kShmNameSize]) {
  if (rhyddal_host_shm_name == nullptr || rhyddal_host_shm_name(RHYDDAL_BTS_TIME_SYNC_NAME, name, sizeof(name)) != 0) {
    std::snprintf(name, sizeof(name), "%s", RHYDDAL_BTS_TIME_SYNC_NAME);
  }
}

// The platform writes the words at any time; each is read once, whole.
uint32_t readWord(const uint32_t& word) { return __atomic_load_n(&word, __ATOMIC_ACQUIRE); }

// Carry-less product of two states modulo the polynomial: shift-and-add over the 42 bits of b,
// reducing a whenever its top bit shifts out.
uint64_t multiplyModPolynomial(uint64_t a, uint64_t b) {
  uint64_t product = 0;
  for (unsigned bit = 0; bit < kLongCodeBits; ++bit) {
    if ((b >> bit) & 1) product ^= a;
    const bool carry = (a & kLongCodeTopBit) != 0;
    a = (a << 1) & kLongCodePeriod;
    if (carry) a ^= kLongCodePolynomialLow;
  }
  return product;
}

EAaCdmaTimeRetVal refuseNullTime(const char* function) {
  AaSysLogPrintE(EAaSysLogSeverityLevel_Error, AASYSLOG_FEATURE_NONE, "%s(): cdmaTime is null", function);
  return EAaCdmaTimeRetVal_InvalidParameter;
}

}  // namespace

namespace Olm {

// Each entry the square of the one before.
const uint64_t kLongCodePowersOfX[kLongCodeBits] = {
    0x00000000002, 0x00000000004, 0x00000000010, 0x00000000100, 0x00000010000, 0x00100000000,
    0x1FB7E897F03, 0x18FD6D20121, 0x136B85DEAD9, 0x3BD282EAE27, 0x0B0E7E5C000, 0x32B74462856,
    0x20B67A9DD68, 0x3D8338A879F, 0x1A70184FA29, 0x291CBE16BF9, 0x05F6A828804, 0x2F77F6B070D,
    0x2908648999A, 0x1378F79E5B8, 0x09FAEF4AD68, 0x2977E1B67A5, 0x0D275ABC22E, 0x1473BE885E8,
    0x33F1A0A3872, 0x2A4B64049E5, 0x3040143B0A8, 0x1AAF49F2175, 0x3C2FE72EED0, 0x0DD1912F86D,
    0x2AF35115CE2, 0x3613BD5D0C1, 0x0409C985F9F, 0x035B94D2106, 0x1DA29FECA93, 0x0B2A53F9393,
    0x2CC010A8CA7, 0x3023595C5EB, 0x2A29760CBDE, 0x298E8B0B671, 0x1F183AEE4CD, 0x1EE667FEBF8,
};

const SRhyddalBtsTimeSync* cdmaTimeObject() {
  SRhyddalBtsTimeSync* object = s_timeObject.load(std::memory_order_acquire);
  if (object != nullptr) return object;
  char name[kShmNameSize];
  timeObjectName(name);
  object = static_cast<SRhyddalBtsTimeSync*>(OpenAndMapShmObj(name, sizeof(SRhyddalBtsTimeSync)));
  if (object == nullptr) return nullptr;
  SRhyddalBtsTimeSync* expected = nullptr;
  if (!s_timeObject.compare_exchange_strong(expected, object, std::memory_order_acq_rel)) {
    UnmapShmObj(object, sizeof(SRhyddalBtsTimeSync));  // another thread mapped it meanwhile
    return expected;
  }
  return object;
}

void forgetCdmaTimeObject() {
  SRhyddalBtsTimeSync* object = s_timeObject.exchange(nullptr);
  if (object != nullptr) UnmapShmObj(object, sizeof(SRhyddalBtsTimeSync));
}

}  // namespace Olm

extern "C" {

EAaCdmaTimeRetVal AaCdmaTimeGet(uint64_t* cdmaTime, uint32_t fractionHigh, uint32_t fractionLow) {
  if (cdmaTime == nullptr) return refuseNullTime("AaCdmaTimeGet");
  Olm::IRuntime& runtime = Olm::IRuntime::getRuntimeInstance();
  unsigned long long time = *cdmaTime;
  runtime.getCdmaTime(&time, fractionHigh, fractionLow);
  *cdmaTime = time;
  return EAaCdmaTimeRetVal_Ok;
}

EAaCdmaTimeRetVal AaCdmaTimeAsyncGet(uint64_t* cdmaTime, uint32_t fractionHigh, uint32_t fractionLow) {
  if (cdmaTime == nullptr) return refuseNullTime("AaCdmaTimeAsyncGet");
  const SRhyddalBtsTimeSync* object = Olm::cdmaTimeObject();
  if (object == nullptr) return EAaCdmaTimeRetVal_NoTimeObject;
  // The offset belongs to the time read after it (acquire: the time is not read earlier).
  const uint32_t offset = readWord(object->cdmaAsyncOffset);
  const EAaCdmaTimeRetVal result = AaCdmaTimeGet(cdmaTime, fractionHigh, fractionLow);
  if (result != EAaCdmaTimeRetVal_Ok) return result;
  if (*cdmaTime != 0) *cdmaTime = *cdmaTime * kAsyncTimeScale + offset / kAsyncOffsetDivisor;
  return EAaCdmaTimeRetVal_Ok;
}

uint32_t AaCdmaSyncModeGet(void) {
  const SRhyddalBtsTimeSync* object = Olm::cdmaTimeObject();
  return object == nullptr ? 0 : readWord(object->cdmaSyncMode);
}

uint64_t AaCdmaLongCodeState1XRTT(uint64_t t) {
  const uint64_t exponent = (t * kChipsPerTimeUnit) % kLongCodePeriod;
  uint64_t state = kLongCodeInitialState;
  for (unsigned bit = 0; bit < kLongCodeBits; ++bit) {
    if ((exponent >> bit) & 1) state = multiplyModPolynomial(state, Olm::kLongCodePowersOfX[bit]);
  }
  return state;
}

}  // extern "C"
