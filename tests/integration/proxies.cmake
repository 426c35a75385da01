# The library behind nginx and HAProxy, configured as in deploy/: each test method is a ctest test,
# once with each proxy.

set(proxies_tests_dir ${CMAKE_CURRENT_LIST_DIR}/proxies)

# proxies_test(name proxy command...): one test with the built servers.
function(proxies_test name proxy)
    set(sanitized 0)
    if(WENDREL_SANITIZE)
        set(sanitized 1)
    endif()
    add_test(NAME ${name} COMMAND ${ARGN} WORKING_DIRECTORY ${proxies_tests_dir})
    set_tests_properties(${name} PROPERTIES
        ENVIRONMENT "WENDREL_PROXY=${proxy};WENDREL_PYTHON=${Python3_EXECUTABLE};WENDREL_FILEDROP=$<TARGET_FILE:wendrel-filedrop>;WENDREL_CHAT=$<TARGET_FILE:wendrel-chat>;WENDREL_ECHO_SERVER=$<TARGET_FILE:websocket_echo_server>;WENDREL_DOCS_ECHO=$<TARGET_FILE:docs_websocket_echo>;WENDREL_SANITIZED=${sanitized};PYTHONDONTWRITEBYTECODE=1"
        SKIP_RETURN_CODE 77
        TIMEOUT 600)
endfunction()

# Debian's package is for Debian's interpreter, which need not be the first one found.
set(proxies_python "")
find_package(Python3 COMPONENTS Interpreter)
foreach(interpreter IN ITEMS ${Python3_EXECUTABLE} /usr/bin/python3)
    execute_process(COMMAND ${interpreter} -c "from websocket import create_connection"
        RESULT_VARIABLE result OUTPUT_QUIET ERROR_QUIET)
    if(result EQUAL 0)
        set(proxies_python ${interpreter})
        break()
    endif()
endforeach()
find_program(CURL_PROGRAM curl)

set(proxies_found "")
foreach(proxy IN ITEMS nginx haproxy)
    find_program(${proxy}_program ${proxy} PATHS /usr/sbin /usr/local/sbin)
    if(${proxy}_program)
        list(APPEND proxies_found ${proxy})
    else()
        message(STATUS "Tests behind ${proxy}: left out, it is missing")
    endif()
endforeach()

if(NOT TARGET wendrel-filedrop OR NOT TARGET wendrel-chat)
    message(STATUS "Tests behind proxies: left out, the examples are not built")
    return()
endif()

# The server that docs/websocket.md shows.
add_executable(docs_websocket_echo ${CMAKE_CURRENT_LIST_DIR}/../docs/websocket_echo.cpp)
set_target_properties(docs_websocket_echo PROPERTIES CXX_EXTENSIONS OFF)
target_link_libraries(docs_websocket_echo PRIVATE wendrel_build Wendrel::Kit)

if(NOT proxies_python OR NOT CURL_PROGRAM)
    message(STATUS "Tests behind proxies: left out, they need python3-websocket and curl")
else()
    set(script ${proxies_tests_dir}/test_proxies.py)
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${script})
    file(STRINGS ${script} lines REGEX "^class [A-Za-z]+\\(|^    def test_")
    foreach(proxy IN LISTS proxies_found)
        foreach(line IN LISTS lines)
            if(line MATCHES "^class ([A-Za-z]+)")
                set(class ${CMAKE_MATCH_1})
            elseif(line MATCHES "def (test_[a-z0-9_]+)")
                proxies_test(proxies.${proxy}.${class}.${CMAKE_MATCH_1} ${proxy}
                    ${proxies_python} ${script} ${class}.${CMAKE_MATCH_1})
            endif()
        endforeach()
    endforeach()
endif()

# The chat's page in a browser, through each proxy. scripts/install-deps.sh brings what it needs.
find_program(NODE_PROGRAM node)
if(DEFINED ENV{CHROMIUM})
    set(chat_chromium $ENV{CHROMIUM})
else()
    set(chat_chromium /usr/bin/chromium)
endif()
if(NOT NODE_PROGRAM)
    message(STATUS "Test of the chat's page: left out, node is missing")
elseif(NOT EXISTS ${chat_chromium})
    message(STATUS "Test of the chat's page: left out, there is no ${chat_chromium}; set CHROMIUM to the browser's path")
elseif(NOT EXISTS ${CMAKE_CURRENT_LIST_DIR}/filedrop/node_modules/playwright-core)
    message(STATUS "Test of the chat's page: left out, run 'npm ci' in tests/integration/filedrop")
else()
    set(script ${proxies_tests_dir}/chat.mjs)
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${script})
    file(STRINGS ${script} lines REGEX "^test\\('")
    foreach(proxy IN LISTS proxies_found)
        foreach(line IN LISTS lines)
            string(REGEX REPLACE "^test\\('([^']+)'.*" "\\1" title "${line}")
            string(REGEX REPLACE "[^a-z0-9A-Z]+" "_" name "${title}")
            proxies_test(chat.Page.${proxy}.${name} ${proxy}
                ${NODE_PROGRAM} --test --test-reporter=spec "--test-name-pattern=^${title}$" ${script})
            set_property(TEST chat.Page.${proxy}.${name} APPEND PROPERTY
                ENVIRONMENT CHROMIUM=${chat_chromium})
        endforeach()
    endforeach()
endif()
