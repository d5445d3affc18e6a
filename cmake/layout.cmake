# Where an installed tree puts things, relative to the install prefix. The
# module and the array simulator live in a plug-in folder of their own, where
# a backup product is pointed to look for plug-ins; merlsnap finds both from
# its own location, so the way from its folder to the plug-in folder is
# worked out here, once, for the install rules and for merlsnap alike.
include(GNUInstallDirs)

set(ZOV_PLUGIN_DIR "lib/zovmerl" CACHE STRING
    "Folder of the module and the simulator, relative to the install prefix")
set(ZOV_ARRAYSIM_INSTALL_DIR "${ZOV_PLUGIN_DIR}/arraysim")

foreach(d CMAKE_INSTALL_BINDIR ZOV_PLUGIN_DIR)
  if(IS_ABSOLUTE "${${d}}")
    # merlsnap reaches its module by a relative way from its own folder.
    message(FATAL_ERROR "${d} must be relative to the install prefix, not ${${d}}")
  endif()
endforeach()
file(RELATIVE_PATH ZOV_BIN_TO_PLUGIN "/prefix/${CMAKE_INSTALL_BINDIR}" "/prefix/${ZOV_PLUGIN_DIR}")
