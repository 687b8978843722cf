// Olm::SicFtpFwEu: the built-in file-transfer forwarder EU, bound to CPIDs 0x614 and 0x23B.
//
// It serves two requests of tools:
//   - a file-transfer get request (0xA82) naming a file by path: the path is rewritten to the file
//     of that name under this node's RAM file mount, "<root>/olm_lite/0x<nid>/fusemnt/<name>", and
//     the request itself is forwarded, same CPID, to the node that runs the file-transfer service:
//     the node of the master node id tag ("olm.service.aasyscom.masternid"), or while that tag is
//     not set the node of the same group whose last hexadecimal digit is D;
//   - a memory browse request (0x1BEB: type, length, address): answered with
//     BROWSER_DSP_MEMORY_ACK (0x1BEC) holding a copy of that memory of this process. The address is
//     32 bits wide, so on a 64-bit host only the lowest 4 GiB can be browsed. An address that is not
//     mapped ends the process: nothing is validated.
//
// Ownership: the handlers take the request by value and never clear the Dispatcher's reference, so
// the Dispatcher frees every request after ProcessMessage, also a get request that was just sent.
// The platform library accepts that first free of a buffer it holds after a send as harmless. The
// forwarder therefore sends a request only when the send leaves the process: never to its own node
// (the Dispatcher would free a buffer still queued here) and never without a sender (the send would
// destroy it, and the Dispatcher's free would be a second one). Such requests are logged and dropped.
//
// Every failure is logged at severity 4 and the request dropped; no error reply is sent.
#pragma once

#include <cstdint>

#include "IAaSysDispatcherSicHandler.h"

namespace Olm {

class SicFtpFwEu : public IAaSysDispatcherSicHandler {
 public:
  static constexpr uint16_t kGetReqMsgId = 0x0A82;
  static constexpr uint16_t kBrowserDspMemReqMsgId = 0x1BEB;
  static constexpr uint16_t kBrowserDspMemAckMsgId = 0x1BEC;
  // The rewritten path, terminator included, is at most this long.
  static constexpr uint32_t kMaxPathSize = 240;
  // Characters of the file name kept from the request's path.
  static constexpr uint32_t kMaxFileNameLength = 99;
  // Browse request and reply: three words (type, length, address), then the data of the reply.
  static constexpr uint32_t kBrowseDataOffset = 12;
  static constexpr uint32_t kBrowseTypeCopy = 0;
  static constexpr uint32_t kBrowseTypeNoData = 1;
  static constexpr uint32_t kBrowseStatusNoData = 2;

  // Always 3 (LOW).
  int PrioritizeMessage(void*& msg) override;
  // Hands the request to its handler by id, or logs an unknown id; msg is left as it is (see the
  // ownership rule above).
  void ProcessMessage(void*& msg) override;

  void handleSicFtpFwGetReq(uint32_t sender, void* msg);
  void handleBrowserDspMemReq(uint32_t sender, void* msg);

 private:
  [[maybe_unused]] uint32_t m_unused = 0;
};

}  // namespace Olm
