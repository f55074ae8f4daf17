# What `cmake --install` puts beside the daemon's own files (vpn_helper/):
#   - component "development": Tovik for the product's other programs, its
#     public headers (include/tovik), its static libraries with the platform
#     stand-ins it needs, a CMake package (find_package(Tovik CONFIG) giving
#     Tovik::Tovik) and tovik.pc for pkg-config;
#   - component "vpn_helper": the launchctl stand-in, in libexec; the Debian
#     package links it as /usr/bin/launchctl when the host has none.
include(CMakePackageConfigHelpers)

get_property(tovik_platform_libraries GLOBAL PROPERTY TOVIK_PLATFORM_LIBRARIES)
set(tovik_cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/Tovik)

install(TARGETS Tovik ${tovik_platform_libraries} EXPORT TovikTargets
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/Sources/Tovik DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tovik
        COMPONENT development FILES_MATCHING PATTERN "*.h")
foreach(library IN LISTS tovik_platform_libraries)
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/Sources/Platform/${library} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tovik
          COMPONENT development FILES_MATCHING PATTERN "*.h")
endforeach()
install(EXPORT TovikTargets NAMESPACE Tovik:: DESTINATION ${tovik_cmake_dir} COMPONENT development)
configure_package_config_file(cmake/TovikConfig.cmake.in ${PROJECT_BINARY_DIR}/TovikConfig.cmake
                              INSTALL_DESTINATION ${tovik_cmake_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/TovikConfigVersion.cmake
                                 COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/TovikConfig.cmake ${PROJECT_BINARY_DIR}/TovikConfigVersion.cmake
        DESTINATION ${tovik_cmake_dir} COMPONENT development)

# tovik.pc finds its prefix from its own folder, so the installed tree can move.
file(RELATIVE_PATH TOVIK_PC_PREFIX_FROM_PC_DIR /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
string(REGEX REPLACE "/$" "" TOVIK_PC_PREFIX_FROM_PC_DIR "${TOVIK_PC_PREFIX_FROM_PC_DIR}")
set(TOVIK_PC_PLATFORM_LIBS "")
foreach(library IN LISTS tovik_platform_libraries)
  get_target_property(output_name ${library} OUTPUT_NAME)
  string(APPEND TOVIK_PC_PLATFORM_LIBS " -l${output_name}")
endforeach()
string(STRIP "${TOVIK_PC_PLATFORM_LIBS}" TOVIK_PC_PLATFORM_LIBS)
set(TOVIK_PC_DL "")
foreach(library IN LISTS CMAKE_DL_LIBS)
  string(APPEND TOVIK_PC_DL "-l${library}")
endforeach()
configure_file(cmake/tovik.pc.in ${PROJECT_BINARY_DIR}/tovik.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/tovik.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
        COMPONENT development)

set(VPN_HELPER_LAUNCHCTL_DIR ${CMAKE_INSTALL_LIBEXECDIR}/vpn_helper)
if(TARGET launchctl)
  install(TARGETS launchctl RUNTIME DESTINATION ${VPN_HELPER_LAUNCHCTL_DIR} COMPONENT vpn_helper)
endif()
