# `cmake --build --preset release --target package`: a Debian package of the
# daemon (component "vpn_helper"): the daemon in /usr/sbin, its plist in
# /Library/LaunchDaemons, its unit in /lib/systemd/system and the launchctl
# stand-in. Its maintainer scripts (vpn_helper/install/) link the stand-in,
# and enable and start the unit when systemd runs.
set(VPN_HELPER_PACKAGE_MAINTAINER "Velmora Software" CACHE STRING "Maintainer field of the Debian package")

set(VPN_HELPER_LAUNCHCTL /usr/${VPN_HELPER_LAUNCHCTL_DIR}/launchctl)
set(package_scripts ${PROJECT_BINARY_DIR}/debian)
foreach(script postinst prerm postrm)
  set(template ${PROJECT_SOURCE_DIR}/vpn_helper/install/${script})
  if(EXISTS ${template}.in)
    configure_file(${template}.in ${package_scripts}/${script} @ONLY
                   FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE
                                    WORLD_READ WORLD_EXECUTE)
  else()
    file(COPY ${template} DESTINATION ${package_scripts})
  endif()
endforeach()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME velmora-vpn-helper)
set(CPACK_PACKAGE_VENDOR "Velmora Software")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Velmora VPN helper: cleans up after the application is removed")
set(CPACK_PACKAGE_DESCRIPTION
    "The privileged companion daemon of the Velmora VPN application. It watches the application bundle; when it is deleted, the daemon reports the uninstall to the backend, stops and disables its own service and deletes its service plist and the shared data folder.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
# Only the daemon's files; Tovik's development files are for `cmake --install`.
set(CPACK_COMPONENTS_ALL vpn_helper)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING ALL_COMPONENTS_IN_ONE)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${VPN_HELPER_PACKAGE_MAINTAINER}")
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# libcurl is opened at run time (dlopen), so the computed dependencies miss it.
set(CPACK_DEBIAN_PACKAGE_DEPENDS "libcurl4")
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "systemd")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    ${package_scripts}/postinst ${package_scripts}/prerm ${package_scripts}/postrm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
include(CPack)
