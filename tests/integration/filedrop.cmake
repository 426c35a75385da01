# filedrop end to end, with curl as client and in a browser.

if(NOT TARGET wendrel-filedrop)
    message(STATUS "Tests of filedrop: left out, the examples are not built")
    return()
endif()
set(filedrop_tests_dir ${CMAKE_CURRENT_LIST_DIR}/filedrop)
set(filedrop_environment WENDREL_FILEDROP=$<TARGET_FILE:wendrel-filedrop>)

if(NOT Python3_FOUND OR NOT CURL_PROGRAM)
    message(STATUS "Tests of filedrop: left out, they need python3 and curl")
else()
    wendrel_python_tests(PREFIX filedrop
        SCRIPT ${filedrop_tests_dir}/test_filedrop.py
        ENVIRONMENT ${filedrop_environment})
    # These need gigabytes of disk or keep both cores busy.
    set_tests_properties(
        filedrop.Transfers.test_large_file_down_in_constant_memory
        filedrop.Transfers.test_large_file_up_in_constant_memory
        filedrop.Transfers.test_fifty_parallel_downloads_in_bounded_memory
        filedrop.Transfers.test_fifty_parallel_transfers
        PROPERTIES RUN_SERIAL ON)
endif()

# filedrop as a service of systemd. WENDREL_SERVICE_RESTARTS changes how often it is restarted.
wendrel_python_tests(PREFIX service
    SCRIPT ${CMAKE_CURRENT_LIST_DIR}/service/test_service.py
    ENVIRONMENT ${filedrop_environment})

if(browser_lacks)
    message(STATUS "Test of filedrop's page: left out, ${browser_lacks}")
else()
    wendrel_browser_tests(PREFIX filedrop.Page
        SCRIPT ${filedrop_tests_dir}/page.mjs
        ENVIRONMENT ${filedrop_environment})
    wendrel_browser_tests(PREFIX filedrop.Page.secure
        SCRIPT ${filedrop_tests_dir}/page.mjs
        EXCEPT "through a proxy"
        ENVIRONMENT ${filedrop_environment} WENDREL_TLS=1)
endif()
