# What only the Windows program has: the version resource with the manifest, the system libraries, all of them from the
# system folder, and the snapshot library bound when it is called.

enable_language(RC)
target_sources(kestrix PRIVATE platform/windows/kestrix.rc)
set_source_files_properties(platform/windows/kestrix.rc PROPERTIES COMPILE_DEFINITIONS
  "KESTRIX_MAJOR=${PROJECT_VERSION_MAJOR};KESTRIX_MINOR=${PROJECT_VERSION_MINOR};KESTRIX_PATCH=${PROJECT_VERSION_PATCH}"
  OBJECT_DEPENDS ${CMAKE_SOURCE_DIR}/platform/windows/kestrix.manifest)
target_include_directories(kestrix PRIVATE ${CMAKE_SOURCE_DIR}/platform/windows)

add_library(kestrix_system INTERFACE)
target_sources(kestrix_system INTERFACE ${CMAKE_SOURCE_DIR}/platform/windows/snapshot_library.cpp)
if(MSVC)
  target_link_libraries(kestrix_system INTERFACE bcrypt ole32 oleaut32 uuid)
  target_link_options(kestrix_system INTERFACE /DEPENDENTLOADFLAG:0x800 /DYNAMICBASE /NXCOMPAT /HIGHENTROPYVA /GUARD:CF)
  target_compile_options(kestrix_platform INTERFACE /guard:cf)
  # The manifest is the one among the resources.
  target_link_options(kestrix PRIVATE /MANIFEST:NO)
else()
  target_sources(kestrix_system INTERFACE ${CMAKE_SOURCE_DIR}/platform/windows/load_configuration.cpp)
  # winpthread is what the language run-time stands on.
  target_link_libraries(kestrix_system INTERFACE bcrypt ole32 oleaut32 uuid winpthread)
  target_link_options(kestrix_system INTERFACE -Wl,--dynamicbase -Wl,--nxcompat -Wl,--high-entropy-va)
  # The shipped program says nothing about when and where it was built, so that the same sources give the same bytes.
  # The debug information that comes with the language run-time stays out.
  target_link_options(kestrix PRIVATE -s -Wl,--no-insert-timestamp)
endif()
target_link_libraries(kestrix PRIVATE kestrix_system)
