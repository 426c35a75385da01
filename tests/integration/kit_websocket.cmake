# WebSocket sessions of the kit against real clients.

wendrel_test_program(integration_kit_websocket
    SOURCES
        main.cpp
        support/EventRun.cpp support/Pattern.cpp support/RawClient.cpp support/TestServer.cpp
        KitWebSocketSessions.cpp
    LIBRARIES Wendrel::Kit CURL::libcurl)
# GCC warns of the fences in Boost.Asio, which ThreadSanitizer does not see.
if(WENDREL_SANITIZE MATCHES thread AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    set_source_files_properties(KitWebSocketSessions.cpp PROPERTIES COMPILE_OPTIONS -Wno-tsan)
endif()
