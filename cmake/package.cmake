# The Debian package: `cpack --preset release`. Its version is that of the project.
# What its owners have yet to decide: cpack warns of each. Whoever settles one deletes its line.
set(CPACK_TARNWICK_UNDECIDED
    "the licence: packaging/copyright grants none"
    "the maintainer: name and address in cmake/package.cmake are placeholders")
set(maintainer "Vexlor Service Tools <tarnwick@vexlor.com>")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tarnwick)
set(CPACK_PACKAGE_CONTACT "${maintainer}")
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR})
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "preserve diagnostic data of a computer that goes back for service")
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION "\
tarnwick goes through the data volumes of a computer, checks on each whether
its owner consented, collects logs and reports that help to find a fault of
the hardware, packs them into one compressed archive that only the holder of a
private key can open, and keeps it on the service partition.
.
With it come volctl, which shows and unlocks volumes, nvram, which prints the
variables of the firmware, qvx, which makes and opens such archives,
tarnwick-consent, which shows and records the owner's consent, and
asset-publish, which signs the configurations that a site hands out.")

# Libraries are found in the programs. Every system has findutils, but not always one that knows -regextype.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "debconf (>= 0.5) | debconf-2.0, findutils (>= 4.2.24), man-db, openssl, python3")
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "ca-certificates")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "bash-completion, sudo")

set(CPACK_STRIP_FILES ON)
set(CPACK_SET_DESTDIR ON)  # for what goes to /etc
set(CPACK_INSTALL_PREFIX /usr)
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/settle_modes.cmake)
set(CPACK_POST_BUILD_SCRIPTS ${CPACK_PRE_BUILD_SCRIPTS})
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
foreach(member conffiles config postinst postrm templates)
  list(APPEND CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/${member})
endforeach()
set(CPACK_PROJECT_CONFIG_FILE ${CMAKE_CURRENT_LIST_DIR}/before_packaging.cmake)
set(CPACK_TARNWICK_SOURCE_DIR ${PROJECT_SOURCE_DIR})
set(CPACK_TARNWICK_REFUSAL "${TARNWICK_REFUSAL}")

# What belongs to the package alone: `cmake --install` must not lay files over those of an administrator.
set(CPACK_INSTALL_CMAKE_PROJECTS "${PROJECT_BINARY_DIR};tarnwick;ALL;/;${PROJECT_BINARY_DIR};tarnwick;package;/")
install(DIRECTORY ${PROJECT_SOURCE_DIR}/config/etc/ DESTINATION /etc/tarnwick COMPONENT package EXCLUDE_FROM_ALL)
# The factory configuration: an asset of a version below any that a site publishes.
install(FILES ${PROJECT_BINARY_DIR}/share/linux.plist
        DESTINATION share/tarnwick/assets/com.vexlor.Provisor.tarnwick.config/0.1 RENAME tarnwick.config.plist
        COMPONENT package EXCLUDE_FROM_ALL)
install(FILES ${PROJECT_SOURCE_DIR}/packaging/copyright DESTINATION share/doc/tarnwick COMPONENT package
        EXCLUDE_FROM_ALL)
install(FILES ${PROJECT_SOURCE_DIR}/packaging/lintian-overrides DESTINATION share/lintian/overrides RENAME tarnwick
        COMPONENT package EXCLUDE_FROM_ALL)
install(CODE "set(version \"${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}\")
              set(maintainer \"${maintainer}\")
              set(changes \"${PROJECT_SOURCE_DIR}/CHANGELOG.md\")" COMPONENT package EXCLUDE_FROM_ALL)
install(SCRIPT ${CMAKE_CURRENT_LIST_DIR}/write_changelog.cmake COMPONENT package EXCLUDE_FROM_ALL)
include(CPack)

foreach(program tarnwick tarnwick-consent qvx volctl)
  install(FILES ${PROJECT_SOURCE_DIR}/completion/${program} DESTINATION share/bash-completion/completions)
endforeach()

# The manual pages, each with the version at its foot.
file(GLOB pages CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/man/*.[1-8])
foreach(page IN LISTS pages)
  get_filename_component(name ${page} NAME)
  string(REGEX REPLACE ".*\\." "" section ${name})
  set(compressed ${PROJECT_BINARY_DIR}/man/${name}.gz)
  add_custom_command(OUTPUT ${compressed}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${PROJECT_BINARY_DIR}/man
    COMMAND sh -c "sed 's/^[.]Os$/.Os tarnwick ${PROJECT_VERSION}/' '${page}' | gzip -9n >'${compressed}'"
    DEPENDS ${page} VERBATIM)
  list(APPEND compressed_pages ${compressed})
  install(FILES ${compressed} DESTINATION share/man/man${section})
endforeach()
add_custom_target(tarnwick_manual ALL DEPENDS ${compressed_pages})
