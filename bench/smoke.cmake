# Each server of the benchmark, in each mode, as bench/run.sh uses it.

include(${PROJECT_SOURCE_DIR}/tests/integration/script_tests.cmake)

wendrel_python_tests(PREFIX bench.smoke
    SCRIPT ${CMAKE_CURRENT_LIST_DIR}/smoke.py
    ENVIRONMENT
        BENCH_SERVER=$<TARGET_FILE:wendrel-bench-server>
        BENCH_BARE=$<TARGET_FILE:wendrel-bench-bare>
        BENCH_CIVETWEB=$<TARGET_FILE:wendrel-bench-civetweb>
        BENCH_BEAST=$<TARGET_FILE:wendrel-bench-beast>
        BENCH_LIBWEBSOCKETS=$<TARGET_FILE:wendrel-bench-libwebsockets>
        BENCH_CLIENT=$<TARGET_FILE:wendrel-bench-websocket-client>)
