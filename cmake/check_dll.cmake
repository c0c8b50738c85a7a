# cmake -DOBJDUMP=... -DLIBRARY=... -DNAMES=... -P check_dll.cmake
#   fails unless LIBRARY exports exactly the names listed in the file NAMES, undecorated
# cmake -DOBJDUMP=... -DLIBRARY=... -DIMPORTS=a.dll,b.dll -P check_dll.cmake
#   fails unless LIBRARY needs exactly these DLLs
# cmake -DOBJDUMP=... -DLIBRARY=... -DVERSION=... -DDESCRIPTION=... -P check_dll.cmake
#   fails unless the version resource of LIBRARY says so
if(DEFINED VERSION)
    execute_process(
        COMMAND ${OBJDUMP} -s -j .rsrc ${LIBRARY}
        OUTPUT_VARIABLE output COMMAND_ERROR_IS_FATAL ANY)
    # The bytes in hexadecimal, out of the lines " address 11111111 22222222 33333333 44444444  text".
    string(REGEX MATCHALL "\n [0-9a-f]+ [0-9a-f ]+" lines "${output}")
    set(bytes "")
    foreach(line IN LISTS lines)
        string(REGEX REPLACE "^\n [0-9a-f]+ " "" line "${line}")
        string(REGEX REPLACE "  .*" "" line "${line}")
        string(REPLACE " " "" line "${line}")
        string(APPEND bytes "${line}")
    endforeach()
    get_filename_component(name ${LIBRARY} NAME_WE)
    foreach(pair "FileDescription=${DESCRIPTION}" "FileVersion=${VERSION}" "InternalName=${name}"
            "OriginalFilename=${name}.dll" "ProductVersion=${VERSION}")
        string(REGEX REPLACE "=.*" "" key "${pair}")
        string(REGEX REPLACE "^[^=]*=" "" value "${pair}")
        # UTF-16 with its NUL; between key and value there may be padding.
        foreach(text key value)
            string(HEX "${${text}}" ${text})
            string(REGEX REPLACE "(..)" "\\100" ${text} "${${text}}")
        endforeach()
        if(NOT bytes MATCHES "${key}0000(0000)?${value}0000")
            message(FATAL_ERROR "the version resource of ${LIBRARY} does not say ${pair}")
        endif()
    endforeach()
    message(STATUS "${LIBRARY}: version ${VERSION}, ${DESCRIPTION}")
    return()
endif()

execute_process(
    COMMAND ${OBJDUMP} -p ${LIBRARY} OUTPUT_VARIABLE output COMMAND_ERROR_IS_FATAL ANY)
if(DEFINED IMPORTS)
    string(REPLACE "," ";" wanted "${IMPORTS}")
    string(REGEX MATCHALL "DLL Name: [^\n]+" lines "${output}")
    set(found ${lines})
    list(TRANSFORM found REPLACE "DLL Name: " "")
    list(REMOVE_DUPLICATES found)
    set(what "imports")
else()
    file(STRINGS ${NAMES} wanted REGEX "^[A-Za-z_]")
    # "[   0] name" in the table of names; the table of addresses has "+base" there.
    string(REGEX MATCHALL "\n\t\\[ *[0-9]+\\] [^+\n]+" lines "${output}")
    set(found)
    foreach(line IN LISTS lines)
        string(REGEX REPLACE "^.*\\] " "" name "${line}")
        list(APPEND found "${name}")
    endforeach()
    set(what "exports")
endif()
if(NOT found OR NOT wanted)
    message(FATAL_ERROR "no ${what} found in ${LIBRARY}, or none are wanted")
endif()

set(missing ${wanted})
list(REMOVE_ITEM missing ${found})
set(surplus ${found})
list(REMOVE_ITEM surplus ${wanted})
if(missing OR surplus)
    message(FATAL_ERROR "${LIBRARY} ${what}\ntoo few: ${missing}\ntoo many: ${surplus}")
endif()
list(LENGTH found count)
message(STATUS "${LIBRARY}: ${count} ${what}, as wanted")
