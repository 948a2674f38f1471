# Fails if the program uses a call of the platform that the tests would not catch.
#
#   cmake -DNM=... -DLIST=replaced_calls.txt -DPROGRAM=objects -DPLATFORM=objects -P check_replaced_calls.cmake
#
# The objects are separated by commas; those of the platform are the port's, or on Windows the system's libraries.
cmake_minimum_required(VERSION 3.25)

# What stays real although the platform holds it: a comparison of two strings, which can't fail; and the guard around the
# making of the backup components, whose own call is caught.
set(passedOn _stricmp)
set(passedOnPattern "CreateBackupComponentsGuarded")

function(symbols result filter objects)
  string(REPLACE "," ";" objects "${objects}")
  execute_process(COMMAND ${NM} -P ${filter} ${objects} OUTPUT_VARIABLE output COMMAND_ERROR_IS_FATAL ANY)
  string(REGEX MATCHALL "[^\n]+" lines "${output}")
  set(names "")
  foreach(line IN LISTS lines)
    if(line MATCHES "^([^ ]+) [A-Za-z]")
      # An import pointer is named after its function.
      string(REGEX REPLACE "^__imp_" "" name ${CMAKE_MATCH_1})
      list(APPEND names ${name})
    endif()
  endforeach()
  list(REMOVE_DUPLICATES names)
  set(${result} "${names}" PARENT_SCOPE)
endfunction()

symbols(used --undefined-only "${PROGRAM}")
symbols(held "--defined-only;--extern-only" "${PLATFORM}")
file(STRINGS ${LIST} caught REGEX "^[^#]")

set(checked 0)
foreach(name IN LISTS used)
  if(name IN_LIST held AND NOT name IN_LIST passedOn AND NOT name MATCHES ${passedOnPattern})
    math(EXPR checked "${checked} + 1")
    if(NOT name IN_LIST caught)
      message(SEND_ERROR "${name} is used by the program and missing in ${LIST}")
    endif()
  endif()
endforeach()
if(checked EQUAL 0)
  message(FATAL_ERROR "found no call at all, so nothing was checked")
endif()
message(STATUS "${checked} calls of the program are caught")
