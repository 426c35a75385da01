# examples/hello as its users run it.

if(TARGET hello)
    add_test(NAME hello.end_to_end
        COMMAND Python3::Interpreter ${CMAKE_CURRENT_LIST_DIR}/hello.py $<TARGET_FILE:hello>)
    set_tests_properties(hello.end_to_end PROPERTIES TIMEOUT 900)
else()
    message(STATUS "Test of hello: left out, the examples are not built")
endif()
