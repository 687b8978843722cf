// The RAM files a node on this host publishes in its mount, "<root>/olm_lite/0x<nid>/fusemnt",
// where root is the nodes' OLM_RAM_ROOT (the tool's --ram-root).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace Olmctl {

std::string ramFilePath(const std::string& root, uint16_t nid, const std::string& name);
// The history log's file name: the node id in hexadecimal without padding, "1011_HistoryLog.bin".
std::string historyLogFileName(uint16_t nid);

// Reads the whole file at once: opening a RAM file takes its owner's lock until it is closed.
// False with error ("cannot read <path>: <reason>") when it cannot be read.
bool readRamFile(const std::string& path, std::vector<uint8_t>& bytes, std::string& error);
// Why a node's RAM file was not found, for the line an operator reads.
std::string missingRamFile(uint16_t nid, const std::string& error);

}  // namespace Olmctl
