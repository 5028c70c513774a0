# Build options, and the flags that every target of ours gets.
option(MOATKEEPER_TESTS "Build the tests and benchmarks" ON)
option(MOATKEEPER_WERROR "Warnings are errors; the presets say so" OFF)
option(MOATKEEPER_LTO "Link the daemon as one program: a fifth smaller; g++ only" OFF)
option(MOATKEEPER_FUZZ "Build the fuzz targets (clang++)" OFF)
option(MOATKEEPER_COVERAGE "Instrument for gcov" OFF)
set(MOATKEEPER_SANITIZE "" CACHE STRING "Sanitizers, as -fsanitize= takes them")
set(MOATKEEPER_DEVICE_PLATFORM moatkeeper_platform_linux CACHE STRING
  "The library that implements the headers in platform/ for the daemon")

add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -Wconversion $<$<BOOL:${MOATKEEPER_WERROR}>:-Werror>)

# On 32-bit machines, too, there is time after 2038.
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  add_compile_definitions(_FILE_OFFSET_BITS=64 _TIME_BITS=64)
endif()

if(MOATKEEPER_SANITIZE)
  add_compile_options(-fsanitize=${MOATKEEPER_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${MOATKEEPER_SANITIZE})
endif()
if(MOATKEEPER_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()
if(MOATKEEPER_COVERAGE)
  add_compile_options(--coverage -O0)
  add_link_options(--coverage)
endif()

# Unused code of static libraries stays out of the binaries.
add_compile_options(-ffunction-sections -fdata-sections)
add_link_options(-Wl,--gc-sections)
# Relocations take 8 kB less; an older linker says that it ignores this. The C library has read it since glibc 2.36.
add_link_options($<$<CONFIG:Release>:-Wl,-z,pack-relative-relocs>)
