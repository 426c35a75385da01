# The task board end to end, with clients of Python and in a browser.

if(NOT TARGET wendrel-taskboard)
    message(STATUS "Tests of the task board: left out, it is not built")
    return()
endif()
wendrel_python_tests(PREFIX taskboard
    SCRIPT ${CMAKE_CURRENT_LIST_DIR}/taskboard/test_taskboard.py
    ENVIRONMENT WENDREL_TASKBOARD=$<TARGET_FILE:wendrel-taskboard>)

if(browser_lacks)
    message(STATUS "Test of the task board's page: left out, ${browser_lacks}")
else()
    wendrel_browser_tests(PREFIX taskboard.Page
        SCRIPT ${CMAKE_CURRENT_LIST_DIR}/taskboard/page.mjs
        ENVIRONMENT WENDREL_TASKBOARD=$<TARGET_FILE:wendrel-taskboard>)
endif()
