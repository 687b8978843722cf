#include "AaSysMbMessageApi.h"

#include <cstring>

#include "AaSysMbCommand.h"

namespace {

constexpr uint32_t kNoModeCheck = 0xFFFFFFFF;
constexpr uint32_t kHighestApf = 3;
constexpr TAaSysComNid kInvalidNids[] = {0xFFFE, 0xFFFF, AASYSCOM_NID_THIS_NODE};

// What the message API checks of one command, and the names its log lines carry.
struct CommandRules {
  uint32_t msgId;
  const char* checkFunction;  // "CheckParams..."
  const char* noun;           // the command as its check texts name it
  uint32_t highestMode;       // kNoModeCheck: the mode is not checked
};

// The unsubscribe texts say "Subscribe": the log readers know them so.
constexpr CommandRules kCheckedCommands[] = {
    {AASYSMB_PUBL_CMD_MSG, "CheckParamsPublish", "Publish", EAaSysMbPublMode_OneShot},
    {AASYSMB_SUBS_CMD_MSG, "CheckParamsSubscribe", "Subscribe", EAaSysMbSubsMode_OneShot},
    {AASYSMB_UNSUBS_CMD_MSG, "CheckParamsUnsubscribe", "Subscribe", kNoModeCheck},
    {AASYSMB_UNPUBL_CMD_MSG, "CheckParamsUnpublish", "Unpublish", kNoModeCheck},
    {AASYSMB_FLUSH_CMD_MSG, "CheckParamsFlush", "Flush", EAaSysMbFlushMode_Both},
};

struct ReplyRules {
  uint32_t commandId;
  uint32_t replyId;         // 0: the command has no reply
  const char* sendFunction; // names the failures of building the reply
};

constexpr ReplyRules kReplies[] = {
    {AASYSMB_PUBL_CMD_MSG, AASYSMB_PUBL_REPLY_MSG, "SendPublishReply"},
    {AASYSMB_FWD_CMD_MSG, AASYSMB_PUBL_REPLY_MSG, "SendPublishReply"},
    {AASYSMB_UNPUBL_CMD_MSG, AASYSMB_UNPUBL_REPLY_MSG, "SendUnpublishReply"},
    {AASYSMB_SUBS_CMD_MSG, AASYSMB_SUBS_REPLY_MSG, "SendSubscribeReply"},
    {AASYSMB_UNSUBS_CMD_MSG, AASYSMB_UNSUBS_REPLY_MSG, "SendUnsubscribeReply"},
    {AASYSMB_FLUSH_CMD_MSG, AASYSMB_FLUSH_REPLY_MSG, "SendFlushReply"},
    {AASYSMB_SND_CMD_MSG, 0, nullptr},
    {AASYSMB_DEL_CMD_MSG, 0, nullptr},
};

template <typename Rules, size_t N>
const Rules* rulesFor(const Rules (&table)[N], uint32_t msgId, uint32_t Rules::*key) {
  for (const Rules& rules : table) {
    if (rules.*key == msgId) return &rules;
  }
  return nullptr;
}

bool isInvalidAddress(TAaSysComSicad address) {
  if (address == 0) return true;
  for (TAaSysComNid nid : kInvalidNids) {
    if (AaSysComSicadGetNid(address) == nid) return true;
  }
  return false;
}

bool IsMessageAPI(const void* msg) {
  SAaSysMbCmdHeader* header = commandHeaderOf(msg);
  if (header == nullptr) {
    AaSysLogPrintE(EAaSysLogSeverityLevel_Warning, AASYSMB_FEATURE_ID, "IsMessageAPI(): Could not get message payload.");
    return false;
  }
  if (header->marker != AASYSMB_MARKER_MESSAGE_API) return false;
  header->apfWord |= AASYSMB_FLAG_REPLY_WANTED | AASYSMB_FLAG_MESSAGE_API;
  return true;
}

void logCheckFailure(const CommandRules& rules, const char* what, uint32_t value) {
  AaSysLogPrintE(EAaSysLogSeverityLevel_Error, AASYSMB_FEATURE_ID, "%s(): %s message %s 0x%x.", rules.checkFunction,
                 rules.noun, what, value);
}

uint32_t checkParams(const void* msg, const CommandRules& rules) {
  const SAaSysMbCmdHeader* header = commandHeaderOf(msg);
  if (header == nullptr) {
    AaSysLogPrintE(EAaSysLogSeverityLevel_Error, AASYSMB_FEATURE_ID, "%s(): Could not get message payload.",
                   rules.checkFunction);
    return EAaSysMbCheckResult_NoPayload;
  }
  if (header->zone != EAaSysMbZone_System) {
    logCheckFailure(rules, "on unsupported zone", header->zone);
    return EAaSysMbCheckResult_UnsupportedZone;
  }
  if (rules.highestMode != kNoModeCheck && header->mode > rules.highestMode) {
    logCheckFailure(rules, "with unsupported mode", header->mode);
    return EAaSysMbCheckResult_UnsupportedMode;
  }
  if (isInvalidAddress(header->address)) {
    logCheckFailure(rules, "with invalid sicad", header->address);
    return EAaSysMbCheckResult_InvalidAddress;
  }
  return EAaSysMbCheckResult_Valid;
}

}  // namespace

uint32_t MessageApiParamsCheck(void* msg) {
  if (!IsMessageAPI(msg)) return EAaSysMbCheckResult_Valid;
  const uint32_t msgId = AaSysComMsgGetId(msg);
  AaSysLogPrintE(EAaSysLogSeverityLevel_Debug, AASYSMB_FEATURE_ID,
                 "MessageApiParamsCheck(): Message API message received 0x%x.", msgId);
  const CommandRules* rules = rulesFor(kCheckedCommands, msgId, &CommandRules::msgId);
  if (rules == nullptr) {
    AaSysLogPrintE(EAaSysLogSeverityLevel_Error, AASYSMB_FEATURE_ID, "Unexpected message id 0x%x received via message API.",
                   msgId);
    return EAaSysMbCheckResult_UnexpectedMsgId;
  }
  return checkParams(msg, *rules);
}

void SendReplyMessage(const void* msg, uint32_t result) {
  const uint32_t msgId = AaSysComMsgGetId(msg);
  const ReplyRules* rules = rulesFor(kReplies, msgId, &ReplyRules::commandId);
  // An invalid address cannot be answered.
  if (rules == nullptr || result == EAaSysMbCheckResult_InvalidAddress) return;
  const SAaSysMbCmdHeader* header = commandHeaderOf(msg);
  if (header == nullptr) {
    if (rules->sendFunction != nullptr) {
      AaSysLogPrintE(EAaSysLogSeverityLevel_Error, AASYSMB_FEATURE_ID, "%s(): Could not get message payload.",
                     rules->sendFunction);
    }
    return;
  }
  const bool messageApi = (header->apfWord & AASYSMB_FLAG_MESSAGE_API) != 0;
  if (!messageApi && (header->apfWord & AASYSMB_FLAG_REPLY_WANTED) == 0) return;
  // The server learns of failures only; it does not wait for its successful commands' replies.
  if (result == EAaSysMbCheckResult_Valid && AaSysComSicadGetCpid(AaSysComMsgGetSender(msg)) == AASYSMB_SERVER_CPID) {
    return;
  }
  if (rules->replyId == 0) {
    AaSysLogPrintE(EAaSysLogSeverityLevel_Debug, AASYSMB_FEATURE_ID, "No reply message for message id 0x%x.", msgId);
    return;
  }
  AaSysLogPrintE(EAaSysLogSeverityLevel_Debug, AASYSMB_FEATURE_ID, "SendReplyMessage(): Sending reply message for 0x%x.",
                 msgId);
  void* reply = AaSysComMsgCreate(rules->replyId, AASYSMB_REPLY_SIZE, header->address);
  if (reply == nullptr) {
    AaSysLogPrintE(EAaSysLogSeverityLevel_Error, AASYSMB_FEATURE_ID, "%s(): Reply message could not be created.",
                   rules->sendFunction);
    return;
  }
  SAaSysMbReplyMsg answer;
  answer.header = *header;
  if (messageApi) answer.header.marker = AASYSMB_MARKER_MESSAGE_API;
  answer.result = result;
  std::memcpy(AaSysComMsgGetPayload(reply), &answer, sizeof(answer));
  AaSysComMsgSendS(&reply, AaSysComSicadGet(AASYSMB_PROXY_CPID, AaSysComGetOwnNid()));
}

void SetMessageApf(void* msg, uint32_t apfWord) {
  const uint32_t apf = apfWord >> AASYSMB_APF_SHIFT;
  if (apf > kHighestApf) {
    AaSysLogPrintE(EAaSysLogSeverityLevel_Warning, AASYSMB_FEATURE_ID,
                   "SetMessageApf(): Unexpected APF, message APF will not be set.");
    return;
  }
  AaSysLogPrintE(EAaSysLogSeverityLevel_Debug, AASYSMB_FEATURE_ID, "SetMessageApf(): Setting message APF to 0x%x.", apf);
  AaSysComMsgSetApf(msg, apf);
}
