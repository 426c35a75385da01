# What `cmake --install` puts where: libraries, headers, the CMake package, a pkg-config file,
# the documentation.

get_property(wendrel_platform_targets GLOBAL PROPERTY WENDREL_PLATFORM_TARGETS)
set(wendrel_package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/Wendrel)

# The platform libraries are a package of their own: another build of this library can stand on
# them (WENDREL_BUNDLED_PLATFORM=OFF), or this library on another build of theirs.
if(WENDREL_BUNDLED_PLATFORM)
    install(TARGETS ${wendrel_platform_targets}
        EXPORT WendrelPlatformTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
    foreach(name ${wendrel_platform_targets})
        install(DIRECTORY platform/${name}/include/${name}
            DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)
    endforeach()
    set(wendrel_platform_package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/WendrelPlatform)
    install(EXPORT WendrelPlatformTargets NAMESPACE Wendrel::
        DESTINATION ${wendrel_platform_package_dir} COMPONENT development)
    install(FILES cmake/WendrelPlatformConfig.cmake
        DESTINATION ${wendrel_platform_package_dir} COMPONENT development)
endif()

install(TARGETS Wendrel
    EXPORT WendrelTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
install(DIRECTORY include/Wendrel DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)
install(EXPORT WendrelTargets NAMESPACE Wendrel::
    DESTINATION ${wendrel_package_dir} COMPONENT development)

install(TARGETS WendrelKit EXPORT WendrelKitTargets
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime)
install(DIRECTORY kit/include/Wendrel DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)
install(EXPORT WendrelKitTargets NAMESPACE Wendrel::
    DESTINATION ${wendrel_package_dir} COMPONENT development)

configure_package_config_file(cmake/WendrelConfig.cmake.in
    ${PROJECT_BINARY_DIR}/WendrelConfig.cmake
    INSTALL_DESTINATION ${wendrel_package_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/WendrelConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/WendrelConfig.cmake ${PROJECT_BINARY_DIR}/WendrelConfigVersion.cmake
    DESTINATION ${wendrel_package_dir} COMPONENT development)

# Relative to the file itself, so that a moved prefix works.
file(RELATIVE_PATH wendrel_pc_to_prefix /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
configure_file(cmake/wendrel.pc.in ${PROJECT_BINARY_DIR}/wendrel.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/wendrel.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)

install(FILES README.md CHANGELOG.md LICENSE DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT documentation)
install(DIRECTORY docs/ DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT documentation)
