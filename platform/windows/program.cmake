# What only Windows programs have: the version resource with the manifest, how they may be loaded, the system libraries,
# all of them from the system folder, and for kestrix the snapshot library bound when it is called.

enable_language(RC)

# How every program may be loaded, and from where its libraries come.
add_library(kestrix_loading INTERFACE)
if(MSVC)
  target_link_options(kestrix_loading INTERFACE /DEPENDENTLOADFLAG:0x800 /DYNAMICBASE /NXCOMPAT /HIGHENTROPYVA /GUARD:CF)
  target_compile_options(kestrix_platform INTERFACE /guard:cf)
else()
  target_sources(kestrix_loading INTERFACE ${CMAKE_SOURCE_DIR}/platform/windows/load_configuration.cpp)
  target_link_options(kestrix_loading INTERFACE -Wl,--dynamicbase -Wl,--nxcompat -Wl,--high-entropy-va)
endif()

# Makes the target one of the programs that are handed out.
function(kestrix_shipped program description)
  configure_file(${CMAKE_SOURCE_DIR}/platform/windows/program.rc.in ${CMAKE_BINARY_DIR}/resources/${program}.rc @ONLY)
  set_source_files_properties(${CMAKE_BINARY_DIR}/resources/${program}.rc TARGET_DIRECTORY ${program} PROPERTIES
    OBJECT_DEPENDS ${CMAKE_SOURCE_DIR}/platform/windows/kestrix.manifest)
  target_sources(${program} PRIVATE ${CMAKE_BINARY_DIR}/resources/${program}.rc)
  target_include_directories(${program} PRIVATE ${CMAKE_SOURCE_DIR}/platform/windows)
  target_link_libraries(${program} PRIVATE kestrix_loading)
  if(MSVC)
    # The manifest is the one among the resources.
    target_link_options(${program} PRIVATE /MANIFEST:NO)
  else()
    # A shipped program says nothing about when and where it was built, so that the same sources give the same bytes.
    # The debug information that comes with the language run-time stays out.
    target_link_options(${program} PRIVATE -s -Wl,--no-insert-timestamp)
  endif()
endfunction()

add_library(kestrix_system INTERFACE)
target_sources(kestrix_system INTERFACE ${CMAKE_SOURCE_DIR}/platform/windows/snapshot_library.cpp)
target_link_libraries(kestrix_system INTERFACE kestrix_loading bcrypt ole32 oleaut32 uuid)
if(NOT MSVC)
  # What the language run-time stands on.
  target_link_libraries(kestrix_system INTERFACE winpthread)
endif()
kestrix_shipped(kestrix "Kestrix disk imager")
target_link_libraries(kestrix PRIVATE kestrix_system)
