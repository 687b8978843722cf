// The R&D parameters until the domain service exists: domain 1, the runtime's own, holds its
// built-in defaults and can be changed; every other domain reads 0.
#include <array>

#include "AaConfig.h"

namespace {

constexpr uint32_t kOwnDomain = 1;
constexpr uint32_t kOwnDomainTagCount = 235;
constexpr uint32_t kDomainShift = 16;
constexpr uint32_t kIndexMask = 0xFFFF;

struct NonZeroDefault {
  uint32_t index;
  uint32_t value;
};

// Every index of domain 1 not listed here defaults to 0.
constexpr NonZeroDefault kNonZeroDefaults[] = {
    {14, 0xFFFFFFFF},   // AaMemAdapterRtTrace
    {15, 1},            // AaMemAdapterRtObs
    {63, 2},            // AaSysLogInputLevel
    {64, 2},            // AaSysLogOutputLevel: the system log's input level
    {65, 0xFFFFFFFF},   // AaSysLogOutputMode: the system log's output switch
    {67, 0xFFFFFFFF},   // AaSysLogUdpPort
    {69, 0xFFFFFFFF},   // AaSysLogStartupLogSize
    {84, 5000},         // AaMemAdapterValidateAllocMaxBlockCount
    {85, 1},            // AaFileDefaultVolume
    {89, 0xFFFFFFFF},   // AaMemAdapterHeapTracingEnable
    {95, 0xFFFFFFFF},   // AaMemAdapterHeapTracingMode
    {122, 60},          // AaProMemoryOverloadCoefficient
    {124, 1},           // AaSysLogLinuxListener
    {128, 1},           // AaLteTimeSimDrvFrameMultiplier
    {138, 12},          // AaProNumberOfCPUMeasurementsPerLogLine
    {140, 1},           // AaSysLogFeatureLogRingBuffer
    {142, 1},           // ERadOlm_AaSysTimeBaseDisable
    {143, 20971520},    // AaSysLogRAMDeviceFileSize
    {151, 10485760},    // AaLogCollectorFileSize
};

using DomainValues = std::array<uint32_t, kOwnDomainTagCount>;

constexpr DomainValues makeDefaults() {
  DomainValues values{};
  for (const NonZeroDefault& entry : kNonZeroDefaults) values[entry.index] = entry.value;
  return values;
}

DomainValues s_ownDomain = makeDefaults();

// The slot of an own-domain tag, or null for any other id.
uint32_t* findValue(uint32_t tagId) {
  const uint32_t index = tagId & kIndexMask;
  if ((tagId >> kDomainShift) != kOwnDomain || index >= kOwnDomainTagCount) return nullptr;
  return &s_ownDomain[index];
}

}  // namespace

extern "C" {

uint32_t AaConfigRadGetValue(uint32_t tagId) {
  const uint32_t* value = findValue(tagId);
  return value != nullptr ? *value : 0;
}

EAaConfigRet AaConfigRadSetValue(uint32_t tagId, uint32_t value) {
  uint32_t* slot = findValue(tagId);
  if (slot == nullptr) return EAaConfigRet_InvalidParameter;
  *slot = value;
  return EAaConfigRet_Ok;
}

}  // extern "C"
