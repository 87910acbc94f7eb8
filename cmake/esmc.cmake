# Hardening of what is shipped: ESMC_HARDENING when it is compiled, ESMC_HARDENING_LINK when it is linked. What a
# compiler does not know is left out; tools/hardened says what a program has in the end.
include(CheckCXXCompilerFlag)

set(ESMC_HARDENING -fPIE -fstack-protector-strong)
set(ESMC_HARDENING_LINK -Wl,-z,relro,-z,now,-z,noexecstack)
check_cxx_compiler_flag("-Werror -fstack-clash-protection" ESMC_HAS_STACK_CLASH)
if(ESMC_HAS_STACK_CLASH)
  list(APPEND ESMC_HARDENING -fstack-clash-protection)
endif()
check_cxx_compiler_flag("-ftrivial-auto-var-init=zero" ESMC_HAS_AUTO_INIT)
# clang up to 15 wants to be told twice.
set(twice -enable-trivial-auto-var-init-zero-knowing-it-will-be-removed-from-clang)
check_cxx_compiler_flag("-ftrivial-auto-var-init=zero ${twice}" ESMC_HAS_AUTO_INIT_TWICE)
if(ESMC_HAS_AUTO_INIT)
  list(APPEND ESMC_HARDENING -ftrivial-auto-var-init=zero)
elseif(ESMC_HAS_AUTO_INIT_TWICE)
  list(APPEND ESMC_HARDENING -ftrivial-auto-var-init=zero ${twice})
endif()
# The C library checks lengths in optimised builds only; the sanitizers do it themselves.
if(NOT ESMC_SANITIZE AND NOT CMAKE_BUILD_TYPE MATCHES "^(Debug)?$")
  list(APPEND ESMC_HARDENING -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=3)
endif()
# Tests are linked from the same objects without that (tests/CMakeLists.txt).
if(ESMC_LTO)
  list(APPEND ESMC_HARDENING -flto=auto -ffat-lto-objects)
  set(ESMC_LTO_LINK -flto=auto)
endif()
# -static-libstdc++ beside -static-pie would turn the C library into a dynamic one again.
if(ESMC_STATIC)
  list(APPEND ESMC_HARDENING_LINK -static-pie)
else()
  list(APPEND ESMC_HARDENING_LINK -pie -static-libstdc++ -static-libgcc)
endif()

# Shipped code: no exceptions, no run-time type information, nothing but libc at run time.
function(esmc_library name)
  add_library(${name} STATIC ${ARGN})
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR}/src)
  target_compile_options(${name} PRIVATE -fno-exceptions -fno-rtti -fno-threadsafe-statics)
  target_compile_options(${name} PRIVATE -ffunction-sections -fdata-sections ${ESMC_HARDENING})
endfunction()

function(esmc_program name)
  add_executable(${name} ${ARGN})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/src)
  target_compile_options(${name} PRIVATE -fno-exceptions -fno-rtti -fno-threadsafe-statics)
  target_compile_options(${name} PRIVATE -ffunction-sections -fdata-sections ${ESMC_HARDENING})
  target_link_options(${name} PRIVATE -Wl,--gc-sections,--as-needed ${ESMC_HARDENING_LINK} ${ESMC_LTO_LINK})
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/bin)
endfunction()
