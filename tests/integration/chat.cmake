# The chat end to end: each test method is a ctest test, run by python3.

if(NOT TARGET wendrel-chat)
    message(STATUS "Tests of the chat: left out, the examples are not built")
    return()
endif()
set(script ${CMAKE_CURRENT_LIST_DIR}/chat/test_chat.py)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${script})
set(sanitized 0)
if(WENDREL_SANITIZE)
    set(sanitized 1)
endif()
file(STRINGS ${script} lines REGEX "^class [A-Za-z]+\\(|^    def test_")
foreach(line IN LISTS lines)
    if(line MATCHES "^class ([A-Za-z]+)")
        set(class ${CMAKE_MATCH_1})
    elseif(line MATCHES "def (test_[a-z0-9_]+)")
        set(name chat.${class}.${CMAKE_MATCH_1})
        add_test(NAME ${name} COMMAND Python3::Interpreter ${script} ${class}.${CMAKE_MATCH_1})
        set_tests_properties(${name} PROPERTIES
            ENVIRONMENT "WENDREL_CHAT=$<TARGET_FILE:wendrel-chat>;WENDREL_SANITIZED=${sanitized};PYTHONDONTWRITEBYTECODE=1"
            TIMEOUT 300)
    endif()
endforeach()
