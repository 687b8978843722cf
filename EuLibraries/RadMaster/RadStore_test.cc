#include "RadStore.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using Param = RadStore::Param;

constexpr uint16_t kNode = 0x1011;
constexpr uint16_t kOtherNode = 0x1012;

uint32_t valueOf(const RadStore& store, uint16_t node, uint16_t domain, uint32_t index) {
  const RadStore::Domain* stored = store.find(node, domain);
  if (stored == nullptr) return 0xDEAD;
  for (const Param& param : *stored) {
    if (param.index == index) return param.value;
  }
  return 0xBEEF;
}

TEST(RadStore, ARegistrationAgainKeepsTheMastersValuesAndTakesTheSlavesForNewIndexesOnly) {
  RadStore store;
  store.registerDomain(kNode, 5, {{7, 70, 71}, {2, 20, 21}});
  ASSERT_TRUE(store.setValues(kNode, 5, {{7, 0, 700}}));

  store.registerDomain(kNode, 5, {{2, 22, 22}, {7, 77, 77}, {9, 90, 91}});
  const RadStore::Domain& domain = *store.find(kNode, 5);
  ASSERT_EQ(domain.size(), 3u);
  EXPECT_EQ(domain[0].index, 2u) << "kept in index order";
  EXPECT_EQ(domain[0].value, 21u);
  EXPECT_EQ(domain[0].defaultValue, 22u);
  EXPECT_EQ(domain[1].value, 700u);
  EXPECT_EQ(domain[2].value, 91u);

  store.registerDomain(kNode, 5, {{9, 90, 92}});
  EXPECT_EQ(store.find(kNode, 5)->size(), 1u) << "indexes the slave no longer has are gone";
}

TEST(RadStore, DefaultsComeBackInEveryDomainOfThatNodeOnly) {
  RadStore store;
  store.registerDomain(kNode, 1, {{0x41, 0xFFFFFFFF, 0}});
  store.registerDomain(kNode, 5, {{1, 10, 11}});
  store.registerDomain(kOtherNode, 5, {{1, 10, 12}});
  store.setDefaults(kNode);
  EXPECT_EQ(valueOf(store, kNode, 1, 0x41), 0xFFFFFFFFu);
  EXPECT_EQ(valueOf(store, kNode, 5, 1), 10u);
  EXPECT_EQ(valueOf(store, kOtherNode, 5, 1), 12u);
}

}  // namespace
