# What makes a whole build quick: headers that most sources include are parsed once for all of them, and several sources of
# a target are compiled as one (MOATKEEPER_UNITY), so that names in unnamed namespaces must differ within a target. The
# preset dev goes without either, so that a source that lacks an include of its own is found, and one that changed is
# compiled alone.
option(MOATKEEPER_UNITY "Compile several sources at once" OFF)

file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/nothing.cpp "")
add_library(moatkeeper_headers OBJECT ${CMAKE_CURRENT_BINARY_DIR}/nothing.cpp)
target_precompile_headers(moatkeeper_headers PRIVATE <algorithm> <array> <chrono> <functional> <map> <memory> <optional>
  <set> <span> <string> <string_view> <utility> <vector>)

# For targets with many sources: moatkeeper_many_at_once(target...)
function(moatkeeper_many_at_once)
  if(NOT MOATKEEPER_UNITY)
    return()
  endif()
  set_target_properties(${ARGN} PROPERTIES UNITY_BUILD ON)
  foreach(target ${ARGN})
    # g++ takes the sources for headers, where an unnamed namespace would be a mistake.
    target_compile_options(${target} PRIVATE $<$<CXX_COMPILER_ID:GNU>:-Wno-subobject-linkage>)
  endforeach()
endfunction()

# For targets that are compiled with the flags of the preset: moatkeeper_parse_headers_once(target...)
function(moatkeeper_parse_headers_once)
  foreach(target ${ARGN})
    target_precompile_headers(${target} REUSE_FROM moatkeeper_headers)
  endforeach()
endfunction()
