# Debian packages with CPack: cpack -G DEB in a build configured with
# -DCMAKE_INSTALL_PREFIX=/usr. One package per install component.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kovathumb)
set(CPACK_PACKAGE_VENDOR kovathumb)
set(CPACK_PACKAGE_CONTACT "kovathumb developers <kovathumb@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
# The server configuration goes to an absolute /etc path.
set(CPACK_SET_DESTDIR ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime dev tools web)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION graphics)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# Our own libraries are found in the build tree; the packages name each other.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_BINARY_DIR} ${CMAKE_BINARY_DIR}/platform)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)

set(_so ${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libkovathumb${_so})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
# The library starts these programs to convert, and links libjpeg-turbo,
# libpng and libwebp; with its formats module it reads AVIF/HEIF, JPEG XL
# and raw files with these libraries. Parsers and tools run as an account of its own.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS
    "imagemagick, libjpeg-turbo-progs, dcraw, libpng16-16, libwebp7, libwebpdemux2, liblcms2-2, libheif1, libjxl0.7, libraw20, libjpeg62-turbo, libseccomp2, adduser")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_SOURCE_DIR}/packaging/debian/runtime/postinst)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "thumbnail library: shared libraries, HEIF and formats modules")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libkovathumb-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libkovathumb${_so} (= ${PROJECT_VERSION}), libexiv2-dev, libjpeg62-turbo-dev, libpng-dev, liblcms2-dev, libwebp-dev, libseccomp-dev, pkg-config")
set(CPACK_COMPONENT_DEV_DESCRIPTION "thumbnail library: headers, pkg-config and CMake files")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME kovathumb)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "libkovathumb${_so} (= ${PROJECT_VERSION})")
set(CPACK_COMPONENT_TOOLS_DESCRIPTION "thumbnail command-line program, CGI and FastCGI endpoints")

set(CPACK_DEBIAN_WEB_PACKAGE_NAME kovathumb-web)
set(CPACK_DEBIAN_WEB_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_WEB_PACKAGE_DEPENDS "kovathumb (= ${PROJECT_VERSION}), lighttpd")
# The server configuration is the administrator's to edit: an upgrade keeps it.
file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/debian-web/conffiles
     "${CMAKE_INSTALL_FULL_SYSCONFDIR}/lighttpd/conf-available/50-kovathumb.conf\n")
set(CPACK_DEBIAN_WEB_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_BINARY_DIR}/debian-web/conffiles)
set(CPACK_COMPONENT_WEB_DESCRIPTION "thumbnail gallery page and web server configuration")

include(CPack)
