# What every target of this project is compiled with. Nothing here reaches users of the library.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)

# -Werror. A user with a newer compiler turns it off with -DCMAKE_COMPILE_WARNING_AS_ERROR=OFF.
if(NOT DEFINED CMAKE_COMPILE_WARNING_AS_ERROR)
   set(CMAKE_COMPILE_WARNING_AS_ERROR ON)
endif()

if(NOT CMAKE_BUILD_TYPE AND NOT CMAKE_CONFIGURATION_TYPES)
   set(CMAKE_BUILD_TYPE Release CACHE STRING "Debug, Release, RelWithDebInfo or MinSizeRel" FORCE)
endif()

find_program(CCACHE_PROGRAM ccache)
mark_as_advanced(CCACHE_PROGRAM)
if(CCACHE_PROGRAM AND NOT DEFINED CMAKE_CXX_COMPILER_LAUNCHER)
   # The cache takes what is compiled with precompiled headers only when told that this is meant. It
   # has to go by the files that a source reads: preprocessed, two headers that differ in a macro
   # alone are the same.
   set(CMAKE_CXX_COMPILER_LAUNCHER "${CMAKE_COMMAND}" -E env
      CCACHE_SLOPPINESS=pch_defines,time_macros CCACHE_DEPEND=1 "${CCACHE_PROGRAM}")
   if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
      add_compile_options(-fpch-preprocess)
   endif()
endif()

add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -Wconversion)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
   # g++ 12 sees overlapping copies in optimised std::string concatenation where there are none.
   add_compile_options(-Wno-restrict)
endif()

if(VELMPLS_SANITIZE)
   add_compile_options(-fsanitize=${VELMPLS_SANITIZE} -fno-sanitize-recover=all
      -fno-omit-frame-pointer)
   add_link_options(-fsanitize=${VELMPLS_SANITIZE})
   if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
      # The checks that the sanitizers insert mislead g++'s data flow analysis.
      add_compile_options(-Wno-maybe-uninitialized)
   endif()
endif()

if(VELMPLS_COVERAGE)
   add_compile_options(--coverage -fprofile-update=atomic)
   add_link_options(--coverage)
endif()
