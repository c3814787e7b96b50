# Compiler flags shared by the library, its tests, tools and benchmarks.

# Results must not depend on whether the compiler fuses a*b+c: fused
# multiply-adds are written out explicitly where the arithmetic wants them.
add_compile_options(-ffp-contract=off -Wall -Wextra)
if(AKUDOA_WERROR)
  add_compile_options(-Werror)
endif()

# Target architecture. x86_64 builds assume x86-64-v3 (AVX2 + FMA): the
# four-lane math needs a hardware fused multiply-add to match AArch64 bit for
# bit. AVX-512 VNNI is picked at run time from files suffixed _avx512.
set(AKUDOA_ARCH "generic")
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(aarch64|arm64|ARM64)$")
  set(AKUDOA_ARCH "aarch64")
elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|AMD64|amd64)$")
  set(AKUDOA_ARCH "x86_64")
  if(NOT AKUDOA_FORCE_SCALAR)
    add_compile_options(-march=x86-64-v3)
  endif()
endif()
if(AKUDOA_FORCE_SCALAR)
  add_compile_definitions(AKUDOA_FORCE_SCALAR=1)
endif()
if(AKUDOA_CHECK_SIMD)
  add_compile_definitions(AKUDOA_CHECK_SIMD=1)
endif()

if(AKUDOA_SANITIZE AND AKUDOA_TSAN)
  message(FATAL_ERROR "AKUDOA_SANITIZE and AKUDOA_TSAN cannot be combined")
endif()
if(AKUDOA_SANITIZE)
  add_compile_options(-fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
  add_link_options(-fsanitize=address,undefined)
endif()
if(AKUDOA_TSAN)
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
endif()

# libFuzzer targets in tests/fuzz (clang only): the library is instrumented
# for coverage and checked by the address and undefined-behaviour
# sanitizers, float-to-int conversions included; any finding aborts.
option(AKUDOA_FUZZ "Build the libFuzzer targets in tests/fuzz (needs clang)" OFF)
if(AKUDOA_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    message(FATAL_ERROR "AKUDOA_FUZZ needs clang++ (CMAKE_CXX_COMPILER=clang++)")
  endif()
  if(AKUDOA_SANITIZE OR AKUDOA_TSAN)
    message(FATAL_ERROR "AKUDOA_FUZZ brings its own sanitizers")
  endif()
  add_compile_options(-fsanitize=fuzzer-no-link,address,undefined,float-cast-overflow
                      -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined,float-cast-overflow)
endif()
