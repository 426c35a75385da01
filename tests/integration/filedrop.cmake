# filedrop end to end: each test method is a ctest test, run by python3 with curl as client.

set(filedrop_tests_dir ${CMAKE_CURRENT_LIST_DIR}/filedrop)
find_program(CURL_PROGRAM curl)
find_package(Python3 COMPONENTS Interpreter)

# filedrop_test(name command...): one test against the built server.
function(filedrop_test name)
    set(sanitized 0)
    if(WENDREL_SANITIZE)
        set(sanitized 1)
    endif()
    add_test(NAME ${name} COMMAND ${ARGN} WORKING_DIRECTORY ${filedrop_tests_dir})
    set_tests_properties(${name} PROPERTIES
        ENVIRONMENT "WENDREL_FILEDROP=$<TARGET_FILE:wendrel-filedrop>;WENDREL_SANITIZED=${sanitized};PYTHONDONTWRITEBYTECODE=1"
        SKIP_RETURN_CODE 77
        TIMEOUT 600)
endfunction()

if(NOT TARGET wendrel-filedrop)
    message(STATUS "Tests of filedrop: left out, the examples are not built")
elseif(NOT Python3_FOUND OR NOT CURL_PROGRAM)
    message(STATUS "Tests of filedrop: left out, they need python3 and curl")
else()
    set(script ${filedrop_tests_dir}/test_filedrop.py)
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${script})
    file(STRINGS ${script} lines REGEX "^class [A-Za-z]+\\(|^    def test_")
    foreach(line IN LISTS lines)
        if(line MATCHES "^class ([A-Za-z]+)")
            set(class ${CMAKE_MATCH_1})
        elseif(line MATCHES "def (test_[a-z0-9_]+)")
            filedrop_test(filedrop.${class}.${CMAKE_MATCH_1}
                ${Python3_EXECUTABLE} ${script} ${class}.${CMAKE_MATCH_1})
        endif()
    endforeach()
    # These measure memory or keep both cores busy.
    set_tests_properties(
        filedrop.Transfers.test_large_file_up_and_down_in_constant_memory
        filedrop.Transfers.test_large_chunked_upload_in_constant_memory
        filedrop.Transfers.test_fifty_parallel_transfers
        PROPERTIES RUN_SERIAL ON)
endif()

# The page in a browser. scripts/install-deps.sh brings what it needs.
find_program(NODE_PROGRAM node)
if(DEFINED ENV{CHROMIUM})
    set(filedrop_chromium $ENV{CHROMIUM})
else()
    set(filedrop_chromium /usr/bin/chromium)
endif()
set(filedrop_playwright ${filedrop_tests_dir}/node_modules/playwright-core)
if(NOT TARGET wendrel-filedrop)
    message(STATUS "Test of filedrop's page: left out, the examples are not built")
elseif(NOT NODE_PROGRAM)
    message(STATUS "Test of filedrop's page: left out, node is missing")
elseif(NOT EXISTS ${filedrop_chromium})
    message(STATUS "Test of filedrop's page: left out, there is no ${filedrop_chromium}; set CHROMIUM to the browser's path")
elseif(NOT EXISTS ${filedrop_playwright})
    message(STATUS "Test of filedrop's page: left out, run 'npm ci' in tests/integration/filedrop")
else()
    set(script ${filedrop_tests_dir}/page.mjs)
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${script})
    file(STRINGS ${script} lines REGEX "^test\\('")
    foreach(line IN LISTS lines)
        string(REGEX REPLACE "^test\\('([^']+)'.*" "\\1" title "${line}")
        string(REGEX REPLACE "[^a-z0-9A-Z]+" "_" name "${title}")
        filedrop_test(filedrop.Page.${name}
            ${NODE_PROGRAM} --test --test-reporter=spec "--test-name-pattern=^${title}$" ${script})
        set_property(TEST filedrop.Page.${name} APPEND PROPERTY
            ENVIRONMENT CHROMIUM=${filedrop_chromium})
    endforeach()
endif()
