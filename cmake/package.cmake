# The Debian packages: script/package builds them.

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_PACKAGE_CONTACT "Kelvane maintainers <maintainers@kelvane.example>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")  # each package begins its description with its own
set(CPACK_STRIP_FILES ON)

# A package for each component that is named here.
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_COMPONENTS_ALL kelvane kelvane-caches libkelvane1 libkelvane-dev python3-kelvane)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_DEBIAN_KELVANE_PACKAGE_NAME kelvane)
# Users, folders and units are made by its tools when the package is installed, also where it does not run.
set(CPACK_DEBIAN_KELVANE_PACKAGE_DEPENDS "systemd (>= 250)")
set(CPACK_DEBIAN_KELVANE_DESCRIPTION "storage-reclamation daemon
Programs that keep data which can be thrown away and made again (caches,
thumbnails, downloaded copies) register with the daemon as services. When
space is needed on a volume, the daemon asks them, in passes of rising
urgency, to purge bytes until there is enough, and reports what was freed
and by whom.")
set(debian ${PROJECT_SOURCE_DIR}/packaging/debian)
set(CPACK_DEBIAN_KELVANE_PACKAGE_CONTROL_EXTRA
  ${debian}/conffiles ${debian}/postinst ${debian}/prerm ${debian}/postrm)
# Without it the daemon frees nothing until somebody writes a service.
set(CPACK_DEBIAN_KELVANE_PACKAGE_RECOMMENDS kelvane-caches)

set(CPACK_DEBIAN_KELVANE-CACHES_PACKAGE_NAME kelvane-caches)
set(CPACK_DEBIAN_KELVANE-CACHES_PACKAGE_DEPENDS "systemd (>= 250)")
set(CPACK_DEBIAN_KELVANE-CACHES_DESCRIPTION "storage-reclamation daemon: caches of well-known programs
Services for the caches that fill disks: of package managers, browsers,
compilers, language tools and the desktop. When a volume is low, the kelvane
daemon asks them for space, and they delete the oldest cached files first.
Each cache is described by a small file, which says what may go and when.
Nothing is deleted while there is enough space.")
set(CPACK_DEBIAN_KELVANE-CACHES_PACKAGE_CONTROL_EXTRA
  ${debian}/kelvane-caches/postinst ${debian}/kelvane-caches/prerm ${debian}/kelvane-caches/postrm)

# The version of the interface is in the library's name; what else a program needs is in shlibs.
set(CPACK_DEBIAN_LIBKELVANE1_PACKAGE_NAME libkelvane1)
set(CPACK_DEBIAN_LIBKELVANE1_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIBKELVANE1_DESCRIPTION "storage-reclamation daemon: shared library
With it a program asks the kelvane daemon for space on a volume, or gives
space back when the daemon asks for it.")
set(CPACK_DEBIAN_LIBKELVANE1_PACKAGE_CONTROL_EXTRA
  ${PROJECT_BINARY_DIR}/packaging/libkelvane1/shlibs ${debian}/libkelvane1/triggers)

set(CPACK_DEBIAN_LIBKELVANE-DEV_PACKAGE_NAME libkelvane-dev)
set(CPACK_DEBIAN_LIBKELVANE-DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_LIBKELVANE-DEV_DESCRIPTION "storage-reclamation daemon: development files
The headers of libkelvane, what pkg-config and CMake need to build programs
with it, and the descriptions of its D-Bus interfaces for code generators.")

set(CPACK_DEBIAN_PYTHON3-KELVANE_PACKAGE_NAME python3-kelvane)
set(CPACK_DEBIAN_PYTHON3-KELVANE_PACKAGE_SECTION python)
set(CPACK_DEBIAN_PYTHON3-KELVANE_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_PYTHON3-KELVANE_PACKAGE_DEPENDS python3)
set(CPACK_DEBIAN_PYTHON3-KELVANE_DESCRIPTION "storage-reclamation daemon: Python module
With it a program in Python asks the kelvane daemon for space on a volume, or
gives space back when the daemon asks for it.")
set(CPACK_DEBIAN_PYTHON3-KELVANE_PACKAGE_CONTROL_EXTRA
  ${debian}/python3-kelvane/postinst ${debian}/python3-kelvane/prerm)

# The same version: they are built from the same sources.
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_COMPONENT_LIBKELVANE-DEV_DEPENDS libkelvane1)
set(CPACK_COMPONENT_KELVANE-CACHES_DEPENDS kelvane)
set(CPACK_COMPONENT_PYTHON3-KELVANE_DEPENDS libkelvane1)

include(CPack)
