# cmake -DDIRECTORY=... -P in_empty_directory.cmake -- PROGRAM ARGUMENT...
# Empties DIRECTORY, runs PROGRAM in it, and fails as it does. What it left is removed when it
# succeeded, and kept to be looked at when it did not.
set(command)
set(bSeen FALSE)
math(EXPR last "${CMAKE_ARGC} - 1")
foreach(i RANGE ${last})
    if(bSeen)
        list(APPEND command "${CMAKE_ARGV${i}}")
    elseif("${CMAKE_ARGV${i}}" STREQUAL "--")
        set(bSeen TRUE)
    endif()
endforeach()

file(REMOVE_RECURSE ${DIRECTORY})
file(MAKE_DIRECTORY ${DIRECTORY})
execute_process(COMMAND ${command} WORKING_DIRECTORY ${DIRECTORY} RESULT_VARIABLE status)
if(NOT status EQUAL 0)
    message(FATAL_ERROR "${command} ended with ${status}; what it left is in ${DIRECTORY}")
endif()
file(REMOVE_RECURSE ${DIRECTORY})
