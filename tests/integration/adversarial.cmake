# Adversarial clients, very many of them, mostly against a server in a process of its own. For the
# metrics of them all in one table: scripts/adversarial.sh.

# Sanitizers slow all of it down, and their memory is not the library's.
set(adversarial_divisor 1)
if(WENDREL_SANITIZE)
    set(adversarial_divisor 10)
endif()
find_program(SLOWHTTPTEST_PROGRAM slowhttptest)

add_executable(adversarial_server adversarial/adversarial_server.cpp support/WorkerApplication.cpp)
set_target_properties(adversarial_server PROPERTIES CXX_EXTENSIONS OFF)
target_link_libraries(adversarial_server PRIVATE wendrel_build Wendrel::Kit wendrel_test_support)

add_executable(integration_adversarial
    main.cpp
    support/RawClient.cpp support/TestServer.cpp support/Pattern.cpp
    adversarial/Crowd.cpp adversarial/Metrics.cpp adversarial/ServerProcess.cpp
    adversarial/Aborts.cpp adversarial/Churn.cpp adversarial/ConnectionLimit.cpp adversarial/HeaderBombs.cpp adversarial/LogLines.cpp
    adversarial/SecureClients.cpp
    adversarial/SlowClients.cpp
    adversarial/SlowHttpTest.cpp adversarial/WebSocketAbuse.cpp)
set_target_properties(integration_adversarial PROPERTIES CXX_EXTENSIONS OFF)
target_link_libraries(integration_adversarial PRIVATE
    wendrel_build Wendrel::Kit CURL::libcurl wendrel_test_support ZLIB::ZLIB GTest::gmock GTest::gtest)
target_compile_definitions(integration_adversarial PRIVATE
    WENDREL_ADVERSARIAL_SERVER="$<TARGET_FILE:adversarial_server>"
    WENDREL_ADVERSARIAL_DEFAULT_DIVISOR=${adversarial_divisor}
    WENDREL_SLOWHTTPTEST="$<$<BOOL:${SLOWHTTPTEST_PROGRAM}>:${SLOWHTTPTEST_PROGRAM}>")
add_dependencies(integration_adversarial adversarial_server)
# Not two at once: each takes thousands of sockets and both cores.
gtest_discover_tests(integration_adversarial TEST_PREFIX integration_adversarial. DISCOVERY_TIMEOUT 600
    PROPERTIES TIMEOUT 1800 RESOURCE_LOCK adversarial)
# Event-driven mode has limits of its own in place of the others' findings.
gtest_discover_tests(integration_adversarial TEST_PREFIX event_driven.adversarial. DISCOVERY_TIMEOUT 600
    TEST_FILTER "Aborts.*Deleted:Aborts.AreCompletedOnce*:Churn.*:HeaderBombs.*:LogLines.*"
    PROPERTIES TIMEOUT 1800 RESOURCE_LOCK adversarial ENVIRONMENT "WENDREL_TEST_MODE=event-driven")
gtest_discover_tests(integration_adversarial TEST_PREFIX secure.adversarial. DISCOVERY_TIMEOUT 600
    TEST_FILTER "SecureClients.*"
    PROPERTIES TIMEOUT 1800 RESOURCE_LOCK adversarial ENVIRONMENT "WENDREL_TEST_MODE=secure")
