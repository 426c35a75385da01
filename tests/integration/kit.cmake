# The kit against real clients, and the example on it as a program.

wendrel_test_program(integration_kit
    SOURCES
        main.cpp
        support/ProcessCounts.cpp support/RawClient.cpp
        KitLoad.cpp KitServer.cpp KitWebSocketStops.cpp KitWebSockets.cpp
    LIBRARIES Wendrel::Kit CURL::libcurl)
gtest_discover_tests(integration_kit
    TEST_PREFIX event_driven.kit.
    TEST_FILTER "KitServer.*:KitLoad.*:-*Upgraded*"
    DISCOVERY_TIMEOUT 120
    PROPERTIES TIMEOUT 900 ENVIRONMENT "WENDREL_TEST_MODE=event-driven")

include(hello.cmake)
