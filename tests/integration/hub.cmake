# The hub of upgraded connections, on a server in polling mode.

wendrel_test_program(integration_hub
    SOURCES
        main.cpp
        support/Pattern.cpp support/ProcessCounts.cpp support/RawClient.cpp support/TestServer.cpp
        KitWebSocketStops.cpp KitWebSockets.cpp
    LIBRARIES Wendrel::Kit CURL::libcurl)
