/* A small intrusive radix (compressed prefix) tree keyed by NUL-terminated byte strings.
 *
 * The tree stores pointers to elements that belong to the caller. An element's first field must be
 * a pointer to its NUL-terminated key: the tree reads the key from there when the element is added
 * (AaGpuSimpleTreeRadixAdd) and removed by element (AaGpuSimpleTreeRadixRemoveE), and never frees an
 * element. Keys are compared byte by byte as unsigned characters, without case folding and without
 * length limit; the empty key is never found.
 *
 * Memory: the tree never uses the heap itself. Every node and every key fragment is taken from the
 * allocator given to AaGpuSimpleTreeRadixInit and given back through its unallocator, so the owner
 * decides where the memory lives. An allocator that returns null is a broken invariant (below).
 *
 * Shape: each node holds a fragment of a key; the fragments from the root down to a node make the
 * node's key. The children of a node are kept in a circular doubly linked list and searched
 * linearly, so a lookup costs the key's length times the siblings scanned per level. A new child
 * is always linked at the head of its parent's list. An unlinked node's sibling link is overwritten
 * with AAGPUSIMPLETREERADIX_NEXT_POISON and AAGPUSIMPLETREERADIX_PREVIOUS_POISON before it is freed,
 * so that a stale pointer to it shows in a core file.
 *
 * Iteration is post-order: the children of a node before the node, siblings in child-list order,
 * nodes without element skipped, and the node the iteration started from last. Changing a tree
 * while an iterator walks it is not supported.
 *
 * Broken invariants: where a function below lists an assertion text, a null argument is reported
 * through the assertion service with that text and the process ends (source
 * "Realtime/Services/Containers/IfAaGpuSimpleTreeRadix"); so is an allocator that returns null
 * ("dst != GLO_NULL") and a null key fragment ("src != GLO_NULL"). Functions without an assertion
 * text return null for a null handler or key and do nothing.
 *
 * Not thread-safe: the owner serialises every call on one tree. There is no function that destroys
 * a whole tree; the owner removes the elements one by one, which gives back every node. */
#ifndef OLM_IFAAGPUSIMPLETREERADIX_H
#define OLM_IFAAGPUSIMPLETREERADIX_H

#include <stdint.h>

#include "OlmApi.h"

OLM_API_BEGIN

#ifdef __cplusplus
extern "C" {
#endif

/* The words an unlinked node's sibling link holds until the node's block is freed. */
#define AAGPUSIMPLETREERADIX_NEXT_POISON 0x00101100u
#define AAGPUSIMPLETREERADIX_PREVIOUS_POISON 0x00202200u

/* size bytes, or null when there is no memory (which the tree treats as a broken invariant). */
typedef void* (*TAaGpuSimpleTreeRadixAllocator)(void* context, uint32_t size);
/* Gives back a block the allocator returned. */
typedef void (*TAaGpuSimpleTreeRadixUnallocator)(void* context, void* block);

/* A link of a circular doubly linked list; a list head whose links point to itself is empty. */
typedef struct SAaGpuSimpleTreeRadixLink {
  struct SAaGpuSimpleTreeRadixLink* next;
  struct SAaGpuSimpleTreeRadixLink* previous;
} SAaGpuSimpleTreeRadixLink;

/* One node, one block from the allocator. */
typedef struct SAaGpuSimpleTreeRadixNode {
  struct SAaGpuSimpleTreeRadixNode* parent; /* null for the root */
  SAaGpuSimpleTreeRadixLink sibling;        /* in the parent's child list */
  SAaGpuSimpleTreeRadixLink children;       /* head of the child list */
  uint32_t firstChar;                       /* the fragment's first byte: picks the child */
  char* fragment;                           /* NUL-terminated, from the allocator; null for the root */
  void* element;                            /* null for a node that only joins branches */
} SAaGpuSimpleTreeRadixNode;

/* A tree, owned by the caller (a static or a member). */
typedef struct SAaGpuSimpleTreeRadixHandler {
  TAaGpuSimpleTreeRadixAllocator allocator;
  TAaGpuSimpleTreeRadixUnallocator unallocator;
  void* allocatorContext;         /* the first argument of both callbacks */
  SAaGpuSimpleTreeRadixNode root; /* no fragment, no element */
  uint32_t count;                 /* see AaGpuSimpleTreeRadixAdd and AaGpuSimpleTreeRadixRemove */
} SAaGpuSimpleTreeRadixHandler;

/* An iteration, owned by the caller; filled by the iterator getters. */
typedef struct SAaGpuSimpleTreeRadixIterator {
  SAaGpuSimpleTreeRadixHandler* handler;
  SAaGpuSimpleTreeRadixNode* start;   /* the subtree still to visit; null when finished */
  SAaGpuSimpleTreeRadixNode* current; /* the node returned last; null before the first step */
  int32_t depth;                      /* levels below start, for information */
} SAaGpuSimpleTreeRadixIterator;

/* Makes handler an empty tree whose memory comes from allocator and goes back through unallocator,
 * both called with allocatorContext first. A tree that held elements is forgotten, not freed.
 * Asserts "handler != GLO_NULL && allocator != GLO_NULL && unallocator != GLO_NULL". */
void AaGpuSimpleTreeRadixInit(SAaGpuSimpleTreeRadixHandler* handler, TAaGpuSimpleTreeRadixAllocator allocator,
                              TAaGpuSimpleTreeRadixUnallocator unallocator, void* allocatorContext);

/* Adds element under the key its first field points to, replacing an element stored at that key.
 * Returns the replaced element only when its node is a direct child of the root (a key that is
 * not below another stored key's branching point); a replacement deeper down, and an insertion,
 * return null. The count rises by one on every add, replacements included, so after replacements
 * it exceeds the number of stored elements. Null handler, element or key: null, nothing done. */
void* AaGpuSimpleTreeRadixAdd(SAaGpuSimpleTreeRadixHandler* handler, void* element);

/* The element stored under key, or null (absent key, a key that ends at a node without element,
 * the empty key, null handler or key). */
void* AaGpuSimpleTreeRadixFind(SAaGpuSimpleTreeRadixHandler* handler, const char* key);

/* Removes the element stored under key and returns it; null when the key is absent (the tree is
 * unchanged). A key that ends at a node without element returns null but still counts as a
 * removal: the count falls by one (it is never checked for underflow). A node left with one
 * child is merged with it. Null key: null. Asserts "handler != GLO_NULL && node != GLO_NULL &&
 * parent != GLO_NULL". */
void* AaGpuSimpleTreeRadixRemove(SAaGpuSimpleTreeRadixHandler* handler, const char* key);

/* AaGpuSimpleTreeRadixRemove with the key element's first field points to. Asserts
 * "handler != GLO_NULL && element != GLO_NULL". */
void* AaGpuSimpleTreeRadixRemoveE(SAaGpuSimpleTreeRadixHandler* handler, void* element);

/* Removes the element under key from source and adds it to destination (under the key its first
 * field points to); returns it, or null when source holds no element under key. Null handlers or
 * key: null, nothing done. */
void* AaGpuSimpleTreeRadixMove(SAaGpuSimpleTreeRadixHandler* source, SAaGpuSimpleTreeRadixHandler* destination,
                               const char* key);

/* Prepares iterator to visit the whole tree. Asserts "handler != GLO_NULL && iterator != GLO_NULL". */
void AaGpuSimpleTreeRadixIteratorGet(SAaGpuSimpleTreeRadixHandler* handler, SAaGpuSimpleTreeRadixIterator* iterator);

/* Prepares iterator to visit the subtree of prefix and returns its top node, or null (the
 * iteration then yields nothing). The walk picks each child by the next prefix byte and stops at
 * the child whose fragment the prefix ends in or at the end of. Where a fragment differs from the
 * prefix before the prefix ends, the walk goes on among that child's children with the differing
 * prefix byte, so such a prefix can land in a subtree whose keys do not begin with it: "ac" on a
 * tree of "ab" and "abc" lands at "abc". Callers that need exact prefixes check the keys. The
 * empty prefix finds nothing. Asserts "handler != GLO_NULL && prefix != GLO_NULL &&
 * iterator != GLO_NULL". */
SAaGpuSimpleTreeRadixNode* AaGpuSimpleTreeRadixPrefixIteratorGet(SAaGpuSimpleTreeRadixHandler* handler,
                                                                 const char* prefix,
                                                                 SAaGpuSimpleTreeRadixIterator* iterator);

/* The next element in post-order, or null when the iteration is over. The last step of a whole
 * tree's iteration reaches the root, which holds no element: that null ends the caller's loop.
 * Likewise a prefix iteration whose top node holds no element ends with null after the elements
 * below it. Asserts "iterator != GLO_NULL". */
void* AaGpuSimpleTreeRadixIteratorNext(SAaGpuSimpleTreeRadixIterator* iterator);

/* The first element in iteration order (the leaf reached along first children), or null for an
 * empty tree or a null handler. */
void* AaGpuSimpleTreeRadixGetFirst(SAaGpuSimpleTreeRadixHandler* handler);

#ifdef __cplusplus
}
#endif

OLM_API_END

#endif /* OLM_IFAAGPUSIMPLETREERADIX_H */
