# Rules of `cmake --install`. Components: `runtime` for running programs, `development` for building
# them, `documentation` and `examples`.

get_property(wendrel_platform_targets GLOBAL PROPERTY WENDREL_PLATFORM_TARGETS)
set(wendrel_package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/Wendrel)
set(wendrel_platform_package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/WendrelPlatform)
if(BUILD_SHARED_LIBS)
    set(wendrel_static FALSE)
else()
    set(wendrel_static TRUE)
endif()

# wendrel_install_library(export targets...)
function(wendrel_install_library export)
    install(TARGETS ${ARGN} EXPORT ${export}
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
endfunction()

# The platform libraries are a separate package: another build of this library can use them
# (WENDREL_BUNDLED_PLATFORM=OFF), and this library another build of theirs.
if(WENDREL_BUNDLED_PLATFORM)
    wendrel_install_library(WendrelPlatformTargets ${wendrel_platform_targets})
    foreach(name ${wendrel_platform_targets})
        install(DIRECTORY platform/${name}/include/${name}
            DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)
    endforeach()
    install(EXPORT WendrelPlatformTargets NAMESPACE Wendrel::
        DESTINATION ${wendrel_platform_package_dir} COMPONENT development)
    configure_package_config_file(cmake/WendrelPlatformConfig.cmake.in
        ${PROJECT_BINARY_DIR}/WendrelPlatformConfig.cmake
        INSTALL_DESTINATION ${wendrel_platform_package_dir})
    install(FILES ${PROJECT_BINARY_DIR}/WendrelPlatformConfig.cmake
        DESTINATION ${wendrel_platform_package_dir} COMPONENT development)
endif()

wendrel_install_library(WendrelTargets Wendrel)
install(DIRECTORY include/Wendrel DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)
install(EXPORT WendrelTargets NAMESPACE Wendrel::
    DESTINATION ${wendrel_package_dir} COMPONENT development)

wendrel_install_library(WendrelKitTargets WendrelKit)
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

# For pkg-config. Paths are relative to the file itself, so that a moved prefix works. Static
# libraries list their dependencies; shared ones require no further package. The .pc files of the
# dependencies are not used: with --static they list libraries that Debian's -dev packages lack.
file(RELATIVE_PATH wendrel_pc_to_prefix /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
set(wendrel_pc_needs "")
if(wendrel_static)
    string(CONCAT wendrel_pc_needs "Libs.private: -lqvOpenSSL -lQuenby -lOstrand -lqvSystem "
        "-lmicrohttpd -lssl -lcrypto -lspdlog -lfmt -pthread\n")
endif()
foreach(name wendrel wendrel-kit)
    configure_file(cmake/${name}.pc.in ${PROJECT_BINARY_DIR}/${name}.pc @ONLY)
    install(FILES ${PROJECT_BINARY_DIR}/${name}.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
endforeach()

install(FILES README.md CHANGELOG.md CONTRIBUTING.md SECURITY.md LICENSE
    DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT documentation)
install(DIRECTORY docs deploy DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT documentation
    PATTERN *.in EXCLUDE)
# The programs that the pages show.
foreach(folder docs package/consumer package/subproject)
    install(DIRECTORY tests/${folder}/ DESTINATION ${CMAKE_INSTALL_DOCDIR}/tests/${folder}
        COMPONENT documentation
        FILES_MATCHING PATTERN *.cpp PATTERN CMakeLists.txt PATTERN pages EXCLUDE)
endforeach()
install(CODE "
    execute_process(
        COMMAND \"\${CMAKE_COMMAND}\"
            \"-DFOLDER=\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_DOCDIR}\"
            \"-DSOURCE=${PROJECT_SOURCE_DIR}\" -P \"${PROJECT_SOURCE_DIR}/cmake/WendrelInstallPages.cmake\"
        COMMAND_ERROR_IS_FATAL ANY)"
    COMPONENT documentation)
install(DIRECTORY examples DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT examples
    PATTERN node_modules EXCLUDE)
