# What only Windows has to prove, and what has to be there for any test to run: included by the list
# of tests when that is the system built for.

if(CMAKE_CROSSCOMPILING)
    set(prefix ${CMAKE_BINARY_DIR}/wine)
    add_test(NAME wine_start COMMAND ${PROJECT_SOURCE_DIR}/cmake/wine_prefix.sh start ${prefix})
    add_test(NAME wine_stop COMMAND ${PROJECT_SOURCE_DIR}/cmake/wine_prefix.sh stop ${prefix})
    set_tests_properties(wine_start PROPERTIES FIXTURES_SETUP wine TIMEOUT 300)
    set_tests_properties(wine_stop PROPERTIES FIXTURES_CLEANUP wine TIMEOUT 60)
endif()
nim_runs_under_wine(api_test)
nim_runs_under_wine(guide)

# ---- the DLLs: names, needs, version -----------------------------------------------------------

set(needs_nim KERNEL32.dll,msvcrt.dll)
set(needs_nimdb ${needs_nim},libnim.dll)
foreach(library nim nimdb)
    set(check ${CMAKE_COMMAND} -DOBJDUMP=${CMAKE_OBJDUMP} -DLIBRARY=$<TARGET_FILE:${library}>)
    set(script -P ${PROJECT_SOURCE_DIR}/cmake/check_dll.cmake)
    get_target_property(directory ${library} SOURCE_DIR)
    get_target_property(description ${library} NIM_DESCRIPTION)
    add_test(NAME ${library}_exports COMMAND ${check} -DNAMES=${directory}/exports.txt ${script})
    add_test(NAME ${library}_imports COMMAND ${check} -DIMPORTS=${needs_${library}} ${script})
    add_test(NAME ${library}_version COMMAND ${check}
        -DVERSION=${PROJECT_VERSION} -DDESCRIPTION=${description} ${script})
endforeach()

# ---- drives, paths, names, sharing, views ------------------------------------------------------

nim_test_program(windows_test 1
    support/main.cpp
    support/tree_check.cpp
    windows/drives_test.cpp
    windows/cluster_test.cpp
    windows/paths_test.cpp
    windows/names_test.cpp
    windows/sharing_test.cpp
    windows/mapping_test.cpp
)
target_include_directories(windows_test PRIVATE ${PROJECT_SOURCE_DIR}/base/library)
target_link_libraries(windows_test PRIVATE nimdb_test_objects nim_test_objects)

# ---- the same files on both systems ------------------------------------------------------------

if(CMAKE_CROSSCOMPILING)
    # The same sources for the system that builds, as far as they are needed here.
    include(ExternalProject)
    ExternalProject_Add(native
        SOURCE_DIR ${PROJECT_SOURCE_DIR}
        PREFIX ${CMAKE_BINARY_DIR}/native
        BINARY_DIR ${CMAKE_BINARY_DIR}/native/build
        CMAKE_ARGS -DCMAKE_BUILD_TYPE=Release -DNIM_BENCHMARKS=OFF
        BUILD_COMMAND ${CMAKE_COMMAND} --build <BINARY_DIR> --target nimdb_exchange_test guide
        INSTALL_COMMAND ""
        BUILD_ALWAYS ON
        USES_TERMINAL_BUILD ON)
    set(native ${CMAKE_BINARY_DIR}/native/build)
    # Lists would be split on their way through the command line.
    string(REPLACE ";" "$<SEMICOLON>" emulator "${CMAKE_CROSSCOMPILING_EMULATOR}")
    add_test(NAME exchange COMMAND ${CMAKE_COMMAND}
        -DNATIVE=${native}/base/test/nimdb_exchange_test
        -DNATIVE_GUIDE=${native}/examples/guide
        "-DWINDOWS=${emulator}$<SEMICOLON>$<TARGET_FILE:nimdb_exchange_test>"
        "-DWINDOWS_GUIDE=${emulator}$<SEMICOLON>$<TARGET_FILE:guide>"
        -DDIRECTORY=${CMAKE_CURRENT_BINARY_DIR}/exchange
        -P ${CMAKE_CURRENT_SOURCE_DIR}/windows/exchange.cmake)
    nim_runs_under_wine(exchange)
endif()
