# The chat's pieces that need no server.

if(TARGET chat_objects)
    file(GLOB chat_tests CONFIGURE_DEPENDS chat/*.cpp)
    wendrel_test_program(unit_chat
        SOURCES main.cpp ${PROJECT_SOURCE_DIR}/tests/integration/support/FailingMemory.cpp
            ${chat_tests}
        LIBRARIES chat_objects OpenSSL::Crypto)
    target_include_directories(unit_chat PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}
        ${PROJECT_SOURCE_DIR}/tests/integration/support)
endif()
