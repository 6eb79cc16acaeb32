# What a user gets: the rules of `cmake --install`, and the packages that `cpack` makes of the same files.
# The tree can be moved as a whole: programs, module and package files find each other by relative paths.

if(NOT WIN32 AND CMAKE_LIBRARY_ARCHITECTURE AND NOT DEFINED CMAKE_INSTALL_LIBDIR)
  # As Debian lays it out, below any prefix, so that one build serves the package and /usr/local.
  set(CMAKE_INSTALL_LIBDIR lib/${CMAKE_LIBRARY_ARCHITECTURE} CACHE PATH "Object code libraries")
endif()
set(CMAKE_INSTALL_DOCDIR share/doc/qoma)
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# The modules have neither a "lib" in front nor a version behind, so they stay out of the system's own
# folder of libraries.
set(module_dir ${CMAKE_INSTALL_LIBDIR}/qoma)
set(header_dir ${CMAKE_INSTALL_INCLUDEDIR}/qoma)
file(RELATIVE_PATH from_bin /${CMAKE_INSTALL_BINDIR} /${module_dir})
set_target_properties(QOMANoAg PROPERTIES INSTALL_RPATH $ORIGIN)
set_target_properties(notifymon mfpsim tracedeck PROPERTIES INSTALL_RPATH $ORIGIN/${from_bin})

install(TARGETS QOMANoAg QOMADolC EXPORT QOMANoAg
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  LIBRARY DESTINATION ${module_dir}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(TARGETS notifymon mfpsim tracedeck RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

# What a client includes, and what that includes in turn; QOMADolC.h names the codes that come through.
install(FILES agent/QOMANoAg.h DESTINATION ${header_dir}/agent)
install(FILES dolrtl/QOMADolC.h DESTINATION ${header_dir}/dolrtl)
foreach(header afx base cstring export socket sync)
  install(FILES platform/${header}.h DESTINATION ${header_dir}/platform)
endforeach()

# find_package(QOMANoAg)
set(config_dir ${CMAKE_INSTALL_LIBDIR}/cmake/QOMANoAg)
target_include_directories(QOMANoAg INTERFACE $<INSTALL_INTERFACE:${header_dir}>)
target_compile_features(QOMANoAg INTERFACE cxx_std_17)
install(EXPORT QOMANoAg FILE QOMANoAgConfig.cmake NAMESPACE QOMANoAg:: DESTINATION ${config_dir})
set(version_file ${CMAKE_BINARY_DIR}/install/QOMANoAgConfigVersion.cmake)
write_basic_package_version_file(${version_file} COMPATIBILITY SameMajorVersion)
install(FILES ${version_file} DESTINATION ${config_dir})

# pkg-config QOMANoAg
file(RELATIVE_PATH to_prefix /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" to_prefix ${to_prefix})
if(WIN32)
  # By its whole name: with -static, as clients of mingw-w64 are linked, the linker would not find it.
  set(pc_libs "-L\${libdir} -l:libQOMANoAg.dll.a")
else()
  set(pc_libs "-L\${libdir}/qoma -l:QOMANoAg.so -Wl,-rpath,\${libdir}/qoma")
endif()
configure_file(cmake/QOMANoAg.pc.in install/QOMANoAg.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/install/QOMANoAg.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

install(FILES README.md docs/example.reg docs/registry-file.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(DIRECTORY examples DESTINATION ${CMAKE_INSTALL_DOCDIR})

if(NOT WIN32)
  install(FILES docs/debian/copyright DESTINATION ${CMAKE_INSTALL_DOCDIR})
  foreach(file docs/debian/changelog docs/man/notifymon.1 docs/man/mfpsim.1 docs/man/tracedeck.1 docs/man/QOMANoAg.3)
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
  add_custom_target(packed_files ALL DEPENDS ${packed_files})
endif()

# dist/ of a Windows build is what such a machine gets, installed: it runs where it is copied to.
if(WIN32)
  set(handed_out QOMANoAg QOMADolC notifymon mfpsim tracedeck)
  add_custom_command(OUTPUT dist/.stamp
    COMMAND ${CMAKE_COMMAND} -E rm -rf dist
    COMMAND ${CMAKE_COMMAND} --install ${CMAKE_BINARY_DIR} --prefix ${CMAKE_BINARY_DIR}/dist --strip
    COMMAND ${CMAKE_COMMAND} -E touch dist/.stamp
    DEPENDS ${handed_out} VERBATIM COMMENT "Collecting dist/")
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
set(CPACK_DEBIAN_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "g++, pkg-config, cmake")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
"A client program loads the module QOMANoAg to hear from a printer, scanner or
fax: an entry on its panel was picked, the feeder changed, the scan button was
pressed, a fax waits, the link is back.
.
The package holds the module with what a client is built with, a device in
software (mfpsim), a client for the command line (notifymon) and a viewer for
traces (tracedeck).")
include(CPack)
