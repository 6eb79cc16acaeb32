# What a user gets: the rules of `cmake --install`, and the packages that `cpack` makes of the same files.
# The tree can be moved as a whole: programs, module and package files find each other by relative paths.

if(NOT WIN32 AND CMAKE_LIBRARY_ARCHITECTURE AND NOT DEFINED CMAKE_INSTALL_LIBDIR)
  # As Debian lays it out, below any prefix, so that one build serves the package and /usr/local.
  set(CMAKE_INSTALL_LIBDIR lib/${CMAKE_LIBRARY_ARCHITECTURE} CACHE PATH "Object code libraries")
endif()
set(CMAKE_INSTALL_DOCDIR share/doc/qoma)
set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME qoma)
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# The modules have neither a "lib" in front nor a version behind, so they stay out of the system's own
# folder of libraries.
set(module_dir ${CMAKE_INSTALL_LIBDIR}/qoma)
set(header_dir ${CMAKE_INSTALL_INCLUDEDIR}/qoma)
file(RELATIVE_PATH from_bin /${CMAKE_INSTALL_BINDIR} /${module_dir})
# Whatever else is built and given to users has its name here; its man page is found by itself.
set(modules QOMANoAg QOMANoAgC QOMADolC)
set(programs notifymon mfpsim tracedeck)
set_target_properties(${modules} PROPERTIES INSTALL_RPATH $ORIGIN)
set_target_properties(${programs} PROPERTIES INSTALL_RPATH $ORIGIN/${from_bin})

# All of it is there, or nothing is installed. The list of what was installed may be root's, from the last time.
set(handed_out ${modules} ${programs})
if(TARGET notifyhub)
  list(APPEND handed_out notifyhub)
endif()
foreach(target ${handed_out})
  list(APPEND built $<TARGET_FILE:${target}>)
endforeach()
install(CODE "
  set(built \"${built}\")
  foreach(file IN LISTS built)
    if(NOT EXISTS \${file})
      message(FATAL_ERROR \"\${file} has not been built yet\")
    endif()
  endforeach()
  file(REMOVE \"${CMAKE_BINARY_DIR}/install_manifest.txt\")")

install(TARGETS ${modules} EXPORT QOMANoAg
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  LIBRARY DESTINATION ${module_dir}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(TARGETS ${programs} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

# What a client includes, and what that includes in turn; QOMADolC.h names the codes that come through.
install(FILES agent/QOMANoAg.h DESTINATION ${header_dir}/agent)
install(FILES dolrtl/QOMADolC.h DESTINATION ${header_dir}/dolrtl)
foreach(header afx base cstring export socket sync)
  install(FILES platform/${header}.h DESTINATION ${header_dir}/platform)
endforeach()

# What a client in C includes, what the system's usual compiler links, and the package for Python.
install(FILES capi/qoma_notify.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
set(python_dir lib/python3/dist-packages)
if(WIN32)
  install(FILES ${CMAKE_ARCHIVE_OUTPUT_DIRECTORY}/QOMANoAgC.lib capi/QOMANoAgC.def DESTINATION ${CMAKE_INSTALL_LIBDIR})
  set(python_dir python)
  set(import_library import_library)
endif()
install(DIRECTORY python/qoma DESTINATION ${python_dir} COMPONENT python FILES_MATCHING PATTERN "*.py" PATTERN py.typed)

# find_package(QOMANoAg)
set(config_dir ${CMAKE_INSTALL_LIBDIR}/cmake/QOMANoAg)
target_include_directories(QOMANoAg INTERFACE $<INSTALL_INTERFACE:${header_dir}>)
target_compile_features(QOMANoAg INTERFACE cxx_std_17)
target_include_directories(QOMANoAgC INTERFACE $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
install(EXPORT QOMANoAg FILE QOMANoAgConfig.cmake NAMESPACE QOMANoAg:: DESTINATION ${config_dir})
set(version_file ${CMAKE_BINARY_DIR}/install/QOMANoAgConfigVersion.cmake)
write_basic_package_version_file(${version_file} COMPATIBILITY SameMajorVersion)
install(FILES ${version_file} DESTINATION ${config_dir})

# pkg-config QOMANoAg, pkg-config QOMANoAgC
file(RELATIVE_PATH to_prefix /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" to_prefix ${to_prefix})
foreach(module QOMANoAg QOMANoAgC)
  if(WIN32)
    # By its whole name: with -static, as clients of mingw-w64 are linked, the linker would not find it.
    set(pc_libs "-L\${libdir} -l:lib${module}.dll.a")
  else()
    set(pc_libs "-L\${libdir}/qoma -l:${module}.so -Wl,-rpath,\${libdir}/qoma")
  endif()
  set(pc_headers "\${includedir}")
  if(module STREQUAL QOMANoAg)
    set(pc_headers "\${includedir}/qoma")
  endif()
  configure_file(cmake/QOMANoAg.pc.in install/${module}.pc @ONLY)
  install(FILES ${CMAKE_BINARY_DIR}/install/${module}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()

install(FILES docs/example.reg DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(DIRECTORY examples DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(FILES tools/wireshark/qoma.lua DESTINATION share/qoma/wireshark)

# Their links lead to what is installed.
set(documents README.md CHANGELOG.md SECURITY.md docs/registry-file.md docs/reliability.md docs/c-interface.md
  docs/testing-a-client.md docs/tape.md docs/web-api.md docs/device-link.md)
list(TRANSFORM documents REPLACE ".*/" "" OUTPUT_VARIABLE there)
list(JOIN there " " there)
foreach(file ${documents})
  get_filename_component(name ${file} NAME)
  set(packed ${CMAKE_BINARY_DIR}/install/${name})
  add_custom_command(OUTPUT ${packed} DEPENDS ${file} cmake/InstalledDocument.awk VERBATIM COMMENT "Taking over ${name}"
    COMMAND awk -v "there=${there} example.reg examples" -f ${CMAKE_CURRENT_SOURCE_DIR}/cmake/InstalledDocument.awk
      ${CMAKE_CURRENT_SOURCE_DIR}/${file} > ${packed})
  list(APPEND packed_files ${packed})
endforeach()
install(FILES ${packed_files} DESTINATION ${CMAKE_INSTALL_DOCDIR})

if(NOT WIN32)
  install(FILES docs/debian/copyright DESTINATION ${CMAKE_INSTALL_DOCDIR})
  install(FILES docs/debian/lintian-overrides DESTINATION share/lintian/overrides RENAME qoma)
  foreach(program notifymon mfpsim tracedeck)
    install(FILES tools/completion.bash DESTINATION share/bash-completion/completions RENAME ${program})
  endforeach()
  file(GLOB pages CONFIGURE_DEPENDS RELATIVE ${CMAKE_CURRENT_SOURCE_DIR} docs/man/*)
  list(REMOVE_ITEM pages docs/man/notifyhub.1)
  foreach(file docs/debian/changelog ${pages})
    get_filename_component(name ${file} NAME)
    set(packed ${CMAKE_BINARY_DIR}/install/${name}.gz)
    add_custom_command(OUTPUT ${packed} DEPENDS ${file} VERBATIM COMMENT "Packing ${name}"
      COMMAND sh -c "gzip -9cn \"$1\" >\"$2\"" sh ${CMAKE_CURRENT_SOURCE_DIR}/${file} ${packed})
    list(APPEND packed_files ${packed})
    if(name MATCHES "\\.([0-9])$")
      install(FILES ${packed} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${CMAKE_MATCH_1})
    else()
      install(FILES ${packed} DESTINATION ${CMAKE_INSTALL_DOCDIR})
    endif()
  endforeach()
endif()
if(NOT WIN32)
  set(python_doc_dir share/doc/python3-qoma)
  install(FILES docs/debian/copyright ${CMAKE_BINARY_DIR}/install/changelog.gz DESTINATION ${python_doc_dir} COMPONENT python)
  install(FILES docs/debian/lintian-overrides.python DESTINATION share/lintian/overrides RENAME python3-qoma COMPONENT python)
endif()
# The hub, in a package of its own: what it needs of the system, a module's client does not.
if(TARGET notifyhub)
  set(hub_doc_dir share/doc/qoma-hub)
  set_target_properties(notifyhub PROPERTIES INSTALL_RPATH $ORIGIN/${from_bin})
  install(TARGETS notifyhub RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT hub)
  install(FILES hub/notifyhub.service DESTINATION lib/systemd/system COMPONENT hub)
  install(FILES docs/notifyhub.toml docs/event.schema.json docs/debian/copyright ${CMAKE_BINARY_DIR}/install/changelog.gz
    DESTINATION ${hub_doc_dir} COMPONENT hub)
  install(FILES docs/debian/lintian-overrides.hub DESTINATION share/lintian/overrides RENAME qoma-hub COMPONENT hub)
  install(FILES tools/completion.bash DESTINATION share/bash-completion/completions RENAME notifyhub COMPONENT hub)
  set(packed ${CMAKE_BINARY_DIR}/install/notifyhub.1.gz)
  add_custom_command(OUTPUT ${packed} DEPENDS docs/man/notifyhub.1 VERBATIM COMMENT "Packing notifyhub.1"
    COMMAND sh -c "gzip -9cn \"$1\" >\"$2\"" sh ${CMAKE_CURRENT_SOURCE_DIR}/docs/man/notifyhub.1 ${packed})
  install(FILES ${packed} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT hub)
  list(APPEND packed_files ${packed})
  set(packed ${CMAKE_BINARY_DIR}/install/hub.md)
  add_custom_command(OUTPUT ${packed} DEPENDS docs/hub.md cmake/InstalledDocument.awk VERBATIM COMMENT "Taking over hub.md"
    COMMAND awk -v "there=notifyhub.toml event.schema.json" -f ${CMAKE_CURRENT_SOURCE_DIR}/cmake/InstalledDocument.awk
      ${CMAKE_CURRENT_SOURCE_DIR}/docs/hub.md > ${packed})
  install(FILES ${packed} DESTINATION ${hub_doc_dir} COMPONENT hub)
  list(APPEND packed_files ${packed})
endif()
add_custom_target(handed_out ALL DEPENDS ${handed_out} ${packed_files} ${import_library})

# dist/ of a Windows build is what such a machine gets, installed: it runs where it is copied to.
if(WIN32)
  add_custom_command(OUTPUT dist/.stamp
    COMMAND ${CMAKE_COMMAND} -E rm -rf dist
    COMMAND ${CMAKE_COMMAND} --install ${CMAKE_BINARY_DIR} --prefix ${CMAKE_BINARY_DIR}/dist --strip
    COMMAND ${CMAKE_COMMAND} -E touch dist/.stamp
    DEPENDS ${handed_out} ${packed_files} ${import_library} VERBATIM COMMENT "Collecting dist/")
  add_custom_target(dist ALL DEPENDS dist/.stamp)
endif()

# ---- Packages (scripts/package.sh makes them all)

if(WIN32 AND CMAKE_SIZEOF_VOID_P EQUAL 4)
  set(system windows-i686)
elseif(WIN32)
  set(system windows-x64)
else()
  string(TOLOWER ${CMAKE_SYSTEM_NAME}-${CMAKE_SYSTEM_PROCESSOR} system)
endif()
set(CMAKE_SKIP_INSTALL_ALL_DEPENDENCY ON) # tests are no part of a package
set(CPACK_PACKAGE_NAME qoma)
set(CPACK_PACKAGE_VENDOR QOMA)
set(CPACK_PACKAGE_FILE_NAME qoma-${PROJECT_VERSION}-${system})
set(CPACK_STRIP_FILES ON)
if(WIN32)
  set(CPACK_GENERATOR ZIP)
else()
  set(CPACK_GENERATOR DEB TGZ)
endif()

set(CPACK_PACKAGING_INSTALL_PREFIX "") # archives begin with bin, lib and so on
set(CPACK_PROJECT_CONFIG_FILE ${CMAKE_SOURCE_DIR}/cmake/QomaPackage.cmake)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "QOMA developers <qoma@localhost>")
# Three of them: what is for Python is for every processor, and needs nobody who has no Python.
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL qoma python)
if(TARGET notifyhub)
  list(APPEND CPACK_COMPONENTS_ALL hub)
endif()
set(CPACK_DEBIAN_HUB_PACKAGE_NAME qoma-hub)
set(CPACK_DEBIAN_HUB_PACKAGE_SECTION net)
set(CPACK_DEBIAN_HUB_PACKAGE_DEPENDS "qoma (>= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_HUB_PACKAGE_SUGGESTS "mosquitto")
set(CPACK_DEBIAN_QOMA_PACKAGE_NAME qoma)
set(CPACK_DEBIAN_QOMA_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_QOMA_PACKAGE_SUGGESTS "g++, pkg-config, cmake, python3-qoma")
set(CPACK_DEBIAN_PYTHON_PACKAGE_NAME python3-qoma)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
set(CPACK_DEBIAN_PYTHON_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS "qoma (>= ${PROJECT_VERSION}), python3 (>= 3.9)")
set(CPACK_DEBIAN_PYTHON_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
set(about
"A client program loads the module QOMANoAg to hear from a printer, scanner or
fax: an entry on its panel was picked, the feeder changed, the scan button was
pressed, a fax waits, the link is back.
.
")
set(CPACK_DEBIAN_QOMA_DESCRIPTION
"${about}The package holds the module with what a client is built with, for C++ and for
C, a device in software (mfpsim), a client for the command line (notifymon) and
a viewer for traces (tracedeck).")
set(CPACK_DEBIAN_HUB_DESCRIPTION
"${about}The package holds the service notifyhub, which hears the devices of an office,
keeps what it hears in a journal, and hands it to programs, web services, a
message broker and the desktop.")
set(CPACK_DEBIAN_PYTHON_DESCRIPTION
"${about}The package is what a client in Python imports.")
include(CPack)
