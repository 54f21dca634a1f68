# The target: 32-bit ARM, hard-float ABI. Programs and tests run under user-mode emulation. What the target needs beyond
# the cross compiler's own libraries stands in build/cache/armhf, put there by scripts/armhf-libpcap.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(ARMHF_ROOT ${CMAKE_CURRENT_LIST_DIR}/../build/cache/armhf)
set(CMAKE_FIND_ROOT_PATH ${ARMHF_ROOT} /usr/arm-linux-gnueabihf)
set(CMAKE_PREFIX_PATH /)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm;-L;/usr/arm-linux-gnueabihf)
