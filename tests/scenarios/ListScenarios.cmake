# Writes LIST, a file for the test driver with one test for each row of PROGRAM's tables.
execute_process(COMMAND "${PROGRAM}" -datatags OUTPUT_VARIABLE rows RESULT_VARIABLE result)
if(NOT result EQUAL 0)
    message(FATAL_ERROR "${PROGRAM} does not list its tests")
endif()
string(REGEX REPLACE "\n$" "" rows "${rows}")
string(REPLACE ";" "\\;" rows "${rows}")
string(REPLACE "\n" ";" rows "${rows}")
# Sound in real time wants the machine for itself.
set(properties "SKIP_RETURN_CODE 77 TIMEOUT 180 LABELS scenario")
if(NAME STREQUAL tst_sound)
    string(APPEND properties " RUN_SERIAL ON")
endif()
set(text "")
foreach(row IN LISTS rows)
    # A row is printed as "CLASS FUNCTION TAG", without a tag for a function without a table.
    string(REGEX MATCH "^[^ ]+ ([^ ]+) ?(.*)$" row "${row}")
    set(selection "${CMAKE_MATCH_1}")
    if(NOT "${CMAKE_MATCH_2}" STREQUAL "")
        string(APPEND selection ":${CMAKE_MATCH_2}")
    endif()
    string(APPEND text "add_test([==[${NAME}.${selection}]==] [==[${PROGRAM}]==] "
                       "[==[${selection}]==])\n"
                       "set_tests_properties([==[${NAME}.${selection}]==] PROPERTIES "
                       "${properties})\n")
endforeach()
file(WRITE "${LIST}" "${text}")
