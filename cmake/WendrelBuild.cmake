# How every target of this tree is compiled.

add_library(wendrel_build INTERFACE)
target_compile_options(wendrel_build INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Woverloaded-virtual
    # GCC 12 sees overlapping copies in plain concatenations of strings when it optimises.
    $<$<CXX_COMPILER_ID:GNU>:-Wno-restrict>
    # Which lock guards which field, as the attributes of qvSystem/ThreadSafety.h say it.
    $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>
    $<$<BOOL:${WENDREL_WERROR}>:-Werror>)
target_compile_features(wendrel_build INTERFACE cxx_std_20)

if(WENDREL_SANITIZE)
    add_compile_options(-fsanitize=${WENDREL_SANITIZE} -fno-omit-frame-pointer)
    add_link_options(-fsanitize=${WENDREL_SANITIZE})
    if(WENDREL_SANITIZE MATCHES undefined)
        add_compile_options(-fno-sanitize-recover=undefined)
        add_link_options(-fno-sanitize-recover=undefined)
    endif()
endif()

# Hardening against exploits of memory errors: checked stack frames and buffers, control-flow
# protection, read-only relocation tables. Optimised builds without sanitizers only.
set(wendrel_hardened OFF)
if(WENDREL_HARDENING AND NOT WENDREL_SANITIZE AND NOT WENDREL_COVERAGE
        AND CMAKE_BUILD_TYPE MATCHES "^(Release|RelWithDebInfo|MinSizeRel)$")
    set(wendrel_hardened ON)
    include(CheckPIESupported)
    check_pie_supported(LANGUAGES CXX)
    set(CMAKE_POSITION_INDEPENDENT_CODE ON)
    add_compile_options(-fstack-protector-strong -fcf-protection=full
        -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
    add_link_options(LINKER:-z,relro LINKER:-z,now LINKER:-z,noexecstack)
endif()

if(WENDREL_COVERAGE)
    add_compile_options(--coverage -fprofile-update=atomic)
    add_link_options(--coverage)
endif()

# Reproducible builds: archives without time and owner, and no absolute path in object files. For
# debugging set the path of the sources: set substitute-path wendrel-3.0.0 PATH. Debug builds keep the real paths.
set(CMAKE_CXX_ARCHIVE_CREATE "<CMAKE_AR> qcD <TARGET> <LINK_FLAGS> <OBJECTS>")
set(CMAKE_CXX_ARCHIVE_APPEND "<CMAKE_AR> qD <TARGET> <LINK_FLAGS> <OBJECTS>")
set(CMAKE_CXX_ARCHIVE_FINISH "<CMAKE_RANLIB> -D <TARGET>")
set(wendrel_path_maps "")
if(NOT CMAKE_BUILD_TYPE STREQUAL "Debug" AND NOT WENDREL_SANITIZE AND NOT WENDREL_COVERAGE)
    # The build's directory is often inside of that of the sources: the later map goes first.
    set(wendrel_path_maps
        -ffile-prefix-map=${PROJECT_SOURCE_DIR}=wendrel-${PROJECT_VERSION}
        -ffile-prefix-map=${CMAKE_BINARY_DIR}=wendrel-${PROJECT_VERSION}/build)
endif()

# wendrel_library_defaults(target): hidden symbols, position independent code, our warnings.
function(wendrel_library_defaults target)
    set_target_properties(${target} PROPERTIES
        CXX_VISIBILITY_PRESET hidden
        VISIBILITY_INLINES_HIDDEN ON
        POSITION_INDEPENDENT_CODE ON
        CXX_EXTENSIONS OFF
        BUILD_RPATH_USE_ORIGIN ON
        INSTALL_RPATH "$ORIGIN")  # the libraries find each other wherever they are put
    target_link_libraries(${target} PRIVATE $<BUILD_INTERFACE:wendrel_build>)
    target_compile_options(${target} PRIVATE ${wendrel_path_maps})
    # A library calls its own functions directly, and others without a stub between: nobody
    # replaces single functions of it.
    target_compile_options(${target} PRIVATE -fno-semantic-interposition -fno-plt)
    target_link_options(${target} PRIVATE
        $<$<STREQUAL:$<TARGET_PROPERTY:${target},TYPE>,SHARED_LIBRARY>:LINKER:-Bsymbolic-functions>)
    # A missing library shows here and not in the application. A sanitizer's own functions are
    # found only there.
    if(NOT WENDREL_SANITIZE)
        target_link_options(${target} PRIVATE
            $<$<STREQUAL:$<TARGET_PROPERTY:${target},TYPE>,SHARED_LIBRARY>:LINKER:-z,defs>)
    endif()
endfunction()
