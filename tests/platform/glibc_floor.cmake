cmake_minimum_required(VERSION 3.25)
# Fails when a board program asks the C library for a symbol version newer than the floor, or
# needs any library but the C library: it would not start on the boards the floor promises.
# Arguments: -DPROGRAM=<file> -DFLOOR=<2.4> -DTRIPLET=<arm-linux-gnueabihf>
execute_process(COMMAND ${TRIPLET}-objdump -T ${PROGRAM} OUTPUT_VARIABLE symbols RESULT_VARIABLE rc1)
execute_process(COMMAND ${TRIPLET}-readelf -d ${PROGRAM} OUTPUT_VARIABLE dynamic RESULT_VARIABLE rc2)
if(NOT rc1 EQUAL 0 OR NOT rc2 EQUAL 0)
    message(FATAL_ERROR "cannot read the symbols of ${PROGRAM}")
endif()

string(REGEX MATCHALL "[^\n]+" lines "${symbols}")
set(newer "")
set(foreign "")
foreach(line IN LISTS lines)
    if(line MATCHES "\\(?([A-Z_]+)_([0-9.]+|PRIVATE)\\)? +([A-Za-z_0-9]+)$")
        set(kind ${CMAKE_MATCH_1})
        set(version ${CMAKE_MATCH_2})
        set(name ${CMAKE_MATCH_3})
        if(NOT kind STREQUAL "GLIBC")
            list(APPEND foreign "${name}@${kind}_${version}")
        elseif(version STREQUAL "PRIVATE" OR version VERSION_GREATER FLOOR)
            list(APPEND newer "${name}@GLIBC_${version}")
        endif()
    endif()
endforeach()

string(REGEX MATCHALL "Shared library: \\[[^]]+\\]" needed "${dynamic}")
list(REMOVE_ITEM needed "Shared library: [libc.so.6]")

if(newer OR foreign OR needed)
    message(FATAL_ERROR "${PROGRAM} would not start on a board with glibc ${FLOOR}:\n"
        "  newer C library versions: ${newer}\n  other libraries' versions: ${foreign}\n"
        "  other libraries: ${needed}\n"
        "Bind a renamed entry point in src/platform/oldest_glibc.cpp, or do without it.")
endif()
list(LENGTH lines count)
message(STATUS "${PROGRAM}: no symbol newer than GLIBC_${FLOOR}, no library but libc.so.6")
