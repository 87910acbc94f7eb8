# A big-endian machine, for the tests alone: nobody is known to run the programs on one.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR s390x)

set(CMAKE_C_COMPILER s390x-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER s390x-linux-gnu-g++)

set(CMAKE_FIND_ROOT_PATH /usr/s390x-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# GoogleTest for the target is built from the distribution's sources: cross/FindGTest.cmake.
list(APPEND CMAKE_MODULE_PATH ${CMAKE_CURRENT_LIST_DIR}/cross)

# Tests built for the target run under the user-mode emulator.
find_program(ESMC_QEMU_S390X NAMES qemu-s390x-static qemu-s390x)
if(ESMC_QEMU_S390X)
  set(CMAKE_CROSSCOMPILING_EMULATOR "${ESMC_QEMU_S390X};-L;/usr/s390x-linux-gnu")
endif()
