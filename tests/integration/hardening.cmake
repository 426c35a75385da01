# Hardening of the built files by compiler and linker. Only optimised builds are hardened.

if(Python3_FOUND AND CMAKE_READELF AND BUILD_SHARED_LIBS AND wendrel_hardened
        AND CMAKE_EXPORT_COMPILE_COMMANDS)
    set(libraries Wendrel)
    set(with_objects wendrel_objects WendrelKit)
    if(WENDREL_BUNDLED_PLATFORM)
        list(APPEND libraries qvSystem qvOpenSSL Ostrand Quenby)
    endif()
    set(programs "")
    if(WENDREL_BUILD_EXAMPLES)
        set(programs hello wendrel-filedrop wendrel-chat)
    endif()
    set(hardened ${libraries} ${programs})
    list(REMOVE_ITEM libraries Wendrel)
    list(APPEND with_objects ${libraries} ${programs})
    list(TRANSFORM hardened REPLACE "(.+)" "$<TARGET_FILE:\\1>")
    list(TRANSFORM with_objects REPLACE "(.+)" "$<TARGET_OBJECTS:\\1>")
    add_test(NAME integration.hardening
        COMMAND Python3::Interpreter ${CMAKE_CURRENT_SOURCE_DIR}/hardening.py
            --readelf ${CMAKE_READELF} --commands ${CMAKE_BINARY_DIR}/compile_commands.json
            --files ${hardened} --objects ${with_objects}
        COMMAND_EXPAND_LISTS)
    set_tests_properties(integration.hardening PROPERTIES TIMEOUT 900)
endif()
