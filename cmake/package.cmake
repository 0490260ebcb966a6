# The Debian packages: `cpack --preset release`. Their version is that of the project. Each is an installation component:
# tarnwick for the computer that captures, and qvx for the desk where archives are read, without the tools for root.
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
set(CPACK_COMPONENTS_ALL tarnwick qvx)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_TARNWICK_PACKAGE_NAME tarnwick)
set(CPACK_DEBIAN_TARNWICK_DESCRIPTION "\
preserve diagnostic data of a computer that goes back for service
tarnwick goes through the data volumes of a computer, checks on each whether
its owner consented, collects logs and reports that help to find a fault of
the hardware, packs them into one compressed archive that only the holder of a
private key can open, and keeps it on the service partition.
.
With it come volctl, which shows and unlocks volumes, nvram, which prints the
variables of the firmware, tarnwick-consent, which shows and records the
owner's consent, and asset-publish, which signs the configurations that a site
hands out. The archives are opened with qvx, which has a package of its own.")
set(CPACK_DEBIAN_QVX_PACKAGE_NAME qvx)
set(CPACK_DEBIAN_QVX_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_QVX_DESCRIPTION "\
make, search and unpack sealed archives
qvx opens the archives that tarnwick makes, with the private key that they are
sealed to. It lists, searches, mounts, compares, verifies and extracts them, on
the disk or from a web server, reads what a damaged one still has, and makes
new ones and key pairs. It needs neither tarnwick nor root.")

# Libraries are found in the programs. Every system has findutils, but not always one that knows -regextype. Where
# archives are made, nobody can open them: tarnwick does not run qvx.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_TARNWICK_PACKAGE_DEPENDS
    "debconf (>= 0.5) | debconf-2.0, findutils (>= 4.2.24), man-db, openssl, python3")
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "ca-certificates")
# fusermount3 mounts an archive for a user who is not root.
set(CPACK_DEBIAN_QVX_PACKAGE_RECOMMENDS "ca-certificates, fuse3")
set(CPACK_DEBIAN_TARNWICK_PACKAGE_SUGGESTS "bash-completion, qvx, sudo")
set(CPACK_DEBIAN_QVX_PACKAGE_SUGGESTS "bash-completion")
# Until then, the package tarnwick had the files of qvx.
set(CPACK_DEBIAN_QVX_PACKAGE_BREAKS "tarnwick (<< 1.1.0)")
set(CPACK_DEBIAN_QVX_PACKAGE_REPLACES "${CPACK_DEBIAN_QVX_PACKAGE_BREAKS}")

set(CPACK_STRIP_FILES ON)
set(CPACK_SET_DESTDIR ON)  # for what goes to /etc
set(CPACK_INSTALL_PREFIX /usr)
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/settle_modes.cmake)
set(CPACK_POST_BUILD_SCRIPTS ${CPACK_PRE_BUILD_SCRIPTS})
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
foreach(member conffiles config postinst postrm templates)
  list(APPEND CPACK_DEBIAN_TARNWICK_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/${member})
endforeach()
set(CPACK_PROJECT_CONFIG_FILE ${CMAKE_CURRENT_LIST_DIR}/before_packaging.cmake)
set(CPACK_TARNWICK_SOURCE_DIR ${PROJECT_SOURCE_DIR})
set(CPACK_TARNWICK_REFUSAL "${TARNWICK_REFUSAL}")

# What belongs to the packages alone: `cmake --install` must not lay files over those of an administrator.
install(DIRECTORY ${PROJECT_SOURCE_DIR}/config/etc/ DESTINATION /etc/tarnwick EXCLUDE_FROM_ALL)
# The factory configuration: an asset of a version below any that a site publishes.
install(FILES ${PROJECT_BINARY_DIR}/share/linux.plist
        DESTINATION share/tarnwick/assets/com.vexlor.Provisor.tarnwick.config/0.1 RENAME tarnwick.config.plist
        EXCLUDE_FROM_ALL)
foreach(package IN LISTS CPACK_COMPONENTS_ALL)
  install(FILES ${PROJECT_SOURCE_DIR}/packaging/copyright DESTINATION share/doc/${package} COMPONENT ${package}
          EXCLUDE_FROM_ALL)
  install(FILES ${PROJECT_SOURCE_DIR}/packaging/lintian-overrides DESTINATION share/lintian/overrides
          RENAME ${package} COMPONENT ${package} EXCLUDE_FROM_ALL)
  install(CODE "set(package ${package})
                set(version \"${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}\")
                set(maintainer \"${maintainer}\")
                set(changes \"${PROJECT_SOURCE_DIR}/CHANGELOG.md\")" COMPONENT ${package} EXCLUDE_FROM_ALL)
  install(SCRIPT ${CMAKE_CURRENT_LIST_DIR}/write_changelog.cmake COMPONENT ${package} EXCLUDE_FROM_ALL)
endforeach()
include(CPack)

foreach(program tarnwick tarnwick-consent volctl)
  install(FILES ${PROJECT_SOURCE_DIR}/completion/${program} DESTINATION share/bash-completion/completions)
endforeach()
install(FILES ${PROJECT_SOURCE_DIR}/completion/qvx DESTINATION share/bash-completion/completions COMPONENT qvx)
install(FILES ${PROJECT_SOURCE_DIR}/completion/_qvx DESTINATION share/zsh/vendor-completions COMPONENT qvx)
install(FILES ${PROJECT_SOURCE_DIR}/completion/qvx.fish DESTINATION share/fish/vendor_completions.d COMPONENT qvx)

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
  set(package tarnwick)
  if(name STREQUAL "qvx.1")
    set(package qvx)
  endif()
  install(FILES ${compressed} DESTINATION share/man/man${section} COMPONENT ${package})
endforeach()
add_custom_target(tarnwick_manual ALL DEPENDS ${compressed_pages})
