# Each public header compiles alone, as a consumer of C++17 sees it. How this tree is built makes
# no difference to that, so it is not repeated for sanitizers and coverage.

if(WENDREL_SANITIZE OR WENDREL_COVERAGE)
    return()
endif()

file(GLOB_RECURSE public_headers RELATIVE ${PROJECT_SOURCE_DIR} CONFIGURE_DEPENDS
    ${PROJECT_SOURCE_DIR}/include/*.h
    ${PROJECT_SOURCE_DIR}/platform/*/include/*.h
    ${PROJECT_SOURCE_DIR}/kit/include/*.h)
file(GLOB public_directories
    ${PROJECT_SOURCE_DIR}/include
    ${PROJECT_SOURCE_DIR}/platform/*/include
    ${PROJECT_SOURCE_DIR}/kit/include)
list(TRANSFORM public_directories PREPEND -I)

foreach(compiler g++ clang++)
    string(MAKE_C_IDENTIFIER ${compiler} id)
    find_program(wendrel_${id} ${compiler})
    if(NOT wendrel_${id})
        continue()
    endif()
    foreach(header IN LISTS public_headers)
        set(name integration.header.${compiler}.${header})
        add_test(NAME ${name}
            COMMAND ${wendrel_${id}} -std=c++17 -Wall -Wextra -Wpedantic -Werror -fsyntax-only
                ${public_directories} -x c++ ${PROJECT_SOURCE_DIR}/${header})
        set_tests_properties(${name} PROPERTIES TIMEOUT 900)
    endforeach()
    # The compiler names the header that is missing.
    set(name integration.header.${compiler}.missing_json)
    add_test(NAME ${name}
        COMMAND ${wendrel_${id}} -std=c++17 -fsyntax-only ${public_directories}
            ${CMAKE_CURRENT_SOURCE_DIR}/json_without_header.cpp)
    set_tests_properties(${name} PROPERTIES TIMEOUT 900
        PASS_REGULAR_EXPRESSION "static.assert[^\n]*include <Wendrel/kit/Json.h>")
endforeach()
