# Replaces links of installed pages to files that are not installed, such as sources, by their text.
# Run by `cmake --install` with
#   FOLDER  the directory of the pages
#   SOURCE  the source tree; its examples/ belong to another component
cmake_minimum_required(VERSION 3.25)

# is_installed(result page target): whether the link of a page leads to a file or folder.
function(is_installed result page target)
    get_filename_component(folder ${page} DIRECTORY)
    string(REGEX REPLACE "#.*" "" path "${target}")
    get_filename_component(path "${path}" ABSOLUTE BASE_DIR ${folder})
    file(RELATIVE_PATH relative ${FOLDER} ${path})
    if(EXISTS ${path} OR (relative MATCHES "^examples/" AND EXISTS ${SOURCE}/${relative}))
        set(${result} TRUE PARENT_SCOPE)
    else()
        set(${result} FALSE PARENT_SCOPE)
    endif()
endfunction()

# From the last link to the first: the regular expression matches the longest text before a link.
function(unlink_page page)
    file(READ ${page} left)
    set(original "${left}")
    set(done "")
    while("${left}" MATCHES "^(.*)\\[([^][]+)\\]\\(([^() ]+)\\)(.*)$")
        set(left "${CMAKE_MATCH_1}")
        set(text "${CMAKE_MATCH_2}")
        set(target "${CMAKE_MATCH_3}")
        set(rest "${CMAKE_MATCH_4}")
        set(link "[${text}](${target})")
        if(NOT target MATCHES "^([a-z]+:|#)")
            is_installed(installed ${page} "${target}")
            if(NOT installed)
                set(link "${text}")
            endif()
        endif()
        set(done "${link}${rest}${done}")
    endwhile()
    set(done "${left}${done}")
    if(NOT done STREQUAL original)
        file(WRITE ${page} "${done}")
    endif()
endfunction()

file(GLOB_RECURSE pages ${FOLDER}/*.md)
foreach(page IN LISTS pages)
    unlink_page(${page})
endforeach()
