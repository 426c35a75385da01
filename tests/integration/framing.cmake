# Request framing: the bare daemon, the library, and both proxies in front of it.

if(NOT nginx_program OR NOT haproxy_program)
    message(STATUS "Tests of request framing: left out, they need nginx and haproxy")
    return()
endif()

add_executable(framing_bare_daemon framing/bare_daemon.cpp)
set_target_properties(framing_bare_daemon PROPERTIES CXX_EXTENSIONS OFF)
target_link_libraries(framing_bare_daemon PRIVATE wendrel_build PkgConfig::MICROHTTPD)

add_executable(framing_library_server
    framing/library_server.cpp support/Pattern.cpp support/TestServer.cpp)
set_target_properties(framing_library_server PROPERTIES CXX_EXTENSIONS OFF)
target_link_libraries(framing_library_server PRIVATE
    wendrel_build Wendrel::Wendrel wendrel_test_support GTest::gtest)

wendrel_python_tests(PREFIX framing
    SCRIPT ${CMAKE_CURRENT_LIST_DIR}/framing/test_framing.py
    ENVIRONMENT
        WENDREL_BARE_DAEMON=$<TARGET_FILE:framing_bare_daemon>
        WENDREL_LIBRARY_SERVER=$<TARGET_FILE:framing_library_server>)
