# Precompiled standard headers, one file of them for all targets that are compiled alike. They save time only: every
# source includes what it uses, and the clang preset builds without them.

# precompiled_headers(OWNER HEADERS <header>... [LINK library...] [PROPERTIES property value...]): a target that compiles
# the headers, with the properties by which those that use them are compiled.
function(precompiled_headers owner)
    cmake_parse_arguments(arg "" "" "HEADERS;LINK;PROPERTIES" ${ARGN})
    set(source ${CMAKE_CURRENT_BINARY_DIR}/${owner}.cpp)
    file(CONFIGURE OUTPUT ${source} CONTENT "")
    add_library(${owner} OBJECT ${source})
    if(arg_PROPERTIES)
        set_target_properties(${owner} PROPERTIES ${arg_PROPERTIES})
    endif()
    target_link_libraries(${owner} PRIVATE ${arg_LINK})
    target_precompile_headers(${owner} PRIVATE ${arg_HEADERS})
endfunction()

# The targets of a directory and those below it that compile C++.
function(targets_below directory result)
    get_property(targets DIRECTORY ${directory} PROPERTY BUILDSYSTEM_TARGETS)
    set(found "")
    foreach(target ${targets})
        get_target_property(sources ${target} SOURCES)
        if(sources MATCHES "\\.cpp")
            list(APPEND found ${target})
        endif()
    endforeach()
    get_property(rooms DIRECTORY ${directory} PROPERTY SUBDIRECTORIES)
    foreach(room ${rooms})
        targets_below(${room} below)
        list(APPEND found ${below})
    endforeach()
    set(${result} ${found} PARENT_SCOPE)
endfunction()
