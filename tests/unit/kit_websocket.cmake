# The parts of the kit's WebSocket sessions, without sockets but for socket pairs.

file(GLOB kit_websocket_tests CONFIGURE_DEPENDS kit_websocket/*.cpp)
wendrel_test_program(unit_kit_websocket
    SOURCES main.cpp ${kit_websocket_tests}
    LIBRARIES Wendrel::Kit ZLIB::ZLIB)
target_include_directories(unit_kit_websocket PRIVATE ${CMAKE_CURRENT_LIST_DIR}/kit_websocket
    ${PROJECT_SOURCE_DIR}/kit)

# Every call of the engine that can fail does so, one after the other (FailingLoop).
wendrel_test_program(unit_kit_websocket_failures
    SOURCES main.cpp kit_websocket_failures/FailingLoop.cpp kit_websocket_failures/Failures.cpp
    LIBRARIES Wendrel::Kit ZLIB::ZLIB ${CMAKE_DL_LIBS})
target_include_directories(unit_kit_websocket_failures PRIVATE ${CMAKE_CURRENT_LIST_DIR}/kit_websocket
    ${CMAKE_CURRENT_LIST_DIR}/kit_websocket_failures ${PROJECT_SOURCE_DIR}/kit)
