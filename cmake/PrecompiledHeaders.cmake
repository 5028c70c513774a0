# What most sources include is parsed once for all of them. The preset dev goes without, so that a source that lacks an
# include of its own is found. moatkeeper_precompiled(target...) gives it to targets that are compiled as they are.
file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/nothing.cpp "")
add_library(moatkeeper_headers OBJECT ${CMAKE_CURRENT_BINARY_DIR}/nothing.cpp)
target_precompile_headers(moatkeeper_headers PRIVATE <algorithm> <array> <chrono> <functional> <map> <memory> <optional>
  <set> <span> <string> <string_view> <utility> <vector>)

function(moatkeeper_precompiled)
  foreach(target ${ARGN})
    target_precompile_headers(${target} REUSE_FROM moatkeeper_headers)
  endforeach()
endfunction()
