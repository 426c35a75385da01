# Servers that are started and stopped many times in one process, in the middle of their load.
# WENDREL_RESTART_ROUNDS in the environment changes how many times.

set(restart_rounds 300)
set(restart_sanitized 0)
if(WENDREL_SANITIZE)
    set(restart_rounds 40)
    set(restart_sanitized 1)
endif()

wendrel_test_program(integration_restart
    SOURCES
        main.cpp
        support/Pattern.cpp support/ProcessCounts.cpp support/RawClient.cpp
        restarts/Clients.cpp restarts/KitRestarts.cpp restarts/LibraryRestarts.cpp
        restarts/LibraryServer.cpp restarts/ProcessState.cpp restarts/Restarts.cpp restarts/Round.cpp
    LIBRARIES Wendrel::Kit CURL::libcurl
    TIMEOUT 1800 SERIAL)
target_compile_definitions(integration_restart PRIVATE
    WENDREL_RESTART_ROUNDS=${restart_rounds} WENDREL_SANITIZED=${restart_sanitized})

# The examples, told to stop in the middle of their work. WENDREL_STOP_ROUNDS changes how many times.
if(TARGET wendrel-filedrop AND TARGET wendrel-chat)
    wendrel_python_tests(PREFIX stops
        SCRIPT ${CMAKE_CURRENT_LIST_DIR}/restarts/test_stops.py
        ENVIRONMENT WENDREL_FILEDROP=$<TARGET_FILE:wendrel-filedrop>
            WENDREL_CHAT=$<TARGET_FILE:wendrel-chat>)
else()
    message(STATUS "Tests of stopping the examples: left out, the examples are not built")
endif()
