# The kit against real clients, and the example on it as a program.

wendrel_test_program(integration_kit
    SOURCES
        main.cpp
        support/Pattern.cpp support/ProcessCounts.cpp support/RawClient.cpp
        KitAccessLog.cpp KitBodies.cpp KitCompleted.cpp KitCompression.cpp KitDeferred.cpp KitDeferredStress.cpp
        KitDirectories.cpp KitEvents.cpp KitFiles.cpp KitForms.cpp KitHooks.cpp KitJson.cpp
        KitMiddleware.cpp KitResponses.cpp KitRouting.cpp KitScale.cpp KitStops.cpp
        KitStreamMemory.cpp KitTls.cpp
        KitTurns.cpp KitUploads.cpp KitWebSocketRoutes.cpp KitWebSocketWorkers.cpp
    LIBRARIES Wendrel::Kit CURL::libcurl nlohmann_json::nlohmann_json ZLIB::ZLIB)
# WebSocket sessions over TLS.
gtest_discover_tests(integration_kit
    TEST_PREFIX secure.
    TEST_FILTER "KitWebSocket*"
    DISCOVERY_TIMEOUT 120
    PROPERTIES TIMEOUT 900 ENVIRONMENT "WENDREL_TEST_MODE=secure")

include(hello.cmake)

# Allocations of the server that fail: the program replaces operator new.
wendrel_test_program(integration_kit_failures
    SOURCES
        main.cpp
        support/FailingMemory.cpp support/Pattern.cpp support/ProcessCounts.cpp
        support/RawClient.cpp
        KitFailures.cpp
    LIBRARIES Wendrel::Kit CURL::libcurl)
# The same over TLS: OpenSSL's allocations fail, too.
gtest_discover_tests(integration_kit_failures
    TEST_PREFIX secure.
    DISCOVERY_TIMEOUT 120
    PROPERTIES TIMEOUT 900 ENVIRONMENT "WENDREL_TEST_MODE=secure")
