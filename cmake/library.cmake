# The proxies as a library for other programs, a component of its own: cmake --install build --component library.
# A plain installation does not contain it; the Debian package tarnwick-dev does.
include(CMakePackageConfigHelpers)

set(package_folder ${CMAKE_INSTALL_LIBDIR}/cmake/tarnwick)
set(header_folder ${CMAKE_INSTALL_INCLUDEDIR}/tarnwick)
set_target_properties(tarnwick_proxy PROPERTIES EXPORT_NAME proxy)
target_include_directories(tarnwick_proxy INTERFACE $<INSTALL_INTERFACE:${header_folder}>)
target_compile_features(tarnwick_proxy INTERFACE cxx_std_20)

if(CMAKE_INTERPROCEDURAL_OPTIMIZATION)
  # Such a library holds no machine code, and only the compiler that made it can read it.
  install(CODE "message(FATAL_ERROR \"The library needs a build without CMAKE_INTERPROCEDURAL_OPTIMIZATION.\")"
    COMPONENT library EXCLUDE_FROM_ALL)
endif()
install_folders(COMPONENT library ${package_folder} ${header_folder})
install(TARGETS tarnwick_proxy EXPORT tarnwick
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT library EXCLUDE_FROM_ALL)
install(DIRECTORY core igmp mld platform DESTINATION ${header_folder}
  COMPONENT library EXCLUDE_FROM_ALL FILES_MATCHING PATTERN *.h)
install(EXPORT tarnwick NAMESPACE tarnwick:: FILE tarnwick-config.cmake DESTINATION ${package_folder}
  COMPONENT library EXCLUDE_FROM_ALL)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/tarnwick-config-version.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/tarnwick-config-version.cmake DESTINATION ${package_folder}
  COMPONENT library EXCLUDE_FROM_ALL)
