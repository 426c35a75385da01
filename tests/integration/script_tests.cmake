# Tests of scripts, one ctest test for each, and their requirements.

find_package(Python3 COMPONENTS Interpreter)
find_program(CURL_PROGRAM curl)
find_program(NODE_PROGRAM node)

# Missing requirements of tests with a browser; scripts/install-deps.sh installs them.
if(DEFINED ENV{CHROMIUM})
    set(chromium $ENV{CHROMIUM})
else()
    set(chromium /usr/bin/chromium)
endif()
set(browser_lacks "")
if(NOT NODE_PROGRAM)
    set(browser_lacks "node is missing")
elseif(NOT EXISTS ${chromium})
    set(browser_lacks "there is no ${chromium}; set CHROMIUM to the browser's path")
elseif(NOT EXISTS ${CMAKE_CURRENT_LIST_DIR}/filedrop/node_modules/playwright-core)
    set(browser_lacks "run 'npm ci' in tests/integration/filedrop")
endif()

# find_python_that(result statement): the interpreter that can run this statement, or nothing.
# Debian's packages are for Debian's interpreter, which need not be the first one found.
function(find_python_that result statement)
    set(${result} "" PARENT_SCOPE)
    foreach(interpreter IN ITEMS ${Python3_EXECUTABLE} /usr/bin/python3)
        execute_process(COMMAND ${interpreter} -c ${statement}
            RESULT_VARIABLE code OUTPUT_QUIET ERROR_QUIET)
        if(code EQUAL 0)
            set(${result} ${interpreter} PARENT_SCOPE)
            return()
        endif()
    endforeach()
endfunction()

# wendrel_script_test(name script timeout environment command...): one test out of a script.
function(wendrel_script_test name script timeout environment)
    set(sanitized 0)
    if(WENDREL_SANITIZE)
        set(sanitized 1)
    endif()
    get_filename_component(directory ${script} DIRECTORY)
    add_test(NAME ${name} COMMAND ${ARGN} WORKING_DIRECTORY ${directory})
    set_tests_properties(${name} PROPERTIES
        ENVIRONMENT "${environment};WENDREL_SANITIZED=${sanitized};PYTHONDONTWRITEBYTECODE=1"
        SKIP_RETURN_CODE 77
        TIMEOUT ${timeout})
endfunction()

# wendrel_python_tests(PREFIX name SCRIPT file ENVIRONMENT variable=value...
#     [PYTHON interpreter] [CLASS name] [TIMEOUT seconds] [ANY_BUILD]):
# the test methods of a script, or those of one class in it, as <prefix>.<class>.<method>. ANY_BUILD:
# see wendrel_any_build.
function(wendrel_python_tests)
    cmake_parse_arguments(PARSE_ARGV 0 arg "ANY_BUILD" "PREFIX;SCRIPT;PYTHON;CLASS;TIMEOUT"
        "ENVIRONMENT")
    if(NOT arg_PYTHON)
        set(arg_PYTHON Python3::Interpreter)
    endif()
    if(NOT arg_TIMEOUT)
        set(arg_TIMEOUT 900)
    endif()
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${arg_SCRIPT})
    file(STRINGS ${arg_SCRIPT} lines REGEX "^class [A-Za-z]+\\(|^    def test_")
    foreach(line IN LISTS lines)
        if(line MATCHES "^class ([A-Za-z]+)")
            set(class ${CMAKE_MATCH_1})
        elseif(line MATCHES "def (test_[a-z0-9_]+)")
            set(test ${class}.${CMAKE_MATCH_1})
            if(NOT arg_CLASS OR class STREQUAL arg_CLASS)
                wendrel_script_test(${arg_PREFIX}.${test} ${arg_SCRIPT} ${arg_TIMEOUT}
                    "${arg_ENVIRONMENT}" ${arg_PYTHON} ${arg_SCRIPT} ${test})
                if(arg_ANY_BUILD)
                    wendrel_any_build(${arg_PREFIX}.${test})
                endif()
            endif()
        endif()
    endforeach()
endfunction()

# wendrel_browser_tests(PREFIX name SCRIPT file ENVIRONMENT variable=value... [TIMEOUT seconds]
#     [EXCEPT regex]):
# the tests of a script for node, as <prefix>.<title in which _ stands for all but letters and digits>.
function(wendrel_browser_tests)
    cmake_parse_arguments(PARSE_ARGV 0 arg "" "PREFIX;SCRIPT;TIMEOUT;EXCEPT" "ENVIRONMENT")
    if(NOT arg_TIMEOUT)
        set(arg_TIMEOUT 900)
    endif()
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${arg_SCRIPT})
    file(STRINGS ${arg_SCRIPT} lines REGEX "^test\\('")
    if(arg_EXCEPT)
        list(FILTER lines EXCLUDE REGEX "${arg_EXCEPT}")
    endif()
    foreach(line IN LISTS lines)
        string(REGEX REPLACE "^test\\('([^']+)'.*" "\\1" title "${line}")
        string(REGEX REPLACE "[^a-z0-9A-Z]+" "_" name "${title}")
        wendrel_script_test(${arg_PREFIX}.${name} ${arg_SCRIPT} ${arg_TIMEOUT}
            "${arg_ENVIRONMENT};CHROMIUM=${chromium}"
            ${NODE_PROGRAM} --test --test-reporter=spec "--test-name-pattern=^${title}$" ${arg_SCRIPT})
    endforeach()
endfunction()
