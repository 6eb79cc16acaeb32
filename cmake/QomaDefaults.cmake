# Settings that every target shares, and the function that defines a library.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
# What leaves a module is said by export macros; everything else stays inside.
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

# Programs and modules of one build lie side by side, so that a program finds its modules there.
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)
set(CMAKE_ARCHIVE_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/lib)
set(CMAKE_BUILD_RPATH_USE_ORIGIN ON)

find_program(QOMA_CCACHE ccache)
if(QOMA_CCACHE)
  set(CMAKE_CXX_COMPILER_LAUNCHER ${QOMA_CCACHE})
endif()

add_library(qoma_options INTERFACE)
target_include_directories(qoma_options INTERFACE ${CMAKE_SOURCE_DIR})
# Texts that snprintf cuts are cut on purpose; what it would overrun it cannot.
target_compile_options(qoma_options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Woverloaded-virtual -Wcast-qual -Wdate-time
  -fmacro-prefix-map=${CMAKE_SOURCE_DIR}/= # reports name a source by its place in the tree
  $<$<CXX_COMPILER_ID:GNU>:-Wno-format-truncation>
  $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety> # what platform/lock.h marks
  $<$<BOOL:${QOMA_WARNINGS_AS_ERRORS}>:-Werror>)
# What must be true inside is looked at wherever nobody waits for speed (platform/check.h).
target_compile_definitions(qoma_options INTERFACE $<$<CONFIG:Debug>:QOMA_CHECKS>)
if(CMAKE_CXX_COMPILER_ID STREQUAL GNU AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  # These versions see overlaps in std::string's operator+ that cannot be.
  target_compile_options(qoma_options INTERFACE -Wno-restrict)
endif()
# A module depends on what it calls, not on all that the static libraries in it could need.
target_link_options(qoma_options INTERFACE $<$<NOT:$<BOOL:${WIN32}>>:-Wl,--as-needed>)
# What is handed out is the same bit by bit wherever it is built, and hardened as Debian's own (dpkg-buildflags).
set(for_use $<CONFIG:Release,RelWithDebInfo>)
if(QOMA_SANITIZE) # a list with commas, which an expression would take for its own
  set(for_use 0)
endif()
file(RELATIVE_PATH up ${CMAKE_BINARY_DIR} ${CMAKE_SOURCE_DIR}) # so a compiler's cache may name sources
target_compile_options(qoma_options INTERFACE
  "$<${for_use}:-ffile-prefix-map=${up}=;-ffile-prefix-map=${CMAKE_SOURCE_DIR}/=;-ffile-prefix-map=${CMAKE_BINARY_DIR}=.>")
if(WIN32)
  target_link_options(qoma_options INTERFACE -Wl,--no-insert-timestamp)
else()
  target_compile_options(qoma_options INTERFACE
    "$<${for_use}:-fstack-protector-strong;-Wformat;-Wformat-security>")
  target_compile_definitions(qoma_options INTERFACE $<${for_use}:_FORTIFY_SOURCE=2>)
  target_link_options(qoma_options INTERFACE "$<${for_use}:-Wl,-z,relro;-Wl,-z,now>")
  set(CMAKE_STRIP ${CMAKE_SOURCE_DIR}/cmake/strip.sh)
  include(CheckPIESupported)
  check_pie_supported(LANGUAGES CXX)
endif()
if(QOMA_SANITIZE)
  target_compile_options(qoma_options INTERFACE
    -fsanitize=${QOMA_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(qoma_options INTERFACE -fsanitize=${QOMA_SANITIZE})
endif()

# qoma_library(NAME [LIBS ...]): a static library of all sources in the calling folder.
function(qoma_library name)
  cmake_parse_arguments(arg "" "" "LIBS" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
  add_library(${name} STATIC ${sources})
  target_link_libraries(${name} PUBLIC qoma_options ${arg_LIBS})
endfunction()
