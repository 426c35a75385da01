# The chat end to end.

if(NOT TARGET wendrel-chat)
    message(STATUS "Tests of the chat: left out, the examples are not built")
    return()
endif()
wendrel_python_tests(PREFIX chat
    SCRIPT ${CMAKE_CURRENT_LIST_DIR}/chat/test_chat.py
    ENVIRONMENT WENDREL_CHAT=$<TARGET_FILE:wendrel-chat>)

if(browser_lacks)
    message(STATUS "Test of the chat's page: left out, ${browser_lacks}")
else()
    wendrel_browser_tests(PREFIX chat.Page.direct
        SCRIPT ${CMAKE_CURRENT_LIST_DIR}/proxies/chat.mjs
        EXCEPT "^test..over TLS"  # that of a proxy
        ENVIRONMENT WENDREL_CHAT=$<TARGET_FILE:wendrel-chat>)
    wendrel_browser_tests(PREFIX chat.Page.secure
        SCRIPT ${CMAKE_CURRENT_LIST_DIR}/proxies/chat.mjs
        EXCEPT "^test..over TLS"
        ENVIRONMENT WENDREL_CHAT=$<TARGET_FILE:wendrel-chat> WENDREL_TLS=1)
endif()
