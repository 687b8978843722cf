#include "EMMsgPort.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>

namespace {

TEST(EmSwEvent, HeaderCarriesTheMessageIdMostSignificantByteFirst) {
  const unsigned event = Olm::em_alloc(64, 0, 0);
  ASSERT_NE(event, 0u);
  auto* data = static_cast<uint8_t*>(Olm::EmSwEventPrepare(event, 0x26B8));
  ASSERT_EQ(data, Olm::em_event_pointer(event));
  const uint8_t expected[8] = {0x00, 0x02, 0x26, 0xB8, 0x00, 0x00, 0x00, 0x00};
  EXPECT_EQ(std::memcmp(data, expected, sizeof(expected)), 0);
  EXPECT_EQ(Olm::EmSwEventGetMessageId(event), 0x26B8);
  EXPECT_EQ(Olm::EmSwEventGetPayload(event), data + 8);
  Olm::em_free(event);
}

}  // namespace
