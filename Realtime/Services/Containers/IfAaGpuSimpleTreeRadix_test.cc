#include "IfAaGpuSimpleTreeRadix.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

namespace {

struct Element {
  const char* key;  // first, as the tree requires
  unsigned id;
};

// Hands out heap blocks and checks every one comes back exactly once; a node block must come back
// with its sibling link poisoned. Fragments in these tests are shorter than a node, so a block of
// a node's size is a node.
struct Arena {
  std::map<void*, uint32_t> live;
  unsigned freedNodes = 0;
  unsigned unpoisonedNodes = 0;
  unsigned foreignFrees = 0;
  bool failNext = false;

  static void* allocate(void* context, uint32_t size) {
    Arena& arena = *static_cast<Arena*>(context);
    if (arena.failNext) return nullptr;
    void* block = std::malloc(size);
    arena.live[block] = size;
    return block;
  }

  static void unallocate(void* context, void* block) {
    Arena& arena = *static_cast<Arena*>(context);
    auto found = arena.live.find(block);
    if (found == arena.live.end()) {
      ++arena.foreignFrees;
      return;
    }
    if (found->second == sizeof(SAaGpuSimpleTreeRadixNode)) {
      const auto* node = static_cast<const SAaGpuSimpleTreeRadixNode*>(block);
      ++arena.freedNodes;
      arena.unpoisonedNodes +=
          reinterpret_cast<uintptr_t>(node->sibling.next) != AAGPUSIMPLETREERADIX_NEXT_POISON ||
          reinterpret_cast<uintptr_t>(node->sibling.previous) != AAGPUSIMPLETREERADIX_PREVIOUS_POISON;
    }
    arena.live.erase(found);
    std::free(block);
  }
};

class RadixTreeTest : public ::testing::Test {
 protected:
  void SetUp() override { init(tree); }

  void TearDown() override {
    EXPECT_EQ(arena.foreignFrees, 0u);
    EXPECT_EQ(arena.unpoisonedNodes, 0u) << "a node was freed without its link poisoned";
    for (auto& block : arena.live) std::free(block.first);
  }

  void init(SAaGpuSimpleTreeRadixHandler& handler) {
    AaGpuSimpleTreeRadixInit(&handler, &Arena::allocate, &Arena::unallocate, &arena);
  }

  Element* element(const std::string& key) {
    keys.push_back(key);
    elements.push_back(Element{keys.back().c_str(), nextId++});
    return &elements.back();
  }

  Element* add(const std::string& key) { return add(tree, key); }
  Element* add(SAaGpuSimpleTreeRadixHandler& handler, const std::string& key) {
    Element* added = element(key);
    AaGpuSimpleTreeRadixAdd(&handler, added);
    return added;
  }

  static std::vector<std::string> drain(SAaGpuSimpleTreeRadixIterator& iterator) {
    std::vector<std::string> seen;
    while (void* next = AaGpuSimpleTreeRadixIteratorNext(&iterator)) seen.push_back(static_cast<Element*>(next)->key);
    return seen;
  }

  std::vector<std::string> iterate(SAaGpuSimpleTreeRadixHandler& handler) {
    SAaGpuSimpleTreeRadixIterator iterator;
    AaGpuSimpleTreeRadixIteratorGet(&handler, &iterator);
    return drain(iterator);
  }
  std::vector<std::string> iterate() { return iterate(tree); }

  std::vector<std::string> iteratePrefix(const char* prefix) {
    SAaGpuSimpleTreeRadixIterator iterator;
    AaGpuSimpleTreeRadixPrefixIteratorGet(&tree, prefix, &iterator);
    return drain(iterator);
  }

  Arena arena;
  SAaGpuSimpleTreeRadixHandler tree;
  std::deque<std::string> keys;
  std::deque<Element> elements;
  unsigned nextId = 1;
};

using Keys = std::vector<std::string>;

TEST_F(RadixTreeTest, OnlyRootChildrenReportTheElementTheyReplaceAndEveryAddCounts) {
  Element* first = add("ab");
  EXPECT_EQ(AaGpuSimpleTreeRadixAdd(&tree, element("abc")), nullptr);
  Element* second = element("ab");
  EXPECT_EQ(AaGpuSimpleTreeRadixAdd(&tree, second), first);
  Element* abc = element("abc");
  EXPECT_EQ(AaGpuSimpleTreeRadixAdd(&tree, abc), nullptr) << "a deeper replacement is not reported";
  EXPECT_EQ(AaGpuSimpleTreeRadixFind(&tree, "abc"), abc);
  EXPECT_EQ(AaGpuSimpleTreeRadixFind(&tree, "ab"), second);
  EXPECT_EQ(tree.count, 4u);

  EXPECT_EQ(AaGpuSimpleTreeRadixFind(&tree, ""), nullptr);
  EXPECT_EQ(AaGpuSimpleTreeRadixFind(&tree, "a"), nullptr);
  EXPECT_EQ(AaGpuSimpleTreeRadixFind(&tree, "abcd"), nullptr);
  EXPECT_EQ(AaGpuSimpleTreeRadixFind(&tree, "abd"), nullptr);
}

TEST_F(RadixTreeTest, EmptyKeysAndNullArgumentsAreNeitherStoredNorCounted) {
  EXPECT_EQ(AaGpuSimpleTreeRadixAdd(&tree, element("")), nullptr);
  Element noKey{nullptr, 0};
  EXPECT_EQ(AaGpuSimpleTreeRadixAdd(&tree, &noKey), nullptr);
  EXPECT_EQ(AaGpuSimpleTreeRadixAdd(&tree, nullptr), nullptr);
  EXPECT_EQ(AaGpuSimpleTreeRadixAdd(nullptr, element("x")), nullptr);
  EXPECT_EQ(tree.count, 0u);
  EXPECT_TRUE(arena.live.empty());
  EXPECT_EQ(AaGpuSimpleTreeRadixFind(nullptr, "x"), nullptr);
  EXPECT_EQ(AaGpuSimpleTreeRadixMove(&tree, nullptr, "x"), nullptr);
  EXPECT_EQ(AaGpuSimpleTreeRadixGetFirst(&tree), nullptr);
}

TEST_F(RadixTreeTest, ASplitKeepsTheCommonPartAndRemovingMergesBack) {
  Element* abc = add("abc");
  const size_t oneNode = arena.live.size();  // the node and its fragment
  Element* abd = add("abd");
  EXPECT_EQ(arena.live.size(), 3 * oneNode) << "'ab' with the children 'c' and 'd'";
  EXPECT_EQ(AaGpuSimpleTreeRadixFind(&tree, "ab"), nullptr);
  EXPECT_EQ(iterate(), (Keys{"abd", "abc"})) << "the newer child is at the head";

  EXPECT_EQ(AaGpuSimpleTreeRadixRemove(&tree, "abd"), abd);
  EXPECT_EQ(arena.live.size(), oneNode);
  const SAaGpuSimpleTreeRadixNode* only =
      reinterpret_cast<const SAaGpuSimpleTreeRadixNode*>(reinterpret_cast<const char*>(tree.root.children.next) -
                                                         offsetof(SAaGpuSimpleTreeRadixNode, sibling));
  EXPECT_STREQ(only->fragment, "abc");
  EXPECT_EQ(only->element, abc);
  EXPECT_EQ(tree.count, 1u);
  EXPECT_EQ(AaGpuSimpleTreeRadixRemoveE(&tree, abc), abc);
  EXPECT_TRUE(arena.live.empty());
  EXPECT_EQ(arena.freedNodes, 3u);
}

TEST_F(RadixTreeTest, RemovingAKeyWithoutElementReturnsNullButStillCounts) {
  add("abc");
  add("abd");
  EXPECT_EQ(AaGpuSimpleTreeRadixRemove(&tree, "ab"), nullptr);
  EXPECT_EQ(tree.count, 1u);
  EXPECT_EQ(iterate(), (Keys{"abd", "abc"})) << "an inner node with two children stays";
  EXPECT_EQ(AaGpuSimpleTreeRadixRemove(&tree, "a"), nullptr);
  EXPECT_EQ(AaGpuSimpleTreeRadixRemove(&tree, "abx"), nullptr);
  EXPECT_EQ(tree.count, 1u) << "absent keys change nothing";
}

TEST_F(RadixTreeTest, IterationVisitsChildrenBeforeTheirParentAndEndsWithNull) {
  add("a");
  add("ab");
  add("ac");
  SAaGpuSimpleTreeRadixIterator iterator;
  AaGpuSimpleTreeRadixIteratorGet(&tree, &iterator);
  EXPECT_STREQ(static_cast<Element*>(AaGpuSimpleTreeRadixIteratorNext(&iterator))->key, "ac");
  EXPECT_EQ(iterator.depth, 2);
  EXPECT_STREQ(static_cast<Element*>(AaGpuSimpleTreeRadixIteratorNext(&iterator))->key, "ab");
  EXPECT_STREQ(static_cast<Element*>(AaGpuSimpleTreeRadixIteratorNext(&iterator))->key, "a");
  EXPECT_EQ(iterator.depth, 1);
  EXPECT_EQ(AaGpuSimpleTreeRadixIteratorNext(&iterator), nullptr);
  EXPECT_EQ(iterator.start, nullptr);
  EXPECT_EQ(AaGpuSimpleTreeRadixIteratorNext(&iterator), nullptr);
  EXPECT_STREQ(static_cast<Element*>(AaGpuSimpleTreeRadixGetFirst(&tree))->key, "ac");
}

// New children go to the head; children moved by a split or a merge go one at a time from head
// to head, which reverses them; a child merged into its removed parent takes the parent's place at
// the head.
TEST_F(RadixTreeTest, ChildOrderFollowsHeadLinkingAndReversingMoves) {
  for (const char* key : {"pa", "pab", "pac"}) add(key);
  EXPECT_EQ(iterate(), (Keys{"pac", "pab", "pa"}));
  add("px");
  EXPECT_EQ(iterate(), (Keys{"px", "pab", "pac", "pa"}));
  AaGpuSimpleTreeRadixRemove(&tree, "px");
  EXPECT_EQ(iterate(), (Keys{"pac", "pab", "pa"}));
  EXPECT_EQ(arena.live.size(), 6u) << "three nodes, each with its fragment";

  add("m");
  EXPECT_EQ(iterate(), (Keys{"m", "pac", "pab", "pa"}));
  AaGpuSimpleTreeRadixRemove(&tree, "pab");
  AaGpuSimpleTreeRadixRemove(&tree, "pa");
  EXPECT_EQ(iterate(), (Keys{"pac", "m"}));
}

TEST_F(RadixTreeTest, APrefixWalkContinuesPastADifferingByte) {
  add("ab");
  add("abc");
  SAaGpuSimpleTreeRadixIterator iterator;
  EXPECT_EQ(AaGpuSimpleTreeRadixPrefixIteratorGet(&tree, "ay", &iterator), nullptr);
  EXPECT_EQ(AaGpuSimpleTreeRadixIteratorNext(&iterator), nullptr);
  SAaGpuSimpleTreeRadixNode* landed = AaGpuSimpleTreeRadixPrefixIteratorGet(&tree, "ac", &iterator);
  ASSERT_NE(landed, nullptr);
  EXPECT_STREQ(landed->fragment, "c");
  EXPECT_EQ(drain(iterator), Keys{"abc"});

  EXPECT_EQ(iteratePrefix("a"), (Keys{"abc", "ab"}));
  EXPECT_EQ(iteratePrefix("abc"), Keys{"abc"});
  EXPECT_EQ(iteratePrefix("abcd"), Keys{});
  EXPECT_EQ(iteratePrefix(""), Keys{});
}

TEST_F(RadixTreeTest, APrefixThatEndsAtANodeWithoutElementEndsWithNull) {
  add("xa1");
  add("xa2");
  add("xb");
  // "xb" split "xa" and so reversed its children.
  EXPECT_EQ(iteratePrefix("x"), (Keys{"xb", "xa1", "xa2"}));
  EXPECT_EQ(iteratePrefix("xa"), (Keys{"xa1", "xa2"}));
}

// The tree's own branch points, derived from the keys alone: a key has a node when it is stored
// or at least two stored keys continue it with different bytes.
class ShapeModel {
 public:
  explicit ShapeModel(const std::map<std::string, Element*>& stored) : m_stored(stored) {}

  bool hasNode(const std::string& key) const {
    if (key.empty()) return false;
    if (m_stored.count(key) != 0) return true;
    std::set<char> next;
    for (auto it = m_stored.upper_bound(key); it != m_stored.end() && it->first.compare(0, key.size(), key) == 0; ++it) {
      next.insert(it->first[key.size()]);
    }
    return next.size() >= 2;
  }

  // Whether the node of key hangs directly under the root.
  bool isTopLevel(const std::string& key) const {
    for (size_t length = 1; length < key.size(); ++length) {
      if (hasNode(key.substr(0, length))) return false;
    }
    return true;
  }

 private:
  const std::map<std::string, Element*>& m_stored;
};

// Random operations on two trees against two maps; everything handed out comes back.
TEST_F(RadixTreeTest, BehavesLikeAMapUnderRandomOperations) {
  constexpr int kSteps = 20000;
  constexpr size_t kMaxKeyLength = 6;
  SAaGpuSimpleTreeRadixHandler other;
  init(other);
  SAaGpuSimpleTreeRadixHandler* trees[2] = {&tree, &other};
  std::map<std::string, Element*> models[2];
  uint32_t counts[2] = {0, 0};

  std::mt19937 random(20240611);
  auto randomKey = [&] {
    std::string key(1 + random() % kMaxKeyLength, 'a');
    for (char& byte : key) byte = static_cast<char>('a' + random() % 3);
    return key;
  };

  for (int step = 0; step < kSteps; ++step) {
    const int side = random() % 2;
    SAaGpuSimpleTreeRadixHandler& handler = *trees[side];
    std::map<std::string, Element*>& model = models[side];
    const ShapeModel shape(model);
    const std::string key = randomKey();
    SCOPED_TRACE("step " + std::to_string(step) + " on tree " + std::to_string(side) + " key " + key);
    switch (random() % 5) {
      case 0:
      case 1: {
        Element* replaced = model.count(key) != 0 ? model[key] : nullptr;
        const bool reported = shape.isTopLevel(key);
        Element* added = element(key);
        ASSERT_EQ(AaGpuSimpleTreeRadixAdd(&handler, added), reported ? replaced : nullptr);
        model[key] = added;
        ++counts[side];
        break;
      }
      case 2: {
        Element* expected = model.count(key) != 0 ? model[key] : nullptr;
        if (shape.hasNode(key)) --counts[side];
        ASSERT_EQ(AaGpuSimpleTreeRadixRemove(&handler, key.c_str()), expected);
        model.erase(key);
        break;
      }
      case 3: {
        Element* expected = model.count(key) != 0 ? model[key] : nullptr;
        ASSERT_EQ(AaGpuSimpleTreeRadixFind(&handler, key.c_str()), expected);
        break;
      }
      default: {
        const int to = 1 - side;
        Element* expected = model.count(key) != 0 ? model[key] : nullptr;
        if (shape.hasNode(key)) --counts[side];
        ASSERT_EQ(AaGpuSimpleTreeRadixMove(&handler, trees[to], key.c_str()), expected);
        if (expected != nullptr) {
          model.erase(key);
          models[to][key] = expected;
          ++counts[to];
        }
        break;
      }
    }
    ASSERT_EQ(handler.count, counts[side]);
  }

  for (int side = 0; side < 2; ++side) {
    SCOPED_TRACE("tree " + std::to_string(side));
    // Every element once, each after every longer key it is a prefix of.
    const Keys order = iterate(*trees[side]);
    ASSERT_EQ(std::set<std::string>(order.begin(), order.end()).size(), order.size());
    ASSERT_EQ(order.size(), models[side].size());
    std::map<std::string, size_t> position;
    for (size_t i = 0; i < order.size(); ++i) position[order[i]] = i;
    for (const auto& entry : models[side]) {
      ASSERT_EQ(position.count(entry.first), 1u) << entry.first;
      for (size_t length = 1; length < entry.first.size(); ++length) {
        auto prefix = position.find(entry.first.substr(0, length));
        if (prefix != position.end()) {
          ASSERT_LT(position[entry.first], prefix->second) << entry.first;
        }
      }
    }
    if (!order.empty()) {
      ASSERT_STREQ(static_cast<Element*>(AaGpuSimpleTreeRadixGetFirst(trees[side]))->key, order.front().c_str());
    }
    // A prefix of a stored key yields exactly the keys that begin with it.
    for (const auto& entry : models[side]) {
      const std::string prefix = entry.first.substr(0, 1 + entry.first.size() / 2);
      SAaGpuSimpleTreeRadixIterator iterator;
      AaGpuSimpleTreeRadixPrefixIteratorGet(trees[side], prefix.c_str(), &iterator);
      const Keys found = drain(iterator);
      std::set<std::string> expected;
      for (auto it = models[side].lower_bound(prefix);
           it != models[side].end() && it->first.compare(0, prefix.size(), prefix) == 0; ++it) {
        expected.insert(it->first);
      }
      ASSERT_EQ(std::set<std::string>(found.begin(), found.end()), expected) << prefix;
      ASSERT_EQ(found.size(), expected.size()) << prefix;
    }
  }

  for (int side = 0; side < 2; ++side) {
    for (const auto& entry : models[side]) {
      ASSERT_EQ(AaGpuSimpleTreeRadixRemoveE(trees[side], entry.second), entry.second);
    }
    EXPECT_EQ(AaGpuSimpleTreeRadixGetFirst(trees[side]), nullptr);
  }
  EXPECT_TRUE(arena.live.empty()) << arena.live.size() << " blocks never came back";
  EXPECT_GT(arena.freedNodes, 1000u);
}

using RadixTreeDeathTest = RadixTreeTest;

TEST_F(RadixTreeDeathTest, NullArgumentsAndAFailedAllocationAreBrokenInvariants) {
  SAaGpuSimpleTreeRadixIterator iterator;
  EXPECT_DEATH(AaGpuSimpleTreeRadixInit(nullptr, &Arena::allocate, &Arena::unallocate, nullptr),
               "handler != GLO_NULL && allocator != GLO_NULL && unallocator != GLO_NULL");
  EXPECT_DEATH(AaGpuSimpleTreeRadixRemove(nullptr, "a"),
               "handler != GLO_NULL && node != GLO_NULL && parent != GLO_NULL");
  EXPECT_DEATH(AaGpuSimpleTreeRadixRemoveE(&tree, nullptr), "handler != GLO_NULL && element != GLO_NULL");
  EXPECT_DEATH(AaGpuSimpleTreeRadixIteratorGet(&tree, nullptr), "handler != GLO_NULL && iterator != GLO_NULL");
  EXPECT_DEATH(AaGpuSimpleTreeRadixPrefixIteratorGet(&tree, nullptr, &iterator),
               "handler != GLO_NULL && prefix != GLO_NULL && iterator != GLO_NULL");
  EXPECT_DEATH(AaGpuSimpleTreeRadixIteratorNext(nullptr), "iterator != GLO_NULL");
  EXPECT_DEATH(
      {
        arena.failNext = true;
        add("x");
      },
      "dst != GLO_NULL");
}

}  // namespace
