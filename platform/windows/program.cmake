# What only the Windows program has: the version resource with the manifest, the system libraries, and the snapshot library
# bound at its first call.

enable_language(RC)
target_sources(kestrix PRIVATE platform/windows/kestrix.rc)
set_source_files_properties(platform/windows/kestrix.rc PROPERTIES COMPILE_DEFINITIONS
  "KESTRIX_MAJOR=${PROJECT_VERSION_MAJOR};KESTRIX_MINOR=${PROJECT_VERSION_MINOR};KESTRIX_PATCH=${PROJECT_VERSION_PATCH}"
  OBJECT_DEPENDS ${CMAKE_SOURCE_DIR}/platform/windows/kestrix.manifest)
target_include_directories(kestrix PRIVATE ${CMAKE_SOURCE_DIR}/platform/windows)

add_library(kestrix_system INTERFACE)
if(MSVC)
  target_link_libraries(kestrix_system INTERFACE bcrypt ole32 oleaut32 uuid vssapi delayimp)
  target_link_options(kestrix_system INTERFACE /DELAYLOAD:VSSAPI.DLL /DYNAMICBASE /NXCOMPAT /HIGHENTROPYVA /GUARD:CF)
  target_compile_options(kestrix_platform INTERFACE /guard:cf)
  # The manifest is the one among the resources.
  target_link_options(kestrix PRIVATE /MANIFEST:NO)
else()
  # An import library of short imports, which is what the linker can load late.
  add_custom_command(OUTPUT ${CMAKE_BINARY_DIR}/libvssapi_late.a
    COMMAND llvm-dlltool -m i386:x86-64 -d ${CMAKE_SOURCE_DIR}/platform/windows/vssapi.def
            -l ${CMAKE_BINARY_DIR}/libvssapi_late.a
    DEPENDS ${CMAKE_SOURCE_DIR}/platform/windows/vssapi.def)
  add_custom_target(vssapi_late DEPENDS ${CMAKE_BINARY_DIR}/libvssapi_late.a)
  add_dependencies(kestrix_system vssapi_late)
  # winpthread is what the language run-time stands on.
  target_link_libraries(kestrix_system INTERFACE
    ${CMAKE_BINARY_DIR}/libvssapi_late.a bcrypt ole32 oleaut32 uuid delayimp winpthread)
  target_link_options(kestrix_system INTERFACE -Wl,-Xlink=-delayload:VSSAPI.DLL -Wl,--dynamicbase -Wl,--nxcompat
    -Wl,--high-entropy-va)
  # The shipped program says nothing about when and where it was built, so that the same sources give the same bytes.
  # The debug information that comes with the language run-time stays out.
  target_link_options(kestrix PRIVATE -s -Wl,--no-insert-timestamp)
endif()
target_link_libraries(kestrix PRIVATE kestrix_system)
