# cmake -DBUILD=... -DSOURCE=... -DSTAGE=... -P install_test.cmake
# Installs the build tree BUILD under STAGE and builds SOURCE/examples/guide.c against nothing but
# what was installed: once through find_package, once through pkg-config. Runs both.
file(REMOVE_RECURSE ${STAGE})
file(MAKE_DIRECTORY ${STAGE}/host)
set(prefix ${STAGE}/installed)
function(run)
    execute_process(COMMAND ${ARGN} COMMAND_ERROR_IS_FATAL ANY)
endfunction()

run(${CMAKE_COMMAND} --install ${BUILD} --prefix ${prefix})
file(COPY ${SOURCE}/examples/guide.c DESTINATION ${STAGE}/host)
file(WRITE ${STAGE}/host/CMakeLists.txt "
cmake_minimum_required(VERSION 3.25)
project(host LANGUAGES C)
set(CMAKE_C_STANDARD 11)
set(CMAKE_C_STANDARD_REQUIRED ON)
set(CMAKE_C_EXTENSIONS OFF)
find_package(nimdb REQUIRED)
add_executable(guide guide.c)
target_link_libraries(guide PRIVATE nimdb::nimdb)
")
# With the build program of BUILD: there may be no other on this machine.
file(STRINGS ${BUILD}/CMakeCache.txt GENERATOR REGEX "^CMAKE_GENERATOR:")
string(REGEX REPLACE "^[^=]*=" "" GENERATOR "${GENERATOR}")
run(${CMAKE_COMMAND} -G "${GENERATOR}" -S ${STAGE}/host -B ${STAGE}/cmake
    -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_C_COMPILER=${COMPILER} -DCMAKE_C_FLAGS=${FLAGS})
run(${CMAKE_COMMAND} --build ${STAGE}/cmake)
file(MAKE_DIRECTORY ${STAGE}/first ${STAGE}/second)
run(${STAGE}/cmake/guide ${STAGE}/first)

file(GLOB_RECURSE description ${prefix}/*/nimdb.pc)
get_filename_component(directory ${description} DIRECTORY)
set(ENV{PKG_CONFIG_PATH} ${directory})
execute_process(
    COMMAND ${PKG_CONFIG} --cflags --libs nimdb OUTPUT_VARIABLE flags
    OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
separate_arguments(flags UNIX_COMMAND "${flags}")
get_filename_component(libraries ${directory} DIRECTORY)
run(${COMPILER} -std=c11 -Wall -Wextra -pedantic -Werror ${FLAGS} ${STAGE}/host/guide.c ${flags}
    -Wl,-rpath,${libraries} -o ${STAGE}/guide)
run(${STAGE}/guide ${STAGE}/second)
file(REMOVE_RECURSE ${STAGE})
