# The Debian packages, made by cpack in a build folder configured with -DCMAKE_INSTALL_PREFIX=/usr
# (scripts/package does both): the service with everything beside it, and the virtual product.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_COMPONENTS_ALL service)
if(TARGET product-simulator)
    list(APPEND CPACK_COMPONENTS_ALL simulator)
endif()
set(CPACK_DEB_COMPONENT_INSTALL ON)
# The packages have texts of their own; the project's would be put before them.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")
set(CPACK_STRIP_FILES ON)
# Man pages and change logs compressed, as Debian wants them.
set(CPACK_PRE_BUILD_SCRIPTS "${CMAKE_CURRENT_LIST_DIR}/compress.cmake")

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER
    "Maintainers of ulmo-bluetoothmanager <bluetoothmanager@ulmo.example>")
set(CPACK_DEBIAN_PACKAGE_SECTION sound)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${ULMO_DEBIAN_ARCHITECTURE})
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
if(CMAKE_CROSSCOMPILING)
    set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
        "${ULMO_SYSROOT}/usr/lib/${CMAKE_LIBRARY_ARCHITECTURE}"
        "${ULMO_SYSROOT}/lib/${CMAKE_LIBRARY_ARCHITECTURE}")
endif()
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS OFF)

set(CPACK_DEBIAN_SERVICE_PACKAGE_NAME ulmo-bluetoothmanager)
# kmod, connman and a BlueZ 4 that fits the kernel are the product's; Debian has no BlueZ 4.
set(CPACK_DEBIAN_SERVICE_PACKAGE_DEPENDS "adduser, dbus-daemon, init-system-helpers (>= 1.54)")
set(CPACK_DEBIAN_SERVICE_PACKAGE_RECOMMENDS "dbus, procps, pulseaudio, pulseaudio-utils")
set(CPACK_DEBIAN_SERVICE_DESCRIPTION
"supervisor of a product's Bluetooth audio
Owns the Bluetooth audio of a product: starts and stops BlueZ 4 and its
pairing agent, lets one phone at a time play, and brings its sound through
PulseAudio to the product's output. Other services of the product, and the
command ulmoctl, reach it over D-Bus.")
set(CPACK_DEBIAN_SERVICE_PACKAGE_CONTROL_EXTRA
    "${CMAKE_CURRENT_LIST_DIR}/postinst"
    "${CMAKE_CURRENT_LIST_DIR}/prerm"
    "${CMAKE_CURRENT_LIST_DIR}/postrm")

set(CPACK_DEBIAN_SIMULATOR_PACKAGE_NAME ulmo-bluetoothmanager-simulator)
set(CPACK_DEBIAN_SIMULATOR_PACKAGE_DEPENDS "ulmo-bluetoothmanager (= ${PROJECT_VERSION}), \
busybox-static | busybox, dbus-daemon, libasound2-plugins, pulseaudio, pulseaudio-utils")
set(CPACK_DEBIAN_SIMULATOR_DESCRIPTION
"virtual product to try the Bluetooth audio supervisor without a radio
Runs the unmodified service in namespaces of its own, with a virtual BlueZ 4,
virtual phones, the product's other services and real PulseAudio, and
records everything that happens in one journal.")

# Folders as Debian has them, whatever the umask of whoever builds.
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

foreach(component ${CPACK_COMPONENTS_ALL})
    string(TOUPPER "CPACK_DEBIAN_${component}_PACKAGE_NAME" name)
    set(name ${${name}})
    # Not with "cmake --install", which installs all but these.
    install(FILES "${CMAKE_CURRENT_LIST_DIR}/copyright" "${CMAKE_CURRENT_LIST_DIR}/changelog"
            DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${name} COMPONENT ${component}
            EXCLUDE_FROM_ALL)
    install(FILES "${CMAKE_CURRENT_LIST_DIR}/${component}.lintian-overrides"
            DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides RENAME ${name}
            COMPONENT ${component} EXCLUDE_FROM_ALL)
endforeach()

include(CPack)
