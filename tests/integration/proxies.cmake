# The library behind nginx and HAProxy, configured as in deploy/: each test once with each proxy.

set(proxies_found "")
foreach(proxy IN ITEMS nginx haproxy)
    find_program(${proxy}_program ${proxy} PATHS /usr/sbin /usr/local/sbin)
    if(${proxy}_program)
        list(APPEND proxies_found ${proxy})
    else()
        message(STATUS "Tests behind ${proxy}: left out, it is missing")
    endif()
endforeach()

# The client's address in event-driven mode.
add_executable(proxies_address_server
    proxies/address_server.cpp support/Pattern.cpp support/TestServer.cpp)
set_target_properties(proxies_address_server PROPERTIES CXX_EXTENSIONS OFF)
target_link_libraries(proxies_address_server PRIVATE
    wendrel_build Wendrel::Wendrel wendrel_test_support GTest::gtest)
foreach(proxy IN LISTS proxies_found)
    foreach(class HeadersOfRequests HeadersOfConnections)
        # nginx sends PROXY headers only with a module that is a package of its own.
        if(NOT "${proxy} ${class}" STREQUAL "nginx HeadersOfConnections")
            wendrel_python_tests(PREFIX proxies.${proxy}
                SCRIPT ${CMAKE_CURRENT_LIST_DIR}/proxies/test_addresses.py
                CLASS ${class}
                ENVIRONMENT WENDREL_PROXY=${proxy}
                    WENDREL_ADDRESS_SERVER=$<TARGET_FILE:proxies_address_server>)
        endif()
    endforeach()
endforeach()

if(NOT TARGET wendrel-filedrop OR NOT TARGET wendrel-chat)
    message(STATUS "Tests behind proxies: left out, the examples are not built")
    return()
endif()

# The server that docs/websocket-polling-mode.md shows.
add_executable(docs_websocket_echo ${CMAKE_CURRENT_LIST_DIR}/../docs/websocket_echo.cpp)
set_target_properties(docs_websocket_echo PROPERTIES CXX_EXTENSIONS OFF)
target_link_libraries(docs_websocket_echo PRIVATE wendrel_build Wendrel::Wendrel)

set(proxies_tests_dir ${CMAKE_CURRENT_LIST_DIR}/proxies)
set(proxies_environment
    WENDREL_PYTHON=${Python3_EXECUTABLE}
    WENDREL_FILEDROP=$<TARGET_FILE:wendrel-filedrop>
    WENDREL_CHAT=$<TARGET_FILE:wendrel-chat>
    WENDREL_HELLO=$<TARGET_FILE:hello>
    WENDREL_ECHO_SERVER=$<TARGET_FILE:websocket_session_server>
    WENDREL_POLLING_ECHO=$<TARGET_FILE:websocket_echo_server>
    WENDREL_DOCS_ECHO=$<TARGET_FILE:docs_websocket_echo>)

find_python_that(proxies_python "from websocket import create_connection")
if(NOT proxies_python OR NOT CURL_PROGRAM)
    message(STATUS "Tests behind proxies: left out, they need python3-websocket and curl")
else()
    foreach(proxy IN LISTS proxies_found)
        wendrel_python_tests(PREFIX proxies.${proxy}
            SCRIPT ${proxies_tests_dir}/test_proxies.py
            PYTHON ${proxies_python}
            ENVIRONMENT WENDREL_PROXY=${proxy} ${proxies_environment})
        foreach(class Reload RollingUploads)
            # Only nginx has the command to reload.
            if(NOT "${proxy} ${class}" STREQUAL "haproxy Reload")
                wendrel_python_tests(PREFIX proxies.${proxy}
                    SCRIPT ${proxies_tests_dir}/test_changes.py
                    CLASS ${class}
                    PYTHON ${proxies_python}
                    ENVIRONMENT WENDREL_PROXY=${proxy} ${proxies_environment})
            endif()
        endforeach()
    endforeach()
endif()

if(browser_lacks)
    message(STATUS "Test of the chat's page: left out, ${browser_lacks}")
else()
    foreach(proxy IN LISTS proxies_found)
        wendrel_browser_tests(PREFIX chat.Page.${proxy}
            SCRIPT ${proxies_tests_dir}/chat.mjs
            ENVIRONMENT WENDREL_PROXY=${proxy} ${proxies_environment})
    endforeach()
endif()
