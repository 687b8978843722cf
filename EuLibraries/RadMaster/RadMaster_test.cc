#include "RadMaster.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "AaConfigRadMsg.h"
#include "AaSysCom.h"
#include "AaSysMb.h"
#include "FakeRuntime.h"

namespace {

constexpr uint16_t kNode = 0x1011;
constexpr uint32_t kSlave = uint32_t{kNode} << 16 | AACONFIG_RAD_SLAVE_CPID;
constexpr uint32_t kMaster = uint32_t{OlmTest::kOwnNid} << 16 | AACONFIG_RAD_MASTER_CPID;
constexpr uint32_t kClient = 0x10F00777;
constexpr uint32_t kClientDomain5 = uint32_t{kNode} << 16 | 5;

using Words = std::vector<uint32_t>;

class RadMasterTest : public OlmTest::FakeRuntimeTest {
 protected:
  void deliver(uint16_t id, uint32_t sender, const Words& words) {
    void* msg = runtime.makeMessage(id, kMaster, sender, static_cast<uint16_t>(words.size() * 4));
    std::memcpy(AaSysComMsgGetPayload(msg), words.data(), words.size() * 4);
    master.ProcessMessage(msg);
    EXPECT_EQ(msg, nullptr);
  }
  // A registration of the slave: per tag index, default, current value, flash flag, flash value.
  void registerDomain(uint32_t domain, const std::vector<Words>& tags) {
    Words words{kSlave, domain, AACONFIG_RAD_REGISTER_CONSTANT, static_cast<uint32_t>(tags.size())};
    for (const Words& tag : tags) words.insert(words.end(), {tag[0], 4, tag[1], tag[2], tag[3], tag[4]});
    deliver(AACONFIG_RAD_DOMAIN_REGISTER_REQ_MSG, kSlave, words);
  }
  std::vector<void*> sentWithId(uint16_t id) const {
    std::vector<void*> found;
    for (void* msg : runtime.sent()) {
      if (AaSysComMsgGetId(msg) == id) found.push_back(msg);
    }
    return found;
  }
  // The payload words of the last message sent with the id.
  Words lastWords(uint16_t id) const {
    const std::vector<void*> found = sentWithId(id);
    if (found.empty()) return {};
    Words words(AaSysComMsgGetPayloadSize(found.back()) / 4);
    std::memcpy(words.data(), AaSysComMsgGetPayload(found.back()), words.size() * 4);
    return words;
  }

  RadMaster master;
};

TEST_F(RadMasterTest, StartedFromTheLoopItAnnouncesItselfStoredAndAsksEveryOtherNodesDomains) {
  master.start({0x1011, OlmTest::kOwnNid, 0x1012});
  ASSERT_EQ(runtime.sent().size(), 1u);
  void* start = runtime.sent()[0];
  EXPECT_EQ(AaSysComMsgGetReceiver(start), kMaster);
  void* startAsDelivered = runtime.makeMessage(RadMaster::kStartMsgId, kMaster, kMaster, 0);
  master.ProcessMessage(startAsDelivered);

  const std::vector<void*> publications = sentWithId(AASYSMB_PUBL_CMD_MSG);
  ASSERT_EQ(publications.size(), 1u);
  SAaSysMbCmdHeader command;
  std::memcpy(&command, AaSysComMsgGetPayload(publications[0]), sizeof(command));
  EXPECT_EQ(command.msgId, AACONFIG_RAD_MASTER_IND_MSG);
  EXPECT_EQ(command.zone, AACONFIG_RAD_MASTER_IND_ZONE);
  EXPECT_EQ(command.mode, static_cast<uint32_t>(EAaSysMbPublMode_Replace));
  EXPECT_EQ(command.address, kMaster);

  for (uint16_t id : {AACONFIG_RAD_GET_PARAMS_REQ_MSG, AACONFIG_RAD_GET_DEFAULT_PARAMS_REQ_MSG}) {
    const std::vector<void*> questions = sentWithId(id);
    ASSERT_EQ(questions.size(), 2u * RadMaster::kSlaveDomainCount);
    for (void* question : questions) EXPECT_NE(AaSysComSicadGetNid(AaSysComMsgGetReceiver(question)), OlmTest::kOwnNid);
  }
}

TEST_F(RadMasterTest, ARegistrationIsAnsweredWithTheMastersValuesWhichSurviveTheNodesRestart) {
  registerDomain(5, {{1, 10, 11, 0, 0}, {2, 20, 21, 1, 29}});
  EXPECT_EQ(AaSysComMsgGetReceiver(sentWithId(AACONFIG_RAD_DOMAIN_REGISTER_RSP_MSG).back()), kSlave);
  EXPECT_EQ(lastWords(AACONFIG_RAD_DOMAIN_REGISTER_RSP_MSG), (Words{5, 0, 0, 2, 1, 4, 11, 2, 4, 29}))
      << "a flash value is what the node kept for the master";

  deliver(AACONFIG_RAD_SET_PARAMS_REQ_MSG, kClient, {kClientDomain5, 1, 1, 1, 4, 111});
  EXPECT_EQ(lastWords(AACONFIG_RAD_SET_PARAMS_RESP_MSG), (Words{kClientDomain5, 0}));
  EXPECT_EQ(lastWords(AACONFIG_RAD_SET_PARAMS_REQ_MSG), (Words{5, 1, 1, 1, 4, 111}));
  void* forwarded = sentWithId(AACONFIG_RAD_SET_PARAMS_REQ_MSG).back();
  EXPECT_EQ(AaSysComMsgGetReceiver(forwarded), kSlave);
  EXPECT_EQ(AaSysComMsgGetSender(forwarded), kMaster) << "so the slave does not pass it back";

  registerDomain(5, {{1, 10, 10, 0, 0}, {2, 20, 20, 0, 0}});
  EXPECT_EQ(lastWords(AACONFIG_RAD_DOMAIN_REGISTER_RSP_MSG), (Words{5, 0, 0, 2, 1, 4, 111, 2, 4, 29}));
}

TEST_F(RadMasterTest, TheRuntimeDomainsAnswerAlwaysSwitchesTheLogOutputOn) {
  registerDomain(1, {{0x40, 3, 3, 0, 0}});
  EXPECT_EQ(lastWords(AACONFIG_RAD_DOMAIN_REGISTER_RSP_MSG), (Words{1, 0, 0, 2, 0x40, 4, 3, 0x41, 4, 0xFFFFFFFF}));
  registerDomain(1, {{0x41, 0xFFFFFFFF, 0, 0, 0}});
  EXPECT_EQ(lastWords(AACONFIG_RAD_DOMAIN_REGISTER_RSP_MSG), (Words{1, 0, 0, 1, 0x41, 4, 0xFFFFFFFF}));
}

TEST_F(RadMasterTest, ClientsReadValuesAndDefaultsOfAnyNodeAndNothingOfAnUnknownOne) {
  registerDomain(5, {{1, 10, 11, 0, 0}});
  deliver(AACONFIG_RAD_GET_PARAMS_REQ_MSG, kClient, {kClientDomain5});
  EXPECT_EQ(AaSysComMsgGetReceiver(sentWithId(AACONFIG_RAD_GET_PARAMS_RESP_MSG).back()), kClient);
  EXPECT_EQ(lastWords(AACONFIG_RAD_GET_PARAMS_RESP_MSG), (Words{kClientDomain5, 1, 1, 4, 11}));
  deliver(AACONFIG_RAD_GET_DEFAULT_PARAMS_REQ_MSG, kClient, {kClientDomain5});
  EXPECT_EQ(lastWords(AACONFIG_RAD_GET_DEFAULT_PARAMS_RESP_MSG), (Words{kClientDomain5, 1, 1, 4, 10}));
  deliver(AACONFIG_RAD_GET_PARAMS_REQ_MSG, kClient, {kClientDomain5 + 1});
  EXPECT_EQ(lastWords(AACONFIG_RAD_GET_PARAMS_RESP_MSG), (Words{kClientDomain5 + 1, 0}));
}

TEST_F(RadMasterTest, SetsWithAnUnknownIndexDomainOrModeAreRefusedAndChangeNothing) {
  registerDomain(5, {{1, 10, 11, 0, 0}});
  for (const Words& request : {Words{kClientDomain5, 1, 2, 1, 4, 12, 9, 4, 99}, Words{kClientDomain5, 5, 0},
                               Words{kClientDomain5 + 1, 1, 1, 1, 4, 12}}) {
    deliver(AACONFIG_RAD_SET_PARAMS_REQ_MSG, kClient, request);
    EXPECT_EQ(lastWords(AACONFIG_RAD_SET_PARAMS_RESP_MSG), (Words{request[0], 3}));
  }
  EXPECT_TRUE(sentWithId(AACONFIG_RAD_SET_PARAMS_REQ_MSG).empty());
  EXPECT_EQ(master.store().find(kNode, 5)->at(0).value, 11u);
}

TEST_F(RadMasterTest, SetsPassedOnByTheSlaveAreKept) {
  registerDomain(5, {{1, 10, 11, 0, 0}});
  deliver(AACONFIG_RAD_SYNC_NODE_MSG, kSlave, {5, 1, 1, 1, 4, 15});
  EXPECT_EQ(master.store().find(kNode, 5)->at(0).value, 15u);
  deliver(AACONFIG_RAD_SYNC_NODE_MSG, kSlave, {5, 3, 0});
  EXPECT_EQ(master.store().find(kNode, 5)->at(0).value, 10u);
}

TEST_F(RadMasterTest, UnregisteringAnswersOkOnceThenFailed) {
  registerDomain(5, {});
  deliver(AACONFIG_RAD_DOMAIN_UNREGISTER_REQ_MSG, kSlave, {kSlave, 5});
  EXPECT_EQ(lastWords(AACONFIG_RAD_DOMAIN_UNREGISTER_RSP_MSG), (Words{5, 0}));
  deliver(AACONFIG_RAD_DOMAIN_UNREGISTER_REQ_MSG, kSlave, {kSlave, 5});
  EXPECT_EQ(lastWords(AACONFIG_RAD_DOMAIN_UNREGISTER_RSP_MSG), (Words{5, 1}));
}

TEST_F(RadMasterTest, TheSlavesAnswersToTheStartQuestionsTeachTheMasterTheNodesDomains) {
  deliver(AACONFIG_RAD_GET_DEFAULT_PARAMS_RESP_MSG, kSlave, {7, 1, 3, 4, 30});
  deliver(AACONFIG_RAD_GET_PARAMS_RESP_MSG, kSlave, {7, 1, 3, 4, 33});
  deliver(AACONFIG_RAD_GET_PARAMS_RESP_MSG, kSlave, {8, 0});
  deliver(AACONFIG_RAD_GET_PARAMS_RESP_MSG, kClient, {9, 1, 3, 4, 33});
  EXPECT_EQ(master.store().domainsOf(kNode), (std::vector<uint16_t>{7}));
  EXPECT_EQ(master.store().find(kNode, 7)->at(0).defaultValue, 30u);
  EXPECT_EQ(master.store().find(kNode, 7)->at(0).value, 33u);
}

}  // namespace
