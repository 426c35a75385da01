# The version stamps of the build: taken from git unless given. A source archive has them in
# cmake/stamps.cmake, which scripts/release.sh writes; a tree with neither builds too.

function(wendrel_git out default)
    execute_process(
        COMMAND git -C ${PROJECT_SOURCE_DIR} ${ARGN}
        OUTPUT_VARIABLE text OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET RESULT_VARIABLE failed)
    if(failed OR text STREQUAL "" OR NOT EXISTS ${PROJECT_SOURCE_DIR}/.git)
        set(text ${default})
    endif()
    set(${out} ${text} PARENT_SCOPE)
endfunction()

set(WENDREL_REVISION "" CACHE STRING "Revision number; empty: number of commits")
set(WENDREL_COMMIT_ID "" CACHE STRING "Commit, 16 hexadecimal digits; empty: asked of git")
set(WENDREL_BUILD_YEAR "" CACHE STRING "Year; empty: that of the commit")
set(WENDREL_BUILD_MONTH "" CACHE STRING "Month, 1 to 12; empty: that of the commit")

include(${PROJECT_SOURCE_DIR}/cmake/stamps.cmake OPTIONAL)

function(wendrel_stamp out given default)
    if(given STREQUAL "" AND DEFINED ${out}_of_archive)
        set(given ${${out}_of_archive})
    elseif(given STREQUAL "")
        wendrel_git(given "${default}" ${ARGN})
    endif()
    set(${out} ${given} PARENT_SCOPE)
endfunction()

string(TIMESTAMP wendrel_this_year "%Y" UTC)
string(TIMESTAMP wendrel_this_month "%m" UTC)
wendrel_stamp(wendrel_revision "${WENDREL_REVISION}" 0 rev-list --count HEAD)
wendrel_stamp(wendrel_commit_id "${WENDREL_COMMIT_ID}" 0000000000000000 rev-parse HEAD)
wendrel_stamp(wendrel_year "${WENDREL_BUILD_YEAR}" ${wendrel_this_year} log -1 --format=%cd --date=format:%Y)
wendrel_stamp(wendrel_month "${WENDREL_BUILD_MONTH}" ${wendrel_this_month} log -1 --format=%cd --date=format:%m)

string(SUBSTRING "${wendrel_commit_id}0000000000000000" 0 16 wendrel_commit_id)
string(TOLOWER "${wendrel_commit_id}" wendrel_commit_id)
math(EXPR wendrel_month "${wendrel_month} + 0" OUTPUT_FORMAT DECIMAL)
if(NOT wendrel_commit_id MATCHES "^[0-9a-f]+$")
    message(FATAL_ERROR "WENDREL_COMMIT_ID must be hexadecimal digits, not '${wendrel_commit_id}'")
endif()
if(NOT wendrel_revision MATCHES "^[0-9]+$")
    message(FATAL_ERROR "WENDREL_REVISION must be a decimal number, not '${wendrel_revision}'")
endif()
# To the compiler a leading zero would mean an octal number.
string(REGEX REPLACE "^0+([0-9])" "\\1" wendrel_revision "${wendrel_revision}")
string(LENGTH "${wendrel_revision}" wendrel_revision_digits)
if(wendrel_revision_digits GREATER 10 OR wendrel_revision GREATER 4294967295)
    message(FATAL_ERROR "WENDREL_REVISION must be at most 4294967295, not ${wendrel_revision}")
endif()
if(NOT wendrel_year MATCHES "^[0-9][0-9][0-9][0-9]$")
    message(FATAL_ERROR "WENDREL_BUILD_YEAR must have four digits, not '${wendrel_year}'")
endif()
if(wendrel_month LESS 1 OR wendrel_month GREATER 12)
    message(FATAL_ERROR "WENDREL_BUILD_MONTH must lie between 1 and 12")
endif()

# A build after a new commit, or after a checkout of another one, configures again: the log of HEAD
# grows then, and where git keeps none, HEAD or its branch changes.
wendrel_git(wendrel_branch "HEAD" symbolic-ref -q HEAD)
foreach(file IN ITEMS logs/HEAD HEAD ${wendrel_branch} packed-refs)
    wendrel_git(path "" rev-parse --git-path ${file})
    get_filename_component(path "${path}" ABSOLUTE BASE_DIR ${PROJECT_SOURCE_DIR})
    if(EXISTS "${path}" AND NOT IS_DIRECTORY "${path}")
        set_property(DIRECTORY ${PROJECT_SOURCE_DIR} APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS
            "${path}")
    endif()
endforeach()
