# What `cmake --install` gives: library, headers, the program where it is built, a CMake package and a pkg-config file.
# All of it finds itself by its own place, so an installed tree may be moved.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set_target_properties(corvalith PROPERTIES EXPORT_NAME corvalith)
install(TARGETS corvalith EXPORT CorvalithTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
if(TARGET corvalith_program)
  install(TARGETS corvalith_program RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()
install(DIRECTORY include/corvalith DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES LICENSE NOTICE DESTINATION ${CMAKE_INSTALL_DOCDIR})

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/Corvalith)
install(EXPORT CorvalithTargets NAMESPACE Corvalith:: DESTINATION ${package_dir})
configure_package_config_file(cmake/CorvalithConfig.cmake.in ${CMAKE_BINARY_DIR}/CorvalithConfig.cmake
                              INSTALL_DESTINATION ${package_dir})
# Before 1.0 a minor version may change the interface.
write_basic_package_version_file(${CMAKE_BINARY_DIR}/CorvalithConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_BINARY_DIR}/CorvalithConfig.cmake ${CMAKE_BINARY_DIR}/CorvalithConfigVersion.cmake
        DESTINATION ${package_dir})

# The prefix relative to the .pc file; a directory that was given as an absolute path stays so.
set(pc_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
if(IS_ABSOLUTE ${CMAKE_INSTALL_LIBDIR})
  set(pc_prefix ${CMAKE_INSTALL_PREFIX})
else()
  file(RELATIVE_PATH pc_prefix /${pc_dir} /)
  string(REGEX REPLACE "/$" "" pc_prefix "\${pcfiledir}/${pc_prefix}")
endif()
cmake_path(APPEND pc_libdir "\${prefix}" ${CMAKE_INSTALL_LIBDIR})
cmake_path(APPEND pc_includedir "\${prefix}" ${CMAKE_INSTALL_INCLUDEDIR})
configure_file(cmake/corvalith.pc.in ${CMAKE_BINARY_DIR}/corvalith.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/corvalith.pc DESTINATION ${pc_dir})
