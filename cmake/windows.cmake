# What a build for Windows adds: where programs find the libraries, what the libraries say about
# themselves, and GoogleTest, which no package holds for this system.

# A program loads the DLLs that lie beside it.
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)

# nim_version_resource(TARGET DESCRIPTION): name, version and description, where the system shows
# the properties of a file.
function(nim_version_resource target description)
    set(VERSION_NAME lib${target})
    set(VERSION_DESCRIPTION "${description}")
    string(REPLACE "." "," VERSION_NUMBERS "${PROJECT_VERSION}.0")
    set(resource ${CMAKE_CURRENT_BINARY_DIR}/lib${target}.rc)
    configure_file(${PROJECT_SOURCE_DIR}/cmake/version.rc.in ${resource} @ONLY)
    target_sources(${target} PRIVATE ${resource})
    set_target_properties(${target} PROPERTIES NIM_DESCRIPTION "${description}")
endfunction()

# nim_module_definition(TARGET FILE): the exports of TARGET as listed in FILE, written to
# lib<TARGET>.def beside the DLL. It rules what the DLL exports, and other compilers make their
# import library from it. A name that begins in lower case is a variable.
function(nim_module_definition target file)
    file(STRINGS ${file} names REGEX "^[A-Za-z_]")
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${file})
    set(text "LIBRARY \"lib${target}.dll\"\nEXPORTS\n")
    foreach(name IN LISTS names)
        string(APPEND text "    ${name}")
        if(name MATCHES "^[a-z]")
            string(APPEND text " DATA")
        endif()
        string(APPEND text "\n")
    endforeach()
    set(definition ${CMAKE_BINARY_DIR}/lib${target}.def)
    file(CONFIGURE OUTPUT ${definition} CONTENT "${text}")
    target_sources(${target} PRIVATE ${definition})
    set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS ${definition})
endfunction()

# GoogleTest from its sources, under the name that its package gives it elsewhere.
function(nim_add_googletest)
    find_path(GOOGLETEST_SOURCES src/gtest-all.cc
        PATHS /usr/src/googletest/googletest NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH REQUIRED)
    add_library(gtest STATIC EXCLUDE_FROM_ALL ${GOOGLETEST_SOURCES}/src/gtest-all.cc)
    target_include_directories(gtest SYSTEM PUBLIC ${GOOGLETEST_SOURCES}/include)
    target_include_directories(gtest PRIVATE ${GOOGLETEST_SOURCES})
    target_compile_options(gtest PRIVATE -w)
    add_library(GTest::gtest ALIAS gtest)
endfunction()

# nim_runs_under_wine(TEST): the prefix and its server are there before it begins. Nothing may hang,
# but much is slow there.
function(nim_runs_under_wine test)
    set_tests_properties(${test} PROPERTIES TIMEOUT 1800)
    if(CMAKE_CROSSCOMPILING)
        set_tests_properties(${test} PROPERTIES FIXTURES_REQUIRED wine ENVIRONMENT NIM_TEST_DRIVES=1)
    endif()
endfunction()
