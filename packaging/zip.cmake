# The zip for Windows: a folder with the programs, the pages, the licences and the digests of them all.

set(CPACK_GENERATOR ZIP)
set(CPACK_PACKAGE_FILE_NAME kestrix-${PROJECT_VERSION}-windows-x64)
set(CPACK_INCLUDE_TOPLEVEL_DIRECTORY ON)

install(TARGETS kestrix kestrix-image kestrix-keep DESTINATION . COMPONENT kestrix)
install(FILES ${CMAKE_SOURCE_DIR}/platform/windows/check-windows.cmd DESTINATION . COMPONENT kestrix)
install_pages(. kestrix)
install(FILES ${CMAKE_SOURCE_DIR}/completion/powershell/kestrix.ps1 DESTINATION completion COMPONENT kestrix)

# A browser is what shows a manual page there.
foreach(name IN LISTS manuals)
  made_file(${name}.html [[scdoc <"$1" | mandoc -T html >"$0"]] ${CMAKE_SOURCE_DIR}/docs/man/${name}.scd)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${name}.html DESTINATION docs COMPONENT kestrix)
endforeach()

# What is linked in besides the programs' own objects: libstdc++ and libgcc with the exception for run-times, the
# start-up objects and import libraries of mingw-w64, and its winpthread; into the companions the libraries that are
# nothing but headers.
function(install_licence name file)
  install(FILES ${file} DESTINATION licences COMPONENT kestrix RENAME ${name}.txt)
endfunction()
install_licence(libstdc++-libgcc ${documents}/gcc-mingw-w64-x86-64-posix-runtime/copyright)
install_licence(mingw-w64-winpthread ${documents}/mingw-w64-x86-64-dev/copyright)
install_licence(GPL-3 /usr/share/common-licenses/GPL-3)
install_licence(CLI11 ${documents}/libcli11-dev/copyright)
install_licence(nlohmann-json ${documents}/nlohmann-json3-dev/copyright)
install_licence(tomlplusplus ${documents}/libtomlplusplus-dev/copyright)

# Last, over all that lies there by then.
install(CODE [[
  file(GLOB_RECURSE names RELATIVE ${CMAKE_INSTALL_PREFIX} ${CMAKE_INSTALL_PREFIX}/*)
  list(REMOVE_ITEM names SHA256SUMS)
  set(digests)
  foreach(name IN LISTS names)
    file(SHA256 ${CMAKE_INSTALL_PREFIX}/${name} digest)
    string(APPEND digests "${digest}  ${name}\n")
  endforeach()
  file(WRITE ${CMAKE_INSTALL_PREFIX}/SHA256SUMS ${digests})
]] COMPONENT kestrix)
