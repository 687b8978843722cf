// Runs one body on several threads at once, for the tests of the atomic operations and the locks.
#pragma once

#include <atomic>
#include <functional>
#include <thread>
#include <vector>

namespace OlmTest {

// Calls body(index) on threadCount threads, index 0 to threadCount - 1, and waits for them all.
// The threads start together, so that their operations overlap rather than run one after another.
inline void runConcurrently(unsigned threadCount, const std::function<void(unsigned)>& body) {
  std::atomic<unsigned> waiting{threadCount};
  std::vector<std::thread> threads;
  for (unsigned index = 0; index < threadCount; ++index) {
    threads.emplace_back([&, index] {
      waiting.fetch_sub(1);
      while (waiting.load() != 0) std::this_thread::yield();
      body(index);
    });
  }
  for (std::thread& thread : threads) thread.join();
}

}  // namespace OlmTest
