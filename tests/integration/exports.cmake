# The dynamic symbols and the SONAMEs of the built libraries. Sanitizers and coverage add symbols
# of their own.

find_package(Python3 COMPONENTS Interpreter)
if(Python3_FOUND AND CMAKE_NM AND CMAKE_READELF AND BUILD_SHARED_LIBS
        AND NOT WENDREL_SANITIZE AND NOT WENDREL_COVERAGE)
    set(libraries $<TARGET_FILE:Wendrel>)
    get_property(platform GLOBAL PROPERTY WENDREL_PLATFORM_TARGETS)
    foreach(name IN LISTS platform)
        list(APPEND libraries $<TARGET_FILE:${name}>)
    endforeach()
    add_test(NAME integration.exports
        COMMAND Python3::Interpreter ${CMAKE_CURRENT_SOURCE_DIR}/exports.py
            --nm ${CMAKE_NM} --readelf ${CMAKE_READELF} check ${libraries})
    set_tests_properties(integration.exports PROPERTIES TIMEOUT 900)
endif()
