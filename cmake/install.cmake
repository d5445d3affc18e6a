# Install rules: the tree a backup host gets, from `cmake --install` or the
# package. The module and the simulator in the plug-in folder, the tools in
# bin, the manual pages and the documents in share. Included last, so that
# targets from every folder (and from branches still arriving) are known.
# Layout: cmake/layout.cmake.

# A plug-in is loaded, never run: no executable bit on the shared objects.
set(zov_lib_perms OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)

install(TARGETS zovmerl LIBRARY DESTINATION ${ZOV_PLUGIN_DIR} PERMISSIONS ${zov_lib_perms})
install(TARGETS merlsnap RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
if(TARGET cditool)
  install(TARGETS cditool RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()

# The simulator keeps the layout of the build's arraysim-bin folder: the
# program, its tool links and the device layer side by side, where an
# installed merlsnap looks for them.
install(TARGETS arraysim RUNTIME DESTINATION ${ZOV_ARRAYSIM_INSTALL_DIR})
install(TARGETS arraysim_scsi LIBRARY DESTINATION ${ZOV_ARRAYSIM_INSTALL_DIR}
        PERMISSIONS ${zov_lib_perms})
# The tool links are whatever links to the program the build made, so a tool
# added to the simulator is installed without a second list to keep.
install(CODE "
  file(GLOB zov_links LIST_DIRECTORIES false \"${ARRAYSIM_BIN_DIR}/*\")
  foreach(l \${zov_links})
    if(IS_SYMLINK \"\${l}\")
      file(READ_SYMLINK \"\${l}\" zov_to)
      if(zov_to STREQUAL \"arraysim\")
        file(INSTALL \"\${l}\" DESTINATION \"\${CMAKE_INSTALL_PREFIX}/${ZOV_ARRAYSIM_INSTALL_DIR}\")
      endif()
    endif()
  endforeach()")

# Manual pages: the version filled in, compressed as Debian keeps them.
find_program(ZOV_GZIP gzip REQUIRED)
set(zov_man_out)
foreach(page merlsnap.1 arraysim.1 zovmerl.7)
  string(REGEX REPLACE ".*\\.([0-9])$" "\\1" section ${page})
  set(ZOV_VERSION ${PROJECT_VERSION})
  configure_file(${CMAKE_SOURCE_DIR}/man/${page} ${CMAKE_BINARY_DIR}/man/${page} @ONLY)
  add_custom_command(OUTPUT ${CMAKE_BINARY_DIR}/man/${page}.gz
    COMMAND ${ZOV_GZIP} -9 -n -k -f ${CMAKE_BINARY_DIR}/man/${page}
    DEPENDS ${CMAKE_BINARY_DIR}/man/${page}
    VERBATIM)
  list(APPEND zov_man_out ${CMAKE_BINARY_DIR}/man/${page}.gz)
  install(FILES ${CMAKE_BINARY_DIR}/man/${page}.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section})
endforeach()
add_custom_target(manpages ALL DEPENDS ${zov_man_out})

file(GLOB zov_docs CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/docs/*.md)
install(FILES ${CMAKE_SOURCE_DIR}/README.md ${zov_docs} DESTINATION ${CMAKE_INSTALL_DOCDIR})
