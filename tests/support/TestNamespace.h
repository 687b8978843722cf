// Isolation of test processes from each other and from the machine.
//
// Every test process works in a host-platform namespace of its own (RHYDDAL_NAMESPACE, see
// Platform/Host/README.md): its nodes' mailboxes, lock files and emulated physical memory are
// objects no other test and no developer's running node can see, so tests may run in parallel
// (ctest -j) and may kill nodes without touching anything of anybody else. Node ids then only
// have to be unique within the process, which nextTestNid gives.
#pragma once

#include <cstdint>
#include <string>

namespace OlmTest {

// Sets RHYDDAL_NAMESPACE for this process and every process it starts, unless a parent test
// process has set it already (death tests and forked nodes stay in their parent's namespace).
// The process that set it removes the namespace's objects at exit. Call before the first platform
// call.
void enterPrivateNamespace();

// The namespace in force ("" when none).
std::string testNamespace();

// The prefix of every /dev/shm object of the namespace: "rhyddal-<uid>-<namespace>-".
std::string namespaceObjectPrefix();

// Removes every object of the namespace from /dev/shm; returns how many there were.
unsigned removeNamespaceObjects();

// A node id no other node of this process has been given: 0x2000, 0x2001, ... (clear of the
// runtime's placeholder ids 0x0F01 and 0x0FF0).
uint16_t nextTestNid();

}  // namespace OlmTest
