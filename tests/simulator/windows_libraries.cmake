# How the tests are linked on Windows, where a call is replaced by name before any library is asked for it.
#
# A replaced call NAME, as function or as import pointer, is nothing that the libraries of this link hold: theirs are
# copies in which it is written __real_NAME, in what they define and in what their own objects use. So the language
# run-time's calls reach the system and never the simulator, and what the objects of the program leave open is taken for
# the replacement.

set(copiedLibraries stdc++ gcc gcc_eh winpthread mingw32 mingwex msvcrt kernel32 bcrypt ole32 oleaut32 vssapi)
set(copies ${CMAKE_CURRENT_BINARY_DIR}/libraries)

set(renamed "")
set(listed "")
foreach(call IN LISTS replacedCalls)
  string(APPEND renamed "${call} __real_${call}\n__imp_${call} __imp___real_${call}\n")
  string(APPEND listed "REPLACED(${call})\n")
  target_link_options(simulator INTERFACE -Wl,-Xlink=-alternatename:__imp_${call}=__imp___wrap_${call})
  if(call STREQUAL atexit)
    # Part of the program's start and of no library: a function that the linker can wrap.
    target_link_options(simulator INTERFACE -Wl,--wrap=${call})
  else()
    target_link_options(simulator INTERFACE -Wl,-Xlink=-alternatename:${call}=__wrap_${call})
  endif()
endforeach()
file(CONFIGURE OUTPUT renamed_calls.txt CONTENT "${renamed}")
file(CONFIGURE OUTPUT replaced_calls.inc CONTENT "${listed}")
target_include_directories(simulator PRIVATE ${CMAKE_CURRENT_BINARY_DIR})

foreach(library IN LISTS copiedLibraries)
  find_library(original_${library} lib${library}.a REQUIRED NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH
    PATHS ${gccFolder} ${CMAKE_FIND_ROOT_PATH}/lib)
  set(copy ${copies}/lib${library}.a)
  add_custom_command(OUTPUT ${copy}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${copies}
    COMMAND llvm-objcopy --redefine-syms=${CMAKE_CURRENT_BINARY_DIR}/renamed_calls.txt ${original_${library}} ${copy}
    DEPENDS ${CMAKE_CURRENT_BINARY_DIR}/renamed_calls.txt)
  list(APPEND copiedFiles ${copy})
endforeach()
add_custom_target(copied_libraries DEPENDS ${copiedFiles})
add_dependencies(simulator copied_libraries)
set_property(TARGET simulator APPEND PROPERTY INTERFACE_LINK_DEPENDS ${copiedFiles})
# Ahead of the originals, which the compiler names as well.
target_link_options(simulator INTERFACE -L${copies})
target_link_libraries(simulator INTERFACE ${copiedFiles} uuid)
