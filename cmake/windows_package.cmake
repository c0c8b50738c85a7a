# cmake -DBUILD=... -DSOURCE=... -DZIP=... -P windows_package.cmake
# Packs what Windows users get, from the build tree BUILD into ZIP, and uses it as they do: unpacks
# it, runs its example in a Wine prefix that has seen nothing, builds the example from it with its
# import libraries, with those made from its module definitions, and through find_package, and runs
# what was built.
set(stage ${BUILD}/package)
set(name nimdb-windows)
file(REMOVE_RECURSE ${stage})
file(MAKE_DIRECTORY ${stage})
function(run)
    execute_process(COMMAND ${ARGN} RESULT_VARIABLE status OUTPUT_VARIABLE output ERROR_VARIABLE output)
    if(NOT status EQUAL 0)
        message(FATAL_ERROR "${ARGN} ended with ${status}\n${output}")
    endif()
endfunction()

# ---- pack --------------------------------------------------------------------------------------

set(tree ${stage}/${name})
run(${CMAKE_COMMAND} --install ${BUILD} --prefix ${tree})
file(COPY ${BUILD}/bin/guide.exe DESTINATION ${tree}/bin)
file(COPY ${SOURCE}/examples/guide.c DESTINATION ${tree}/examples)
file(COPY ${SOURCE}/doc/guide.md ${SOURCE}/doc/file-formats.md DESTINATION ${tree}/doc)
foreach(file bin/libnim.dll bin/libnimdb.dll bin/guide.exe lib/libnim.dll.a lib/libnimdb.dll.a
        lib/libnim.def lib/libnimdb.def include/nim/nim.h include/database/index.h)
    if(NOT EXISTS ${tree}/${file})
        message(FATAL_ERROR "${file} is not in the package")
    endif()
endforeach()
file(REMOVE ${ZIP})
execute_process(
    COMMAND ${CMAKE_COMMAND} -E tar cf ${ZIP} --format=zip ${name}
    WORKING_DIRECTORY ${stage} COMMAND_ERROR_IS_FATAL ANY)

# ---- use it ------------------------------------------------------------------------------------

set(host ${stage}/host)
file(ARCHIVE_EXTRACT INPUT ${ZIP} DESTINATION ${host})
set(product ${host}/${name})
set(prefix ${host}/wine)
file(MAKE_DIRECTORY ${prefix})
set(ENV{WINEPREFIX} ${prefix})
set(ENV{WINEDEBUG} -all)
set(ENV{WINEDLLOVERRIDES} "mscoree,mshtml=")

# run_guide(PROGRAM): in a directory of its own. Its output goes to files, since what Wine leaves
# running would keep a pipe open.
function(run_guide program)
    get_filename_component(place ${program} NAME_WE)
    set(place ${host}/run_${place})
    file(MAKE_DIRECTORY ${place})
    execute_process(
        COMMAND wine ${program} WORKING_DIRECTORY ${place} TIMEOUT 300
        RESULT_VARIABLE status OUTPUT_FILE ${place}/output ERROR_FILE ${place}/errors)
    if(NOT status EQUAL 0)
        file(READ ${place}/output output)
        file(READ ${place}/errors errors)
        message(FATAL_ERROR "${program} ended with ${status}\n${output}${errors}")
    endif()
    if(NOT EXISTS ${place}/db/library/Indexes/Books)
        message(FATAL_ERROR "${program} left no table")
    endif()
endfunction()

set(compile x86_64-w64-mingw32-gcc-posix -std=c11 -Wall -Wextra -pedantic -Werror
    -I${product}/include ${product}/examples/guide.c)
run_guide(${product}/bin/guide.exe)

run(${compile} -L${product}/lib -lnimdb -lnim -o ${product}/bin/guide_import.exe)
run_guide(${product}/bin/guide_import.exe)

foreach(library nim nimdb)
    run(x86_64-w64-mingw32-dlltool -d ${product}/lib/lib${library}.def -l ${host}/${library}.lib)
endforeach()
run(${compile} ${host}/nimdb.lib ${host}/nim.lib -o ${product}/bin/guide_definition.exe)
run_guide(${product}/bin/guide_definition.exe)

file(WRITE ${host}/CMakeLists.txt "
cmake_minimum_required(VERSION 3.25)
project(host LANGUAGES C)
find_package(nimdb REQUIRED)
add_executable(guide_package ${product}/examples/guide.c)
target_link_libraries(guide_package PRIVATE nimdb::nimdb)
set_target_properties(guide_package PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${product}/bin)
")
run(${CMAKE_COMMAND} -S ${host} -B ${host}/build -G Ninja
    -DCMAKE_TOOLCHAIN_FILE=${SOURCE}/cmake/mingw-w64.cmake
    -Dnimdb_DIR=${product}/lib/cmake/nimdb)
run(${CMAKE_COMMAND} --build ${host}/build)
run_guide(${product}/bin/guide_package.exe)

execute_process(COMMAND wineserver -k OUTPUT_QUIET ERROR_QUIET)
execute_process(COMMAND wineserver -w OUTPUT_QUIET ERROR_QUIET)
file(REMOVE_RECURSE ${stage})
message(STATUS "${ZIP}: its example runs as packed, and built from the package in 3 ways")
