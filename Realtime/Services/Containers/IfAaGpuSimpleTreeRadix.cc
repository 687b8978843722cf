#include "IfAaGpuSimpleTreeRadix.h"

#include <cstddef>
#include <cstring>

#include "OlmAssert.h"

OLM_ASSERT_SOURCE("Realtime/Services/Containers/IfAaGpuSimpleTreeRadix")

namespace {

using Handler = SAaGpuSimpleTreeRadixHandler;
using Iterator = SAaGpuSimpleTreeRadixIterator;
using Link = SAaGpuSimpleTreeRadixLink;
using Node = SAaGpuSimpleTreeRadixNode;

// The assertion texts are the tree's users' long-standing vocabulary (GLO_NULL for null).

Node* nodeOfSibling(Link* link) {
  return reinterpret_cast<Node*>(reinterpret_cast<char*>(link) - offsetof(Node, sibling));
}

void makeEmptyList(Link& head) {
  head.next = &head;
  head.previous = &head;
}

bool hasChildren(const Node& node) { return node.children.next != &node.children; }

bool hasOneChild(const Node& node) { return hasChildren(node) && node.children.next == node.children.previous; }

Node* firstChild(Node& node) { return hasChildren(node) ? nodeOfSibling(node.children.next) : nullptr; }

Node* nextSibling(Node& node) {
  Link* next = node.sibling.next;
  return next == &node.parent->children ? nullptr : nodeOfSibling(next);
}

uint32_t byteAt(const char* text, size_t index) { return static_cast<unsigned char>(text[index]); }

Node* childStartingWith(Node& parent, uint32_t byte) {
  for (Link* link = parent.children.next; link != &parent.children; link = link->next) {
    Node* child = nodeOfSibling(link);
    if (child->firstChar == byte) return child;
  }
  return nullptr;
}

// The number of leading bytes fragment and key share.
size_t commonLength(const char* fragment, const char* key) {
  size_t length = 0;
  while (fragment[length] != '\0' && key[length] != '\0' && fragment[length] == key[length]) ++length;
  return length;
}

void* allocate(Handler& handler, size_t size) {
  return handler.allocator(handler.allocatorContext, static_cast<uint32_t>(size));
}

void unallocate(Handler& handler, void* block) { handler.unallocator(handler.allocatorContext, block); }

char* copyFragment(Handler& handler, const char* src) {
  OLM_ASSERT_TEXT(src != nullptr, "src != GLO_NULL");
  const size_t size = std::strlen(src) + 1;
  char* dst = static_cast<char*>(allocate(handler, size));
  OLM_ASSERT_TEXT(dst != nullptr, "dst != GLO_NULL");
  std::memcpy(dst, src, size);
  return dst;
}

char* joinFragments(Handler& handler, const char* src1, const char* src2) {
  OLM_ASSERT_TEXT(src1 != nullptr && src2 != nullptr, "src1 != GLO_NULL && src2 != GLO_NULL");
  const size_t length1 = std::strlen(src1);
  const size_t size2 = std::strlen(src2) + 1;
  char* dst = static_cast<char*>(allocate(handler, length1 + size2));
  OLM_ASSERT_TEXT(dst != nullptr, "dst != GLO_NULL");
  std::memcpy(dst, src1, length1);
  std::memcpy(dst + length1, src2, size2);
  return dst;
}

Node* createNode(Handler& handler, const char* fragment, void* element) {
  OLM_ASSERT_TEXT(fragment != nullptr, "src != GLO_NULL");
  Node* node = static_cast<Node*>(allocate(handler, sizeof(Node)));
  OLM_ASSERT_TEXT(node != nullptr, "dst != GLO_NULL");
  node->parent = nullptr;
  makeEmptyList(node->sibling);
  makeEmptyList(node->children);
  node->fragment = copyFragment(handler, fragment);
  node->firstChar = byteAt(fragment, 0);
  node->element = element;
  return node;
}

void freeNode(Handler* handler, Node* sub) {
  OLM_ASSERT_TEXT(handler != nullptr && sub != nullptr, "handler != GLO_NULL && sub != GLO_NULL");
  unallocate(*handler, sub->fragment);
  unallocate(*handler, sub);
}

// At the head of the parent's child list.
void linkChild(Node* parent, Node* sub) {
  OLM_ASSERT_TEXT(parent != nullptr && sub != nullptr, "parent != GLO_NULL && sub != GLO_NULL");
  sub->parent = parent;
  sub->sibling.next = parent->children.next;
  sub->sibling.previous = &parent->children;
  parent->children.next->previous = &sub->sibling;
  parent->children.next = &sub->sibling;
}

void unlinkChild(Node* sub) {
  OLM_ASSERT_TEXT(sub != nullptr, "sub != GLO_NULL");
  sub->sibling.previous->next = sub->sibling.next;
  sub->sibling.next->previous = sub->sibling.previous;
  sub->sibling.next = reinterpret_cast<Link*>(uintptr_t{AAGPUSIMPLETREERADIX_NEXT_POISON});
  sub->sibling.previous = reinterpret_cast<Link*>(uintptr_t{AAGPUSIMPLETREERADIX_PREVIOUS_POISON});
}

// One at a time from the head of from's list to the head of to's: their order is reversed, and
// iteration orders depend on it.
void moveChildren(Node& from, Node& to) {
  while (Node* child = firstChild(from)) {
    unlinkChild(child);
    linkChild(&to, child);
  }
}

// The key ends or differs inside child's fragment, at offset at: child keeps the fragment's first
// part and a new node below it the rest with child's element and children.
void splitAndInsert(Handler& handler, Node& child, size_t at, const char* keyRest, void* element) {
  Node* tail = createNode(handler, child.fragment + at, child.element);
  child.element = nullptr;
  moveChildren(child, *tail);
  linkChild(&child, tail);
  child.fragment[at] = '\0';  // the block keeps its larger size
  if (*keyRest == '\0') {
    child.element = element;
  } else {
    linkChild(&child, createNode(handler, keyRest, element));
  }
}

// Only a replacement among the root's children reports the replaced element; deeper ones return
// null like an insertion. Callers of long standing rely on exactly this.
void* insert(Handler& handler, const char* key, void* element) {
  Node* node = &handler.root;
  const char* rest = key;
  for (;;) {
    Node* child = childStartingWith(*node, byteAt(rest, 0));
    if (child == nullptr) {
      linkChild(node, createNode(handler, rest, element));
      return nullptr;
    }
    const size_t common = commonLength(child->fragment, rest);
    if (child->fragment[common] != '\0') {
      splitAndInsert(handler, *child, common, rest + common, element);
      return nullptr;
    }
    if (rest[common] == '\0') {
      void* replaced = child->element;
      child->element = element;
      return node == &handler.root ? replaced : nullptr;
    }
    node = child;
    rest += common;
  }
}

// The node whose full key is key, or null.
Node* findNode(Handler& handler, const char* key) {
  if (*key == '\0') return nullptr;
  Node* node = &handler.root;
  const char* rest = key;
  for (;;) {
    Node* child = childStartingWith(*node, byteAt(rest, 0));
    if (child == nullptr) return nullptr;
    const size_t common = commonLength(child->fragment, rest);
    if (child->fragment[common] != '\0') return nullptr;
    rest += common;
    if (*rest == '\0') return child;
    node = child;
  }
}

// node has lost its element and has one child left: the child takes node's place with both
// fragments and goes to the head of the parent's list.
void mergeWithOnlyChild(Handler& handler, Node& node) {
  Node* child = firstChild(node);
  char* joined = joinFragments(handler, node.fragment, child->fragment);
  unallocate(handler, child->fragment);
  child->fragment = joined;
  child->firstChar = byteAt(joined, 0);
  Node* parent = node.parent;
  unlinkChild(&node);
  linkChild(parent, child);
  freeNode(&handler, &node);
}

// parent, without element, has one child left: parent takes over the child's fragment, element
// and children, and the child goes.
void absorbOnlyChild(Handler& handler, Node& parent) {
  Node* child = firstChild(parent);
  char* joined = joinFragments(handler, parent.fragment, child->fragment);
  unallocate(handler, parent.fragment);
  parent.fragment = joined;
  parent.element = child->element;
  moveChildren(*child, parent);
  unlinkChild(child);
  freeNode(&handler, child);
}

void* removeKey(Handler& handler, const char* key) {
  Node* node = findNode(handler, key);
  if (node == nullptr) return nullptr;
  Node* parent = node->parent;
  OLM_ASSERT_TEXT(parent != nullptr, "handler != GLO_NULL && node != GLO_NULL && parent != GLO_NULL");
  void* removed = node->element;
  node->element = nullptr;
  --handler.count;  // also for a node that held nothing
  if (hasChildren(*node)) {
    if (hasOneChild(*node)) mergeWithOnlyChild(handler, *node);
    return removed;
  }
  unlinkChild(node);
  freeNode(&handler, node);
  if (parent != &handler.root && parent->element == nullptr && hasOneChild(*parent)) {
    absorbOnlyChild(handler, *parent);
  }
  return removed;
}

const char* keyOf(const void* element) { return *static_cast<const char* const*>(element); }

Node* descendToLeaf(Node* node, int32_t& depth) {
  while (Node* child = firstChild(*node)) {
    node = child;
    ++depth;
  }
  return node;
}

void* visit(Iterator& iterator, Node* node) {
  iterator.current = node;
  if (node == iterator.start) iterator.start = nullptr;
  return node->element;
}

}  // namespace

extern "C" {

void AaGpuSimpleTreeRadixInit(SAaGpuSimpleTreeRadixHandler* handler, TAaGpuSimpleTreeRadixAllocator allocator,
                              TAaGpuSimpleTreeRadixUnallocator unallocator, void* allocatorContext) {
  OLM_ASSERT_TEXT(handler != nullptr && allocator != nullptr && unallocator != nullptr,
                  "handler != GLO_NULL && allocator != GLO_NULL && unallocator != GLO_NULL");
  handler->allocator = allocator;
  handler->unallocator = unallocator;
  handler->allocatorContext = allocatorContext;
  Node& root = handler->root;
  root.parent = nullptr;
  makeEmptyList(root.sibling);
  makeEmptyList(root.children);
  root.firstChar = 0;
  root.fragment = nullptr;
  root.element = nullptr;
  handler->count = 0;
}

void* AaGpuSimpleTreeRadixAdd(SAaGpuSimpleTreeRadixHandler* handler, void* element) {
  if (handler == nullptr || element == nullptr) return nullptr;
  const char* key = keyOf(element);
  // An empty key could never be found or removed again.
  if (key == nullptr || *key == '\0') return nullptr;
  void* replaced = insert(*handler, key, element);
  ++handler->count;
  return replaced;
}

void* AaGpuSimpleTreeRadixFind(SAaGpuSimpleTreeRadixHandler* handler, const char* key) {
  if (handler == nullptr || key == nullptr) return nullptr;
  Node* node = findNode(*handler, key);
  return node != nullptr ? node->element : nullptr;
}

void* AaGpuSimpleTreeRadixRemove(SAaGpuSimpleTreeRadixHandler* handler, const char* key) {
  OLM_ASSERT_TEXT(handler != nullptr, "handler != GLO_NULL && node != GLO_NULL && parent != GLO_NULL");
  if (key == nullptr) return nullptr;
  return removeKey(*handler, key);
}

void* AaGpuSimpleTreeRadixRemoveE(SAaGpuSimpleTreeRadixHandler* handler, void* element) {
  OLM_ASSERT_TEXT(handler != nullptr && element != nullptr, "handler != GLO_NULL && element != GLO_NULL");
  const char* key = keyOf(element);
  if (key == nullptr) return nullptr;
  return removeKey(*handler, key);
}

void* AaGpuSimpleTreeRadixMove(SAaGpuSimpleTreeRadixHandler* source, SAaGpuSimpleTreeRadixHandler* destination,
                               const char* key) {
  if (source == nullptr || destination == nullptr || key == nullptr) return nullptr;
  void* element = removeKey(*source, key);
  if (element != nullptr) AaGpuSimpleTreeRadixAdd(destination, element);
  return element;
}

void AaGpuSimpleTreeRadixIteratorGet(SAaGpuSimpleTreeRadixHandler* handler, SAaGpuSimpleTreeRadixIterator* iterator) {
  OLM_ASSERT_TEXT(handler != nullptr && iterator != nullptr, "handler != GLO_NULL && iterator != GLO_NULL");
  iterator->handler = handler;
  iterator->start = &handler->root;
  iterator->current = nullptr;
  iterator->depth = 0;
}

SAaGpuSimpleTreeRadixNode* AaGpuSimpleTreeRadixPrefixIteratorGet(SAaGpuSimpleTreeRadixHandler* handler,
                                                                 const char* prefix,
                                                                 SAaGpuSimpleTreeRadixIterator* iterator) {
  OLM_ASSERT_TEXT(handler != nullptr && prefix != nullptr && iterator != nullptr,
                  "handler != GLO_NULL && prefix != GLO_NULL && iterator != GLO_NULL");
  AaGpuSimpleTreeRadixIteratorGet(handler, iterator);
  Node* node = &handler->root;
  const char* rest = prefix;
  for (;;) {
    Node* child = childStartingWith(*node, byteAt(rest, 0));
    if (child == nullptr) {
      iterator->start = nullptr;
      return nullptr;
    }
    // Where the fragment differs before its end, the walk goes on below it all the same.
    rest += commonLength(child->fragment, rest);
    if (*rest == '\0') {
      iterator->start = child;
      return child;
    }
    node = child;
  }
}

void* AaGpuSimpleTreeRadixIteratorNext(SAaGpuSimpleTreeRadixIterator* iterator) {
  OLM_ASSERT_TEXT(iterator != nullptr, "iterator != GLO_NULL");
  if (iterator->start == nullptr) return nullptr;
  if (iterator->current == nullptr) return visit(*iterator, descendToLeaf(iterator->start, iterator->depth));
  Node* node = iterator->current;
  for (;;) {
    if (Node* sibling = nextSibling(*node)) return visit(*iterator, descendToLeaf(sibling, iterator->depth));
    node = node->parent;
    --iterator->depth;
    if (node == iterator->start || node->element != nullptr) return visit(*iterator, node);
  }
}

void* AaGpuSimpleTreeRadixGetFirst(SAaGpuSimpleTreeRadixHandler* handler) {
  if (handler == nullptr) return nullptr;
  int32_t depth = 0;
  return descendToLeaf(&handler->root, depth)->element;
}

}  // extern "C"
