# The chat's page in a second browser.

if(NOT TARGET wendrel-chat)
    message(STATUS "Tests with Firefox: left out, the examples are not built")
    return()
endif()
if(DEFINED ENV{FIREFOX})
    set(firefox $ENV{FIREFOX})
else()
    set(firefox /usr/bin/firefox-esr)
endif()
find_python_that(firefox_python "import websocket")
if(NOT EXISTS ${firefox})
    message(STATUS "Tests with Firefox: left out, there is no ${firefox}; set FIREFOX to its path")
elseif(NOT firefox_python)
    message(STATUS "Tests with Firefox: left out, there is no python3-websocket")
else()
    wendrel_python_tests(PREFIX chat.Page
        SCRIPT ${CMAKE_CURRENT_LIST_DIR}/firefox/test_firefox.py
        PYTHON ${firefox_python}
        ENVIRONMENT WENDREL_CHAT=$<TARGET_FILE:wendrel-chat> FIREFOX=${firefox})
endif()
