// Where a node keeps its files on the host: the node directories ("<root>/olm_lite/0x%04x") and
// the allocation trace ("<root>/OLMLiteMemActiveAllocks_%x.log").
//
// The board's root is /ram, and so is the default. A developer who is not root cannot create /ram
// on a host, so OLM_RAM_ROOT names another directory (for example $HOME/ram); it is read once, on
// the first call, and must be an absolute path without a trailing '/'. A value that is not an
// absolute path is reported on stderr and the default used.
#pragma once

namespace Olm {

inline constexpr char kDefaultRamRoot[] = "/ram";
inline constexpr char kRamRootVariable[] = "OLM_RAM_ROOT";

// The root in force, never null; the string lives as long as the process.
const char* ramRoot();

}  // namespace Olm
