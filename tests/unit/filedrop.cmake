# The parts of filedrop that need no server.

if(TARGET filedrop_objects)
    file(GLOB filedrop_tests CONFIGURE_DEPENDS ${CMAKE_CURRENT_LIST_DIR}/filedrop/*.cpp)
    wendrel_test_program(unit_filedrop
        SOURCES ${CMAKE_CURRENT_LIST_DIR}/main.cpp ${filedrop_tests}
        LIBRARIES filedrop_objects)
    target_include_directories(unit_filedrop PRIVATE ${CMAKE_CURRENT_LIST_DIR})
endif()
