# Installation layout and the Debian package (cpack -G DEB): the three programs in /usr/bin, the
# framework libraries and the plug-in in the private folder /usr/lib/zun (the update service finds
# the plug-in there beside its programs), the systemd units, the services' user and the protocol.

include(GNUInstallDirs)
set(ZUN_PRIVATE_LIBDIR lib/zun)

# Every shared library of the product, gathered from the folders added so far (the test helpers
# come later and are static).
function(zun_shared_libraries dir out)
  get_property(targets DIRECTORY ${dir} PROPERTY BUILDSYSTEM_TARGETS)
  get_property(subdirs DIRECTORY ${dir} PROPERTY SUBDIRECTORIES)
  set(found)
  foreach(target IN LISTS targets)
    get_target_property(type ${target} TYPE)
    if(type STREQUAL "SHARED_LIBRARY" OR type STREQUAL "MODULE_LIBRARY")
      list(APPEND found ${target})
    endif()
  endforeach()
  foreach(subdir IN LISTS subdirs)
    zun_shared_libraries(${subdir} more)
    list(APPEND found ${more})
  endforeach()
  set(${out} ${found} PARENT_SCOPE)
endfunction()

set(zun_programs zun-software-manager zun-update-service zun-update)
zun_shared_libraries(${PROJECT_SOURCE_DIR} zun_libraries)
foreach(target IN LISTS zun_programs)
  if(NOT TARGET ${target})
    message(FATAL_ERROR "The package needs the target ${target}.")
  endif()
endforeach()
# Installed programs and libraries find the private folder relative to themselves.
set_target_properties(${zun_programs} PROPERTIES INSTALL_RPATH "$ORIGIN/../${ZUN_PRIVATE_LIBDIR}")
set_target_properties(${zun_libraries} PROPERTIES INSTALL_RPATH "$ORIGIN")
install(TARGETS ${zun_programs} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(TARGETS ${zun_libraries} LIBRARY DESTINATION ${ZUN_PRIVATE_LIBDIR} NAMELINK_SKIP)

set(packaging ${PROJECT_SOURCE_DIR}/packaging)
# Debian 12 keeps packaged units below /lib (merged /usr resolves either).
install(FILES ${packaging}/systemd/zun-software-manager.service ${packaging}/systemd/zun-update-service.service
        DESTINATION /lib/systemd/system)
install(FILES ${packaging}/systemd/zun-update.sysusers DESTINATION lib/sysusers.d RENAME zun-update.conf)
install(FILES ${PROJECT_SOURCE_DIR}/README.md ${PROJECT_SOURCE_DIR}/UpdateService/PROTOCOL.md
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/zun-software-updater)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME zun-software-updater)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "Zun software update team <update@example.com>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Updater plug-in, software manager and update service with its command line")
set(CPACK_PACKAGE_DESCRIPTION "The updater plug-in, the framework libraries it imports, the software manager service, \
the update service daemon that hosts the plug-in and serves a local API, and zun-update, its command line. \
Both services run under systemd as the user zun-update.")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_BINARY_DIR}/lib)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "systemd | adduser")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${packaging}/debian/postinst ${packaging}/debian/prerm ${packaging}/debian/postrm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_PACKAGE_DIRECTORY ${CMAKE_BINARY_DIR}/packages)
set(CPACK_STRIP_FILES ON)
include(CPack)
