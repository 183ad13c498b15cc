# The Debian package: script/package builds it.

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_PACKAGE_CONTACT "Kelvane maintainers <maintainers@kelvane.example>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "storage-reclamation daemon")
set(CPACK_STRIP_FILES ON)

# A package for each component that is named here.
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_COMPONENTS_ALL kelvane)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_DEBIAN_KELVANE_PACKAGE_NAME kelvane)
# Users, folders and units are made by its tools when the package is installed, also where it does not run.
set(CPACK_DEBIAN_KELVANE_PACKAGE_DEPENDS "systemd (>= 250)")
set(CPACK_DEBIAN_KELVANE_DESCRIPTION "Programs that keep data which can be thrown away and made again (caches,
thumbnails, downloaded copies) register with the daemon as services. When
space is needed on a volume, the daemon asks them, in passes of rising
urgency, to purge bytes until there is enough, and reports what was freed
and by whom.")
set(debian ${PROJECT_SOURCE_DIR}/packaging/debian)
set(CPACK_DEBIAN_KELVANE_PACKAGE_CONTROL_EXTRA
  ${debian}/conffiles ${debian}/postinst ${debian}/prerm ${debian}/postrm)

include(CPack)
