# Tests of numbers, texts, pictures and proxies of the pages, and of the HTML reference.

set(pages_dir ${CMAKE_CURRENT_LIST_DIR}/pages)

foreach(page limits errors)
    add_test(NAME docs.${page}
        COMMAND Python3::Interpreter ${pages_dir}/${page}.py ${PROJECT_SOURCE_DIR} --broken)
    set_tests_properties(docs.${page} PROPERTIES
        ENVIRONMENT PYTHONDONTWRITEBYTECODE=1 TIMEOUT 900)
    wendrel_any_build(docs.${page})
endforeach()

find_program(DOT_PROGRAM dot)
if(DOT_PROGRAM)
    add_test(NAME docs.diagrams COMMAND ${PROJECT_SOURCE_DIR}/scripts/diagrams.sh --check)
    set_tests_properties(docs.diagrams PROPERTIES TIMEOUT 900)
    wendrel_any_build(docs.diagrams)
else()
    message(STATUS "Test of the diagrams: left out, dot is missing")
endif()

find_program(DOXYGEN_PROGRAM doxygen)
if(DOXYGEN_PROGRAM)
    include(WendrelDocs)
    wendrel_configure_docs(${CMAKE_CURRENT_BINARY_DIR}/reference)
    add_test(NAME docs.reference
        COMMAND Python3::Interpreter ${pages_dir}/reference.py ${DOXYGEN_PROGRAM}
            ${CMAKE_CURRENT_BINARY_DIR}/reference/Doxyfile
            ${CMAKE_CURRENT_BINARY_DIR}/reference/html)
    set_tests_properties(docs.reference PROPERTIES
        ENVIRONMENT PYTHONDONTWRITEBYTECODE=1 TIMEOUT 900)
    wendrel_any_build(docs.reference)
else()
    message(STATUS "Test of the reference: left out, doxygen is missing")
endif()

if(TARGET hello)
    foreach(proxy nginx haproxy)
        add_test(NAME docs.rolling_restart.${proxy}
            COMMAND Python3::Interpreter ${pages_dir}/rolling_restart.py ${proxy}
                $<TARGET_FILE:hello>)
        set_tests_properties(docs.rolling_restart.${proxy} PROPERTIES
            ENVIRONMENT PYTHONDONTWRITEBYTECODE=1 SKIP_RETURN_CODE 77 TIMEOUT 900)
    endforeach()
endif()
