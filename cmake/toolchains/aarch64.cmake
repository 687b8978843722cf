# 64-bit ARM Linux (Debian arm64). Set up the machine first with scripts/setup-cross.sh arm64
# <build dir>; scripts/build-aarch64.sh builds it.
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(OLM_CROSS_TRIPLE aarch64-linux-gnu)
set(OLM_CROSS_EMULATOR qemu-aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/DebianCross.cmake)
