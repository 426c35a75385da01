# Clients and scanners of TLS that others wrote, at the chat.

if(NOT TARGET wendrel-chat OR NOT TARGET wendrel-filedrop)
    message(STATUS "Tests with clients of TLS: left out, the examples are not built")
    return()
endif()
wendrel_python_tests(PREFIX tls_clients
    SCRIPT ${CMAKE_CURRENT_LIST_DIR}/tls/test_clients.py
    TIMEOUT 1900
    ENVIRONMENT WENDREL_CHAT=$<TARGET_FILE:wendrel-chat>
        WENDREL_FILEDROP=$<TARGET_FILE:wendrel-filedrop>)
