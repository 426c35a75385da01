# Clients that others wrote against a server that echoes: each test method is a ctest test.

set(websocket_tests_dir ${CMAKE_CURRENT_LIST_DIR}/websocket)

add_executable(websocket_echo_server websocket/echo_server.cpp)
set_target_properties(websocket_echo_server PROPERTIES CXX_EXTENSIONS OFF)
target_link_libraries(websocket_echo_server PRIVATE wendrel_build Wendrel::Wendrel)

# websocket_client_tests(class client...): the tests of this class, with this client.
function(websocket_client_tests class)
    set(script ${websocket_tests_dir}/test_websocket.py)
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${script})
    list(JOIN ARGN "|" client)
    file(STRINGS ${script} lines REGEX "^class [A-Za-z]+\\(|^    def test_")
    foreach(line IN LISTS lines)
        if(line MATCHES "^class ([A-Za-z]+)")
            set(current ${CMAKE_MATCH_1})
        elseif(current STREQUAL class AND line MATCHES "def (test_[a-z0-9_]+)")
            set(test websocket.${class}.${CMAKE_MATCH_1})
            add_test(NAME ${test}
                COMMAND Python3::Interpreter ${script} ${class}.${CMAKE_MATCH_1}
                WORKING_DIRECTORY ${websocket_tests_dir})
            set_tests_properties(${test} PROPERTIES
                ENVIRONMENT "WENDREL_ECHO_SERVER=$<TARGET_FILE:websocket_echo_server>;WENDREL_WEBSOCKET_CLIENT=${client};PYTHONDONTWRITEBYTECODE=1"
                TIMEOUT 600)
        endif()
    endforeach()
endfunction()

websocket_client_tests(Server)

find_package(Boost 1.81 QUIET)
if(Boost_FOUND AND EXISTS ${Boost_INCLUDE_DIRS}/boost/beast/websocket.hpp)
    add_executable(websocket_beast_client websocket/beast_client.cpp)
    set_target_properties(websocket_beast_client PROPERTIES CXX_EXTENSIONS OFF)
    target_link_libraries(websocket_beast_client
        PRIVATE wendrel_build Boost::headers Threads::Threads)
    # It has one thread, and ThreadSanitizer does not know the fences that Asio would use.
    target_compile_definitions(websocket_beast_client PRIVATE BOOST_ASIO_DISABLE_THREADS)
    websocket_client_tests(Beast $<TARGET_FILE:websocket_beast_client>)
else()
    message(STATUS "Tests of WebSockets with Boost.Beast: left out, its headers are missing")
endif()

find_program(NODE_PROGRAM node)
if(NOT NODE_PROGRAM)
    message(STATUS "Tests of WebSockets with ws: left out, node is missing")
elseif(NOT EXISTS ${websocket_tests_dir}/node_modules/ws)
    message(STATUS "Tests of WebSockets with ws: left out, run 'npm ci' in tests/integration/websocket")
else()
    websocket_client_tests(Ws ${NODE_PROGRAM} ${websocket_tests_dir}/ws_client.mjs)
endif()

# Debian's package is for Debian's interpreter, which need not be the first one found.
foreach(interpreter IN ITEMS ${Python3_EXECUTABLE} /usr/bin/python3)
    execute_process(
        COMMAND ${interpreter} -c "from websocket import WebSocket, ABNF, _handshake; _handshake._get_handshake_headers"
        RESULT_VARIABLE result OUTPUT_QUIET ERROR_QUIET)
    if(result EQUAL 0)
        set(websocket_python ${interpreter})
        break()
    endif()
endforeach()
if(websocket_python)
    websocket_client_tests(Python ${websocket_python} ${websocket_tests_dir}/python_client.py)
else()
    message(STATUS "Tests of WebSockets with python3-websocket: left out, it is missing")
endif()
