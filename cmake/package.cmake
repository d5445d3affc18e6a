# The Debian package (cpack -G DEB, made by scripts/package.sh): the install
# tree of cmake/install.cmake under /usr, its library dependencies worked out
# by dpkg-shlibdeps, and the maintainer scripts that make the module's
# folders under /vmr.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME zovmerl)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR "zovmerl developers")
set(CPACK_PACKAGE_CONTACT "zovmerl developers <zovmerl@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "snapshot provider module for Merlode arrays")
set(CPACK_PACKAGE_DESCRIPTION
    "A plug-in that a backup product's snapshot layer loads to take point-in-time\n"
    "copies of volumes on Merlode arrays (copy-on-write sessions, mirrors and\n"
    "advanced snapshots), with merlsnap, a command-line driver that loads it as\n"
    "a backup product does, and an array simulator for trying it without an\n"
    "array (merlsnap demo).")
string(JOIN "" CPACK_PACKAGE_DESCRIPTION ${CPACK_PACKAGE_DESCRIPTION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# Library dependencies as the binaries need them, at the versions this
# machine's build links against.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The maintainer scripts run `install`, `sort` and `rmdir`: all essential.
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    ${CMAKE_SOURCE_DIR}/cmake/debian/postinst ${CMAKE_SOURCE_DIR}/cmake/debian/postrm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION TRUE)
# An installed system gets no debug information and no build-folder paths
# inside its binaries' debug sections.
set(CPACK_STRIP_FILES TRUE)
include(CPack)
