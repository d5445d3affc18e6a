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

# Manual pages: built, installed and checked in their own folder.
add_subdirectory(${CMAKE_SOURCE_DIR}/man ${CMAKE_BINARY_DIR}/man)

file(GLOB zov_docs CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/docs/*.md)
install(FILES ${CMAKE_SOURCE_DIR}/README.md ${zov_docs} DESTINATION ${CMAKE_INSTALL_DOCDIR})
