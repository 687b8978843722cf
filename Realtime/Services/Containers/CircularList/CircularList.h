// Circular doubly linked lists of records, shared by the services that keep records in lists (the
// message broker's storage, and those that walk records in insertion order).
//
// A list is a head element that carries no record; an empty list's head points to itself both
// ways. Every element is a separate block of three pointers (next, previous, record) and belongs to
// the caller, who allocates and frees elements and records: the list only links them.
//
// Unlinking overwrites the element's links with two fixed poison values before the caller frees it,
// so a stale pointer to a removed element shows in a core file as one of these words and walking
// it faults at a recognisable address instead of reading a reused block. Tools that read cores rely
// on the exact values.
//
// Not thread-safe: each list belongs to one thread (the Dispatcher's for the runtime's services).
#pragma once

#include <cstdint>

namespace Olm {

struct CircularListElement {
  CircularListElement* next;
  CircularListElement* previous;
  void* record;
};

constexpr uintptr_t kCircularListNextPoison = 0x00101100u;
constexpr uintptr_t kCircularListPreviousPoison = 0x00202200u;

// Makes head an empty list.
inline void circularListInit(CircularListElement& head) {
  head.next = &head;
  head.previous = &head;
  head.record = nullptr;
}

inline bool circularListIsEmpty(const CircularListElement& head) { return head.next == &head; }

// Links element before head, i.e. at the tail.
inline void circularListAppend(CircularListElement& head, CircularListElement& element) {
  element.next = &head;
  element.previous = head.previous;
  head.previous->next = &element;
  head.previous = &element;
}

// Takes element out of its list and poisons its links; the record pointer is left for the caller.
inline void circularListUnlink(CircularListElement& element) {
  element.previous->next = element.next;
  element.next->previous = element.previous;
  element.next = reinterpret_cast<CircularListElement*>(kCircularListNextPoison);
  element.previous = reinterpret_cast<CircularListElement*>(kCircularListPreviousPoison);
}

// The element after from that holds a record; null at the end of the list: back at the head
// (which holds none), at a null link or at any other element without record. Start with the head.
inline CircularListElement* circularListNextRecord(const CircularListElement& from) {
  CircularListElement* next = from.next;
  if (next == nullptr || next->record == nullptr) return nullptr;
  return next;
}

}  // namespace Olm
