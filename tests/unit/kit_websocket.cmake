# The parts of the kit's WebSocket sessions, without sockets but for socket pairs.

file(GLOB kit_websocket_tests CONFIGURE_DEPENDS kit_websocket/*.cpp)
wendrel_test_program(unit_kit_websocket
    SOURCES main.cpp ${kit_websocket_tests}
    LIBRARIES Wendrel::Kit ZLIB::ZLIB)
target_include_directories(unit_kit_websocket PRIVATE ${CMAKE_CURRENT_LIST_DIR}/kit_websocket
    ${PROJECT_SOURCE_DIR}/kit)
