# cmake -DNATIVE=... -DNATIVE_GUIDE=... -DWINDOWS=... -DWINDOWS_GUIDE=... -DDIRECTORY=...
#       -P exchange.cmake
# Two systems, the same calls: the files are equal but for the bytes that mean nothing; each system
# opens, checks, changes and closes what the other one wrote, and the files are equal once more.
# NATIVE and WINDOWS are nimdb_exchange_test of either system (WINDOWS with its emulator ahead of
# it), the GUIDEs are examples/guide on the libraries as they are shipped.
function(run)
    execute_process(COMMAND ${ARGN} RESULT_VARIABLE status OUTPUT_VARIABLE output ERROR_VARIABLE output)
    if(NOT status EQUAL 0)
        message(FATAL_ERROR "${ARGN} ended with ${status}\n${output}")
    endif()
endfunction()

# step(PROGRAM STEP DIRECTORY...): one step of the program's test.
function(step program step)
    list(JOIN ARGN ";" directories)
    set(ENV{NIM_EXCHANGE_STEP} ${step})
    set(ENV{NIM_EXCHANGE_DIRECTORY} "${directories}")
    message(STATUS "${step} ${directories}")
    run(${${program}} --gtest_brief=1 --gtest_filter=Exchange.*)
endfunction()

file(REMOVE_RECURSE ${DIRECTORY})
set(here ${DIRECTORY}/here)
set(there ${DIRECTORY}/there)
file(MAKE_DIRECTORY ${here} ${there} ${DIRECTORY}/guide_here ${DIRECTORY}/guide_there)

step(NATIVE build ${here})
step(WINDOWS build ${there})
step(NATIVE compare ${here} ${there})

step(WINDOWS check-built ${here})
step(WINDOWS change ${here})
step(NATIVE check-built ${there})
step(NATIVE change ${there})
step(NATIVE compare ${here} ${there})

step(NATIVE check-changed ${here})
step(WINDOWS check-changed ${there})
step(NATIVE compare ${here} ${there})

# The libraries as they are shipped.
run(${NATIVE_GUIDE} ${DIRECTORY}/guide_here)
run(${WINDOWS_GUIDE} ${DIRECTORY}/guide_there)
step(NATIVE compare ${DIRECTORY}/guide_here ${DIRECTORY}/guide_there)
file(REMOVE_RECURSE ${DIRECTORY})
