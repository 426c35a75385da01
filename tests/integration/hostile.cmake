# Hostile clients, very many of them, mostly against a server in a process of its own. For the
# figures of them all in one table: scripts/hostile.sh.

# Sanitizers slow all of it down, and their memory is not the library's.
set(hostile_divisor 1)
if(WENDREL_SANITIZE)
    set(hostile_divisor 10)
endif()
find_program(SLOWHTTPTEST_PROGRAM slowhttptest)

add_executable(hostile_server hostile/hostile_server.cpp)
set_target_properties(hostile_server PROPERTIES CXX_EXTENSIONS OFF)
target_link_libraries(hostile_server PRIVATE wendrel_build Wendrel::Kit)

add_executable(integration_hostile
    main.cpp
    support/CapturedLog.cpp support/RawClient.cpp support/TestServer.cpp support/Pattern.cpp
    hostile/Crowd.cpp hostile/Figures.cpp hostile/ServerProcess.cpp
    hostile/Aborts.cpp hostile/Churn.cpp hostile/ConnectionLimit.cpp hostile/HeaderBombs.cpp hostile/LogLines.cpp
    hostile/SlowClients.cpp
    hostile/SlowHttpTest.cpp hostile/WebSocketAbuse.cpp)
set_target_properties(integration_hostile PROPERTIES CXX_EXTENSIONS OFF)
target_link_libraries(integration_hostile PRIVATE
    wendrel_build Wendrel::Kit CURL::libcurl GTest::gmock GTest::gtest)
target_compile_definitions(integration_hostile PRIVATE
    WENDREL_HOSTILE_SERVER="$<TARGET_FILE:hostile_server>"
    WENDREL_SLOWHTTPTEST="$<$<BOOL:${SLOWHTTPTEST_PROGRAM}>:${SLOWHTTPTEST_PROGRAM}>")
add_dependencies(integration_hostile hostile_server)
# Not two at once: each takes thousands of sockets and both cores.
gtest_discover_tests(integration_hostile TEST_PREFIX integration_hostile. DISCOVERY_TIMEOUT 120
    PROPERTIES TIMEOUT 300 RESOURCE_LOCK hostile
        ENVIRONMENT WENDREL_HOSTILE_DIVISOR=${hostile_divisor})
