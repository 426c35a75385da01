# Clients that others wrote against a server that echoes.

set(websocket_tests_dir ${CMAKE_CURRENT_LIST_DIR}/websocket)

add_executable(websocket_echo_server websocket/echo_server.cpp)
set_target_properties(websocket_echo_server PROPERTIES CXX_EXTENSIONS OFF)
target_link_libraries(websocket_echo_server PRIVATE
    wendrel_build Wendrel::Wendrel wendrel_test_support)

# websocket_client_tests(class client...): the tests of this class, with this client.
function(websocket_client_tests class)
    list(JOIN ARGN "|" client)
    wendrel_python_tests(PREFIX websocket
        SCRIPT ${websocket_tests_dir}/test_websocket.py
        CLASS ${class}
        ENVIRONMENT WENDREL_ECHO_SERVER=$<TARGET_FILE:websocket_echo_server>
            WENDREL_WEBSOCKET_CLIENT=${client})
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

if(NOT NODE_PROGRAM)
    message(STATUS "Tests of WebSockets with ws: left out, node is missing")
elseif(NOT EXISTS ${websocket_tests_dir}/node_modules/ws)
    message(STATUS "Tests of WebSockets with ws: left out, run 'npm ci' in tests/integration/websocket")
else()
    websocket_client_tests(Ws ${NODE_PROGRAM} ${websocket_tests_dir}/ws_client.mjs)
endif()

find_python_that(websocket_python
    "from websocket import WebSocket, ABNF, _handshake; _handshake._get_handshake_headers")
if(websocket_python)
    websocket_client_tests(Python ${websocket_python} ${websocket_tests_dir}/python_client.py)
else()
    message(STATUS "Tests of WebSockets with python3-websocket: left out, it is missing")
endif()

# The same clients against the kit's sessions.
add_executable(websocket_session_server websocket/session_server.cpp)
set_target_properties(websocket_session_server PROPERTIES CXX_EXTENSIONS OFF)
target_link_libraries(websocket_session_server PRIVATE
    wendrel_build Wendrel::Kit wendrel_test_support)

# websocket_session_tests(class client...): the tests of this class, with this client.
function(websocket_session_tests class)
    list(JOIN ARGN "|" client)
    wendrel_python_tests(PREFIX websocket_sessions
        SCRIPT ${websocket_tests_dir}/test_sessions.py
        CLASS ${class}
        ENVIRONMENT WENDREL_ECHO_SERVER=$<TARGET_FILE:websocket_session_server>
            WENDREL_WEBSOCKET_CLIENT=${client} CHROMIUM=${chromium})
endfunction()

websocket_session_tests(Server)
if(TARGET websocket_beast_client)
    websocket_session_tests(Beast $<TARGET_FILE:websocket_beast_client>)
endif()
if(NODE_PROGRAM AND EXISTS ${websocket_tests_dir}/node_modules/ws)
    websocket_session_tests(Ws ${NODE_PROGRAM} ${websocket_tests_dir}/ws_client.mjs)
endif()
if(websocket_python)
    websocket_session_tests(Python ${websocket_python} ${websocket_tests_dir}/python_client.py)
endif()
foreach(package Websockets Aiohttp)
    string(TOLOWER ${package} module)
    find_python_that(${module}_python "import ${module}, websocket")
    if(${module}_python)
        websocket_session_tests(${package} ${${module}_python}
            ${websocket_tests_dir}/async_client.py ${module})
    else()
        message(STATUS "Tests of WebSocket sessions with python3-${module}: left out, it is missing")
    endif()
endforeach()
if(EXISTS ${chromium})
    websocket_session_tests(Browser)
else()
    message(STATUS "Tests of WebSocket sessions with a browser: left out, there is no ${chromium}")
endif()

# Generated cases of the protocol.
foreach(class Framing Control Fragmentation Unicode Close Limits Deflate)
    wendrel_python_tests(PREFIX websocket_conformance
        SCRIPT ${websocket_tests_dir}/conformance.py
        CLASS ${class}
        TIMEOUT 900
        ENVIRONMENT WENDREL_ECHO_SERVER=$<TARGET_FILE:websocket_session_server>)
endforeach()
# Many messages of each size, fewer of them in instrumented builds.
set(websocket_messages 1000)
if(WENDREL_SANITIZE)
    set(websocket_messages 30)
endif()
wendrel_python_tests(PREFIX websocket_conformance
    SCRIPT ${websocket_tests_dir}/conformance.py
    CLASS Volume
    TIMEOUT 1800
    ENVIRONMENT WENDREL_ECHO_SERVER=$<TARGET_FILE:websocket_session_server>
        WENDREL_CONFORMANCE_MESSAGES=${websocket_messages})
