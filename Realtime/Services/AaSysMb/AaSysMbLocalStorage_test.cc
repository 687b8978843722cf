#include "AaSysMbLocalStorage.h"

#include <gtest/gtest.h>

#include <vector>

#include "FakeRuntime.h"

namespace {

class AaSysMbLocalStorageTest : public OlmTest::FakeRuntimeTest {
 protected:
  void TearDown() override {
    AaSysMbLocalListFree(list);
    FakeRuntimeTest::TearDown();
  }
  void add(uint32_t publisher, uint32_t msgId, uint32_t zone) {
    AaSysMbLocalPublicationAdd(list, nullptr, msgId, publisher, 0, zone, 1, 0);
  }
  // Publisher of every stored publication, in order.
  std::vector<uint32_t> publishers() const {
    std::vector<uint32_t> found;
    for (TAaSysMbList* e = AaSysMbLocalPublicationFindNext(list, kAaSysMbAnyMsgId); e != nullptr;
         e = AaSysMbLocalPublicationFindNext(e, kAaSysMbAnyMsgId)) {
      found.push_back(publicationOf(e)->publisher);
    }
    return found;
  }

  TAaSysMbList* list = AaSysMbLocalListCreate();
};

TEST_F(AaSysMbLocalStorageTest, DeleteRemovesTheFirstMatchOnly) {
  add(0x10, 7, 1);
  add(0x11, 7, 1);
  add(0x12, 8, 1);
  AaSysMbLocalPublicationDelete(list, kAaSysMbAnyPublisher, 7);
  EXPECT_EQ(publishers(), (std::vector<uint32_t>{0x11, 0x12}));
  AaSysMbLocalPublicationDelete(list, 0x12, 7);
  EXPECT_EQ(publishers(), (std::vector<uint32_t>{0x11, 0x12}));
}

TEST_F(AaSysMbLocalStorageTest, FlushByPublisherZoneAndWholeNode) {
  add(0x10, 7, 1);
  add(0x10, 8, 15);
  add(0x20, 7, 1);
  AaSysMbLocalPublicationFlush(list, 0x10, 15);
  EXPECT_EQ(publishers(), (std::vector<uint32_t>{0x10, 0x20}));
  // The node form takes every publisher's, even of another node.
  AaSysMbLocalPublicationFlush(list, 0x5555FFFF, kAaSysMbAnyZone);
  EXPECT_TRUE(publishers().empty());
  AaSysMbLocalPublicationFlush(list, 0x10, kAaSysMbAnyZone);
  EXPECT_TRUE(runtime.anySentTextContains("LocalPublicationFlush(): List is empty!"));
}

TEST_F(AaSysMbLocalStorageTest, SubscriptionFlushHonoursTheNodeOfTheAddress) {
  AaSysMbLocalSubscriptionBook(list, 0x12340701, 7, 0, 1);
  AaSysMbLocalSubscriptionBook(list, 0x23450701, 7, 0, 1);
  AaSysMbLocalSubscriptionBook(list, 0x12340702, 7, 0, 15);
  AaSysMbLocalSubscriptionFlush(list, 0x1234FFFF, 1);
  AaSysMbLocalSubscriptionRemove(list, 0x12340702, 7);
  TAaSysMbList* left = AaSysMbLocalSubscriptionFindNext(list, 7);
  ASSERT_NE(left, nullptr);
  EXPECT_EQ(subscriptionOf(left)->subscriber, 0x23450701u);
  EXPECT_EQ(AaSysMbLocalSubscriptionFindNext(left, 7), nullptr);
}

TEST_F(AaSysMbLocalStorageTest, ARecordKeepsPayloadAndApf) {
  const uint8_t payload[] = {1, 2, 3};
  AaSysMbLocalPublicationAdd(list, payload, 7, 0x10, sizeof(payload), 1, 2, 3u << 24);
  const SAaSysMbLocalPublication* record = publicationOf(AaSysMbLocalPublicationFindNext(list, 7));
  EXPECT_EQ(std::vector<uint8_t>(record->payload(), record->payload() + 4), (std::vector<uint8_t>{1, 2, 3, 0}));
  EXPECT_EQ(record->apfWord, 3u << 24);
  EXPECT_EQ(AaSysMbLocalPublicationFindNext(list, 8), nullptr);
}

}  // namespace
