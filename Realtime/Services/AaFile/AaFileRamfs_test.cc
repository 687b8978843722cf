#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "AaFile.h"
#include "AaFileTestUtil.h"

namespace {

using AaFileTest::CallbackCounter;
using OlmTest::fileContents;
using AaFileTest::pattern;

std::vector<std::string> namesInSlotOrder(const TRamFsSet& set, std::vector<unsigned>* slots = nullptr) {
  std::vector<std::string> names;
  unsigned cursor;
  for (const CRamFs* file = set.begin(cursor); file != nullptr; file = set.next(cursor)) {
    names.push_back(file->name);
    if (slots != nullptr) slots->push_back(cursor);
  }
  return names;
}

std::string pointerText(const void* pointer) {
  char text[32];
  std::snprintf(text, sizeof(text), "%p", pointer);
  return text;
}

CRamFs* record(const std::string& name) { return new CRamFs(name.c_str(), nullptr, 0, nullptr, nullptr, nullptr); }

TEST(AaFileRegistry, EachInsertTakesTheHighestFreeSlotSoListingsRunNewestFirst) {
  TRamFsSet set;
  ASSERT_EQ(set.insert(*record("A")), 0);
  ASSERT_EQ(set.insert(*record("B")), 0);
  std::vector<unsigned> slots;
  EXPECT_EQ(namesInSlotOrder(set, &slots), (std::vector<std::string>{"B", "A"}));
  EXPECT_EQ(slots, (std::vector<unsigned>{28, 29}));

  // A slot freed in the middle is taken again before lower ones.
  CRamFs key("A", nullptr, 0, nullptr, nullptr, nullptr);
  delete set.erase(key);
  ASSERT_EQ(set.insert(*record("C")), 0);
  slots.clear();
  EXPECT_EQ(namesInSlotOrder(set, &slots), (std::vector<std::string>{"B", "C"}));
  EXPECT_EQ(slots, (std::vector<unsigned>{28, 29}));
}

class AaFileRamfs : public AaFileTest::PrivateDirectoryTest {};

TEST_F(AaFileRamfs, RegistrationAndRemovalReportTheirResults) {
  char buffer[16] = "payload";
  testing::internal::CaptureStdout();
  EXPECT_EQ(AaFileRamfsSetExt("stats.txt", buffer, sizeof(buffer), nullptr, nullptr, nullptr), EAaFileRet_Ok);
  EXPECT_EQ(AaFileRamfsSetExt("stats.txt", buffer, 1, nullptr, nullptr, nullptr), EAaFileRet_AlreadyRegistered);
  EXPECT_EQ(AaFileRamfsSetExt(nullptr, buffer, 1, nullptr, nullptr, nullptr), EAaFileRet_NullArgument);
  const char* const unbacked = "x";
  EXPECT_EQ(AaFileRamfsSetExt(unbacked, nullptr, 1, nullptr, nullptr, nullptr), EAaFileRet_NullArgument);
  EXPECT_EQ(AaFileRamfsRemove("absent"), EAaFileRet_NoSuchFile);
  EXPECT_EQ(AaFileRamfsRemove(nullptr), EAaFileRet_NullArgument);
  EXPECT_EQ(AaFileRamfsRemove("stats.txt"), EAaFileRet_Ok);
  const std::string out = testing::internal::GetCapturedStdout();

  const std::string setSignature =
      "EAaFileRet AaFileRamfsSetExt(const char*, void*, size_t, EAaFileCallbackAction (*)(void*), "
      "EAaFileCallbackAction (*)(void*), void*)";
  const std::string removeSignature = "EAaFileRet AaFileRamfsRemove(const char*)";
  EXPECT_EQ(out, "RamFs set stats.txt\n" +                                                    //
                     setSignature + ": ERROR: RamFs set errno: -17 for stats.txt\n" +         //
                     setSignature + ": ERROR: fileName: (nil) or blockData: " + pointerText(buffer) + " is NULL\n" +
                     setSignature + ": ERROR: fileName: " + pointerText(unbacked) + " or blockData: (nil) is NULL\n" +
                     removeSignature + ": ERROR: RamFs cannot remove absent\n" +               //
                     removeSignature + ": ERROR: fileName is NULL\n" +                         //
                     "RamFs removed stats.txt\n");
  EXPECT_STREQ(buffer, "payload");  // the owner's buffer is left as it was
}

TEST_F(AaFileRamfs, AFullRegistryRefusesThe31stFileAndTakesOneAfterARemoval) {
  static char buffer[4];
  for (unsigned i = 0; i < TRamFsSet::kSlotCount; ++i) {
    ASSERT_EQ(AaFileRamfsSetExt(("f" + std::to_string(i)).c_str(), buffer, sizeof(buffer), nullptr, nullptr, nullptr),
              EAaFileRet_Ok);
  }
  testing::internal::CaptureStdout();
  EXPECT_EQ(AaFileRamfsSetExt("f30", buffer, sizeof(buffer), nullptr, nullptr, nullptr), EAaFileRet_RegistryFull);
  EXPECT_NE(testing::internal::GetCapturedStdout().find(": ERROR: RamFs set errno: -28 for f30\n"), std::string::npos);
  EXPECT_EQ(namesInSlotOrder(g_RamFsFiles).size(), TRamFsSet::kSlotCount);
  EXPECT_EQ(AaFileRamfsRemove("f7"), EAaFileRet_Ok);
  EXPECT_EQ(AaFileRamfsSetExt("f30", buffer, sizeof(buffer), nullptr, nullptr, nullptr), EAaFileRet_Ok);
}

TEST_F(AaFileRamfs, NamesLongerThan255CharactersMeetTheirCutForm) {
  static char buffer[4];
  const std::string name256(256, 'a');
  ASSERT_EQ(AaFileRamfsSetExt(name256.c_str(), buffer, sizeof(buffer), nullptr, nullptr, nullptr), EAaFileRet_Ok);
  EXPECT_EQ(AaFileRamfsSetExt(name256.substr(0, 255).c_str(), buffer, 1, nullptr, nullptr, nullptr),
            EAaFileRet_AlreadyRegistered);
  EXPECT_EQ(namesInSlotOrder(g_RamFsFiles), std::vector<std::string>{name256.substr(0, 255)});
  EXPECT_EQ(AaFileRamfsRemove(std::string(1000, 'a').c_str()), EAaFileRet_Ok);
}

TEST_F(AaFileRamfs, DumpsWriteTheFilesOfTheirPrefixesBetweenTheOwnersCallbacks) {
  std::vector<char> tti = pattern(10, 1), tti2 = pattern(3, 2), mac = pattern(64, 3), dl = pattern(5, 4),
                    ul = pattern(6, 5), other = pattern(7, 6);
  CallbackCounter counter;
  const auto registerFile = [&](const char* name, std::vector<char>& bytes) {
    ASSERT_EQ(AaFileRamfsSetExt(name, bytes.data(), bytes.size(), CallbackCounter::lock, CallbackCounter::unlock,
                                &counter),
              EAaFileRet_Ok);
  };
  registerFile("tti_trace", tti);
  registerFile("tti_short", tti2);
  registerFile("mac_stats", mac);
  registerFile("dl_sched", dl);
  registerFile("ul_sched", ul);
  registerFile("other_tti", other);

  testing::internal::CaptureStdout();
  EXPECT_EQ(stubAaFileRamfsDumpTti(), 2u);
  EXPECT_EQ(stubAaFileRamfsDumpHb(), 3u);
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_NE(out.find("RamFs dumped tti_traceRamFs dumped "), std::string::npos) << out;

  // tti files lose their last four bytes (all of them when shorter), the others are whole.
  EXPECT_EQ(fileContents("tti_trace"), std::string(tti.begin(), tti.end() - 4));
  EXPECT_EQ(fileContents("tti_short"), "");
  EXPECT_EQ(fileContents("mac_stats"), std::string(mac.begin(), mac.end()));
  EXPECT_EQ(fileContents("dl_sched"), std::string(dl.begin(), dl.end()));
  EXPECT_EQ(fileContents("ul_sched"), std::string(ul.begin(), ul.end()));
  EXPECT_FALSE(std::ifstream("other_tti").good());
  EXPECT_EQ(counter.locks, 5);
  EXPECT_EQ(counter.unlocks, 5);
}

TEST_F(AaFileRamfs, DumpsSkipFilesTheyCannotCreateAndCutLongTargetNames) {
  std::vector<char> bytes = pattern(8);
  ASSERT_EQ(AaFileRamfsSetExt("mac_no/such/dir", bytes.data(), bytes.size(), nullptr, nullptr, nullptr), EAaFileRet_Ok);
  const std::string longName = "mac_" + std::string(200, 'x');
  ASSERT_EQ(AaFileRamfsSetExt(longName.c_str(), bytes.data(), bytes.size(), nullptr, nullptr, nullptr), EAaFileRet_Ok);
  testing::internal::CaptureStdout();
  EXPECT_EQ(stubAaFileRamfsDump("mac_", ".bin", false, 0), 1u);
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(fileContents(longName.substr(0, 99)), std::string(bytes.begin(), bytes.end()));
  EXPECT_EQ(stubAaFileRamfsDump(nullptr, nullptr, false, 0), 0u);
}

}  // namespace
