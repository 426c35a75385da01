# A static object of an application initialises the library, which is an archive as in a static
# build; tests/package/static.py does the same with everything static.

add_library(wendrel_archive STATIC $<TARGET_OBJECTS:wendrel_objects>)
set_target_properties(wendrel_archive PROPERTIES LINKER_LANGUAGE CXX)
add_executable(early_initialisation ${PROJECT_SOURCE_DIR}/tests/package/early_initialisation.cpp)
set_target_properties(early_initialisation PROPERTIES CXX_EXTENSIONS OFF)
target_include_directories(early_initialisation PRIVATE ${PROJECT_SOURCE_DIR}/include)
target_link_libraries(early_initialisation PRIVATE
    wendrel_build wendrel_archive Wendrel::qvSystem Wendrel::qvOpenSSL Wendrel::Ostrand
    Wendrel::Quenby PkgConfig::MICROHTTPD)
add_test(NAME integration.early_initialisation COMMAND early_initialisation)
set_tests_properties(integration.early_initialisation PROPERTIES TIMEOUT 900)
