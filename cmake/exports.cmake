# nim_exports(TARGET FILE): the shared library TARGET exports the names listed in FILE, one a line,
# and nothing else. A version script is needed beside hidden visibility, because templates of the
# C++ library are instantiated with default visibility. On Windows a module definition file does it.
function(nim_exports target file)
    if(WIN32)
        nim_module_definition(${target} ${file})
        return()
    endif()
    file(STRINGS ${file} names REGEX "^[A-Za-z_]")
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${file})
    set(script ${CMAKE_CURRENT_BINARY_DIR}/${target}.map)
    list(JOIN names ";\n    " body)
    file(CONFIGURE OUTPUT ${script} CONTENT "{\n  global:\n    ${body};\n  local:\n    *;\n};\n")
    target_link_options(${target} PRIVATE -Wl,--version-script=${script} -Wl,--no-undefined)
    set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS ${script})
endfunction()
