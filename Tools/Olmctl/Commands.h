// The commands of olmctl besides rad (RadCommand.h).
#pragma once

#include "Command.h"

namespace Olmctl {

const Command& pingCommand();
const Command& sendCommand();
const Command& nodesCommand();
const Command& statsCommand();
const Command& topCommand();
const Command& historyCommand();
const Command& logCommand();

}  // namespace Olmctl
