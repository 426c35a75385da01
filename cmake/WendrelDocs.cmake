# The documentation as HTML: the public headers, and the pages in Markdown.

include_guard(GLOBAL)

option(WENDREL_BUILD_DOCS "Build the documentation as HTML, with Doxygen" OFF)

# wendrel_configure_docs(folder): a Doxyfile there, whose output goes to <folder>/html.
function(wendrel_configure_docs folder)
    find_package(Python3 REQUIRED COMPONENTS Interpreter)
    set(wendrel_docs_output ${folder})
    set(wendrel_docs_filter ${PROJECT_SOURCE_DIR}/cmake/WendrelDocs.py)
    set(wendrel_docs_style ${PROJECT_SOURCE_DIR}/cmake/WendrelDocs.css)
    # They lie beside the pages, all in one folder.
    file(GLOB_RECURSE pictures CONFIGURE_DEPENDS
        ${PROJECT_SOURCE_DIR}/docs/*.svg ${PROJECT_SOURCE_DIR}/docs/*.png)
    list(JOIN pictures "\" \\\n                         \"" wendrel_docs_pictures)
    set(wendrel_docs_pictures "\"${wendrel_docs_pictures}\"")
    configure_file(${PROJECT_SOURCE_DIR}/docs/Doxyfile.in ${folder}/Doxyfile @ONLY)
endfunction()

if(NOT WENDREL_BUILD_DOCS)
    return()
endif()

find_package(Doxygen REQUIRED)
set(wendrel_docs_folder ${PROJECT_BINARY_DIR}/documentation)
wendrel_configure_docs(${wendrel_docs_folder})

set(wendrel_docs_sources
    include/*.h kit/include/*.h platform/*.h docs/*.md docs/*.svg docs/*.png examples/*.md)
list(TRANSFORM wendrel_docs_sources PREPEND ${PROJECT_SOURCE_DIR}/)
file(GLOB_RECURSE wendrel_docs_sources CONFIGURE_DEPENDS ${wendrel_docs_sources})
file(GLOB wendrel_docs_pages CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/*.md)

add_custom_command(OUTPUT ${wendrel_docs_folder}/html/index.html
    COMMAND ${CMAKE_COMMAND} -E rm -rf ${wendrel_docs_folder}/html
    COMMAND Doxygen::doxygen ${wendrel_docs_folder}/Doxyfile
    DEPENDS ${wendrel_docs_sources} ${wendrel_docs_pages} ${wendrel_docs_folder}/Doxyfile
        ${PROJECT_SOURCE_DIR}/cmake/WendrelDocs.py ${PROJECT_SOURCE_DIR}/cmake/WendrelDocs.css
    WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
    COMMENT "Building the documentation"
    VERBATIM)
add_custom_target(documentation ALL DEPENDS ${wendrel_docs_folder}/html/index.html)
install(DIRECTORY ${wendrel_docs_folder}/html
    DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT documentation)
