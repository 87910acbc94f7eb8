# 32-bit ARM, hard float, as Debian's armhf. 64-bit time, so that the programs outlive 2038.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_CXX_FLAGS_INIT "-D_TIME_BITS=64 -D_FILE_OFFSET_BITS=64")

set(CMAKE_FIND_ROOT_PATH /usr/arm-linux-gnueabihf)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# GoogleTest for the target is built from the distribution's sources: cross/FindGTest.cmake.
list(APPEND CMAKE_MODULE_PATH ${CMAKE_CURRENT_LIST_DIR}/cross)

# crypt(3) for the target: libcrypt-dev:armhf where it is installed, else what tools/check_arm unpacked. Without
# either the build goes on and the programs refuse to store a password.
foreach(root "" ${CMAKE_CURRENT_LIST_DIR}/../build/armhf-packages)
  if(EXISTS ${root}/usr/lib/arm-linux-gnueabihf/libcrypt.a AND NOT ESMC_CRYPT_LIBRARY)
    get_filename_component(ESMC_CRYPT_LIBRARY ${root}/usr/lib/arm-linux-gnueabihf/libcrypt.a ABSOLUTE)
    if(root)
      get_filename_component(crypt_include ${root}/usr/include ABSOLUTE)
      string(APPEND CMAKE_CXX_FLAGS_INIT " -isystem ${crypt_include}")
    endif()
  endif()
endforeach()

# Tests built for the target run under the user-mode emulator.
find_program(ESMC_QEMU_ARM NAMES qemu-arm-static qemu-arm)
if(ESMC_QEMU_ARM)
  set(CMAKE_CROSSCOMPILING_EMULATOR "${ESMC_QEMU_ARM};-L;/usr/arm-linux-gnueabihf")
endif()
