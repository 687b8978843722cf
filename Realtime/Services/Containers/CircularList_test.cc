#include "CircularList/CircularList.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

namespace {

using Olm::CircularListElement;

class CircularListTest : public ::testing::Test {
 protected:
  void SetUp() override { Olm::circularListInit(head); }

  void appendAll() {
    for (size_t i = 0; i < kCount; ++i) {
      elements[i].record = &records[i];
      Olm::circularListAppend(head, elements[i]);
    }
  }

  // The records in list order, walked forwards, and checked against the backward links.
  std::vector<int> walk() const {
    std::vector<int> seen;
    for (const CircularListElement* e = Olm::circularListNextRecord(head); e != nullptr;
         e = Olm::circularListNextRecord(*e)) {
      seen.push_back(*static_cast<int*>(e->record));
      if (e->next != nullptr) {
        EXPECT_EQ(e->next->previous, e);
      }
    }
    return seen;
  }

  static constexpr size_t kCount = 4;
  CircularListElement head;
  CircularListElement elements[kCount];
  int records[kCount] = {10, 11, 12, 13};
};

TEST_F(CircularListTest, AnEmptyListIsItsHeadBothWays) {
  EXPECT_TRUE(Olm::circularListIsEmpty(head));
  EXPECT_EQ(head.next, &head);
  EXPECT_EQ(head.previous, &head);
  EXPECT_EQ(Olm::circularListNextRecord(head), nullptr);
}

TEST_F(CircularListTest, AppendKeepsInsertionOrderAndUnlinkClosesTheGap) {
  appendAll();
  EXPECT_EQ(walk(), (std::vector<int>{10, 11, 12, 13}));
  Olm::circularListUnlink(elements[0]);
  Olm::circularListUnlink(elements[2]);
  EXPECT_EQ(walk(), (std::vector<int>{11, 13}));
  EXPECT_EQ(head.previous, &elements[3]);
  Olm::circularListUnlink(elements[1]);
  Olm::circularListUnlink(elements[3]);
  EXPECT_TRUE(Olm::circularListIsEmpty(head));
  EXPECT_EQ(head.previous, &head);
}

TEST_F(CircularListTest, AnUnlinkedElementCarriesThePoisonWords) {
  appendAll();
  Olm::circularListUnlink(elements[1]);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(elements[1].next), 0x00101100u);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(elements[1].previous), 0x00202200u);
  EXPECT_EQ(elements[1].record, &records[1]);
}

TEST_F(CircularListTest, AWalkEndsAtAnElementWithoutRecordOrANullLink) {
  appendAll();
  elements[2].record = nullptr;
  EXPECT_EQ(walk(), (std::vector<int>{10, 11}));
  elements[2].record = &records[2];
  elements[1].next = nullptr;
  EXPECT_EQ(walk(), (std::vector<int>{10, 11}));
}

}  // namespace
