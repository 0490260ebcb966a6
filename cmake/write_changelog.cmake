# Run by cpack: writes both changelogs of a package, ours and the one in the form that Debian wants.
set(folder "$ENV{DESTDIR}${CMAKE_INSTALL_PREFIX}/share/doc/${package}")
file(READ "${changes}" text)
string(REGEX MATCH "[0-9.]+" release "${version}")
if(NOT text MATCHES "\n## ${release} ")
  message(WARNING "CHANGELOG.md has no section for ${release}")
endif()
execute_process(COMMAND date -u -R -d "@$ENV{SOURCE_DATE_EPOCH}" OUTPUT_VARIABLE date COMMAND_ERROR_IS_FATAL ANY)
file(WRITE "${folder}/changelog.Debian"
     "${package} (${version}) bookworm; urgency=medium\n\n"
     "  * Release ${release}: see changelog.gz.\n\n"
     " -- ${maintainer}  ${date}")
file(WRITE "${folder}/changelog" "${text}")
execute_process(COMMAND gzip -9nf "${folder}/changelog.Debian" "${folder}/changelog" COMMAND_ERROR_IS_FATAL ANY)
file(CHMOD "${folder}/changelog.Debian.gz" "${folder}/changelog.gz"
     PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
