# The chat's pieces that need no server.

if(TARGET chat_objects)
    file(GLOB chat_tests CONFIGURE_DEPENDS chat/*.cpp)
    wendrel_test_program(unit_chat
        SOURCES main.cpp ${chat_tests}
        LIBRARIES chat_objects)
endif()
