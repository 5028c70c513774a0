# The product is compiled for size (the preset release says so), but for what runs for every row or line of a large commit.

# Sources of the calling folder that are worth their size.
function(moatkeeper_for_speed)
  if(NOT CMAKE_BUILD_TYPE STREQUAL "Release")
    return()
  endif()
  # The precompiled header is for size.
  set_source_files_properties(${ARGN} PROPERTIES COMPILE_OPTIONS -O2 SKIP_PRECOMPILE_HEADERS ON)
endfunction()

# Whatever else is linked with these libraries takes the machine code in their objects.
if(MOATKEEPER_LTO)
  add_link_options($<$<NOT:$<STREQUAL:$<TARGET_PROPERTY:NAME>,moatkeeper>>:-fno-lto>)
endif()

# With MOATKEEPER_LTO the daemon is optimised across its libraries. Their objects hold machine code as well, so that whatever
# else links them (tests, moatctl) is linked in no time.
function(moatkeeper_link_as_one program)
  if(NOT MOATKEEPER_LTO)
    return()
  endif()
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    message(FATAL_ERROR "MOATKEEPER_LTO is for g++, and the compiler is ${CMAKE_CXX_COMPILER_ID}")
  endif()
  target_compile_options(${program} PRIVATE -flto=auto)
  target_link_options(${program} PRIVATE -flto=auto)
  foreach(library ${ARGN})
    target_compile_options(${library} PRIVATE -flto=auto -ffat-lto-objects)
  endforeach()
endfunction()
