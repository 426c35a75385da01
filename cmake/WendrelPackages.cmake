# Debian packages, made by cpack in a build that scripts/package.sh has configured.

if(NOT WENDREL_DEBIAN)
    return()
endif()

# package, component, description
set(wendrel_packages
    "libwendrel3.0|runtime"
    "libwendrel-dev|development"
    "wendrel-doc|documentation"
    "wendrel-examples|examples")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME wendrel)
set(CPACK_PACKAGE_VENDOR "The Wendrel developers")
set(CPACK_PACKAGE_CONTACT "${CPACK_PACKAGE_VENDOR} <wendrel@wendrel.invalid>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS OFF)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

set(wendrel_debian_version ${CPACK_PACKAGE_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libwendrel3.0)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "An HTTP/1.1 server for the process of a C++ application, on GNU libmicrohttpd:
bodies of any size are streamed in constant memory, and connections can be
upgraded to WebSockets.

These are the shared libraries.")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/packaging/symbols
    ${PROJECT_SOURCE_DIR}/packaging/shlibs ${PROJECT_SOURCE_DIR}/packaging/triggers)

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libwendrel-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION "An HTTP/1.1 server for the process of a C++ application, on GNU libmicrohttpd.

These are the headers, the kit (worker pool, router, WebSockets; a static
library), and what CMake and pkg-config need to find them.")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
    "libwendrel3.0 (= ${wendrel_debian_version}), libssl-dev, zlib1g-dev, libzstd-dev, pkg-config")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SUGGESTS "wendrel-doc, wendrel-examples, cmake")

set(CPACK_DEBIAN_DOCUMENTATION_PACKAGE_NAME wendrel-doc)
set(CPACK_DEBIAN_DOCUMENTATION_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_DOCUMENTATION_PACKAGE_SECTION doc)
# Its pages link to the sources of the examples.
set(CPACK_DEBIAN_DOCUMENTATION_PACKAGE_SUGGESTS wendrel-examples)
set(CPACK_DEBIAN_DOCUMENTATION_DESCRIPTION "An HTTP/1.1 server for the process of a C++ application, on GNU libmicrohttpd.

These are the guide, the reference, and configurations of proxies in front.")

set(CPACK_DEBIAN_EXAMPLES_PACKAGE_NAME wendrel-examples)
set(CPACK_DEBIAN_EXAMPLES_PACKAGE_SECTION web)
set(CPACK_DEBIAN_EXAMPLES_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_EXAMPLES_PACKAGE_DEPENDS "libwendrel3.0 (= ${wendrel_debian_version})")
set(CPACK_DEBIAN_EXAMPLES_PACKAGE_SUGGESTS
    "libwendrel-dev (= ${wendrel_debian_version}), libcli11-dev, nlohmann-json3-dev, libsqlite3-dev")
set(CPACK_DEBIAN_EXAMPLES_DESCRIPTION "An HTTP/1.1 server for the process of a C++ application, on GNU libmicrohttpd.

These are a file server and a chat, ready to run, with their manual pages, and
the sources of all examples.")

# dpkg-shlibdeps finds the libraries of this tree here.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
    ${PROJECT_BINARY_DIR}/src ${PROJECT_BINARY_DIR}/platform)

# Files that Debian requires in each package. The time is that of SOURCE_DATE_EPOCH, if given.
string(TIMESTAMP wendrel_date "%a, %d %b %Y %H:%M:%S +0000" UTC)
configure_file(packaging/changelog.in ${PROJECT_BINARY_DIR}/packaging/changelog.Debian @ONLY)
foreach(entry IN LISTS wendrel_packages)
    string(REPLACE "|" ";" entry "${entry}")
    list(GET entry 0 package)
    list(GET entry 1 component)
    install(FILES packaging/copyright
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package} COMPONENT ${component})
    install(FILES ${PROJECT_BINARY_DIR}/packaging/changelog.Debian.gz
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package} COMPONENT ${component})
endforeach()
install(FILES packaging/lintian-overrides
    DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides COMPONENT runtime RENAME libwendrel3.0)
find_program(GZIP_PROGRAM gzip REQUIRED)
execute_process(COMMAND ${GZIP_PROGRAM} -9nfk ${PROJECT_BINARY_DIR}/packaging/changelog.Debian
    COMMAND_ERROR_IS_FATAL ANY)
# Debian has its manual pages compressed. They are installed by then: the examples come before.
install(CODE "
    file(GLOB pages \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_MANDIR}/man?/*.?\")
    if(pages)
        execute_process(COMMAND ${GZIP_PROGRAM} -9nf \${pages} COMMAND_ERROR_IS_FATAL ANY)
    endif()" COMPONENT examples)

set(CPACK_COMPONENTS_ALL runtime development documentation examples)
include(CPack)
