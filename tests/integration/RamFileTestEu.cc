// An EU library whose entry point publishes two RAM files, as applications publish trace buffers.
#include <cstdio>
#include <string>

#include "AaFile.h"
#include "IAaSysDispatcher.h"
#include "RamFileTestEu.h"

namespace {

std::string s_text = OlmTest::kEuTextContents;
std::string s_binary = OlmTest::euBinaryContents();

}  // namespace

extern "C" void EuMain(Olm::IAaSysDispatcher*) {
  AaFileRamfsSetExt(OlmTest::kEuTextFile, s_text.data(), s_text.size(), nullptr, nullptr, nullptr);
  AaFileRamfsSetExt(OlmTest::kEuBinaryFile, s_binary.data(), s_binary.size(), nullptr, nullptr, nullptr);
  std::printf("RamFileTestEu ready\n");
  std::fflush(stdout);
}
