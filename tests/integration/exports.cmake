# The dynamic symbols and the SONAME of the built library. Sanitizers and coverage add symbols
# of their own.

find_package(Python3 COMPONENTS Interpreter)
if(Python3_FOUND AND CMAKE_NM AND CMAKE_READELF AND BUILD_SHARED_LIBS
        AND NOT WENDREL_SANITIZE AND NOT WENDREL_COVERAGE)
    add_test(NAME integration.exports
        COMMAND Python3::Interpreter ${CMAKE_CURRENT_SOURCE_DIR}/exports.py
            --nm ${CMAKE_NM} --readelf ${CMAKE_READELF} $<TARGET_FILE:Wendrel>)
    set_tests_properties(integration.exports PROPERTIES TIMEOUT 60)
endif()
