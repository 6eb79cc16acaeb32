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

# dist/ is what a Windows machine gets: the programs and modules, stripped, with the modules' import libraries.
function(qoma_windows_dist)
  set(commands)
  foreach(target QOMANoAg QOMADolC notifymon mfpsim tracedeck)
    if(TARGET ${target})
      list(APPEND targets ${target})
      list(APPEND commands COMMAND ${CMAKE_STRIP} -o dist/$<TARGET_FILE_NAME:${target}> $<TARGET_FILE:${target}>)
      get_target_property(type ${target} TYPE)
      if(type STREQUAL SHARED_LIBRARY)
        list(APPEND commands COMMAND ${CMAKE_COMMAND} -E copy $<TARGET_LINKER_FILE:${target}> dist)
      endif()
    endif()
  endforeach()
  add_custom_command(OUTPUT dist/.stamp
    COMMAND ${CMAKE_COMMAND} -E rm -rf dist
    COMMAND ${CMAKE_COMMAND} -E make_directory dist
    ${commands}
    COMMAND ${CMAKE_COMMAND} -E touch dist/.stamp
    DEPENDS ${targets} VERBATIM COMMENT "Collecting dist/")
  add_custom_target(dist ALL DEPENDS dist/.stamp)
endfunction()
cmake_language(DEFER CALL qoma_windows_dist)
