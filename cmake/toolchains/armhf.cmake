# The product's target: 32-bit ARM Linux, hard-float ABI (Debian armhf). Set up the machine first
# with scripts/setup-cross.sh armhf <build dir>; scripts/test-armhf.sh builds and runs the tests.
set(CMAKE_SYSTEM_PROCESSOR arm)
set(OLM_CROSS_TRIPLE arm-linux-gnueabihf)
set(OLM_CROSS_EMULATOR qemu-arm)
include(${CMAKE_CURRENT_LIST_DIR}/DebianCross.cmake)
