# wendrel_link_hidden(target library): a library that only the implementation uses. A shared
# library brings it along by itself; who links a static one has to find it, see WendrelConfig.

function(wendrel_link_hidden target library)
    if(BUILD_SHARED_LIBS)
        target_link_libraries(${target} PRIVATE $<BUILD_INTERFACE:${library}>)
    else()
        target_link_libraries(${target} PRIVATE ${library})
    endif()
endfunction()
