# What only Windows has to prove, and what has to be there for any test to run: included by the list
# of tests when that is the system built for.

if(CMAKE_CROSSCOMPILING)
    set(prefix ${CMAKE_BINARY_DIR}/wine)
    add_test(NAME wine_start COMMAND ${PROJECT_SOURCE_DIR}/cmake/wine_prefix.sh start ${prefix})
    add_test(NAME wine_stop COMMAND ${PROJECT_SOURCE_DIR}/cmake/wine_prefix.sh stop ${prefix})
    set_tests_properties(wine_start PROPERTIES FIXTURES_SETUP wine TIMEOUT 300)
    set_tests_properties(wine_stop PROPERTIES FIXTURES_CLEANUP wine TIMEOUT 60)
endif()
nim_runs_under_wine(api_test 600)
nim_runs_under_wine(guide 600)

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
