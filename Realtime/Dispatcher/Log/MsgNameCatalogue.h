// The message-name catalogue that every log uses to print a message id as a name.
#pragma once

#include <cstdint>

namespace Olm {

struct MsgNameEntry {
  uint32_t id;  // a 16-bit message id
  const char* name;
};

// The table, ended by an entry whose name is null.
const MsgNameEntry* msgNameCatalogue();

// The name of the first entry with the low 16 bits of msgId, or "UNKNOWN".
const char* msgNameLookup(uint32_t msgId);

}  // namespace Olm
