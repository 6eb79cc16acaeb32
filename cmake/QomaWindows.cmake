# What a Windows build on a Debian machine needs besides its toolchain file. Included by the root.

if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  set(bits 32)
else()
  set(bits 64)
endif()

# ${CMAKE_BINARY_DIR}/wine-run PROGRAM [ARGUMENT...] runs a program of this build; ctest runs tests so.
file(WRITE ${CMAKE_BINARY_DIR}/wine-run
  "#!/bin/sh\nexec '${CMAKE_SOURCE_DIR}/scripts/wine-run.sh' '${CMAKE_BINARY_DIR}' ${bits} \"$@\"\n")
file(CHMOD ${CMAKE_BINARY_DIR}/wine-run PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_BINARY_DIR}/wine-run)

set(QOMA_NATIVE_BIN "" CACHE PATH "Where the native programs lie that end-to-end tests run the Windows ones against")

# These are headers only, but /usr/include must not come into sight of this compiler.
file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/include)
foreach(library CLI nlohmann)
  file(CREATE_LINK /usr/include/${library} ${CMAKE_BINARY_DIR}/include/${library} SYMBOLIC)
endforeach()
set(CLI11_INCLUDE_DIR ${CMAKE_BINARY_DIR}/include)
set(JSON_INCLUDE_DIR ${CMAKE_BINARY_DIR}/include)
