# The packages for Debian: kestrix, and nbdkit-plugin-kestrix, whose component is plugin.

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_FILE_NAME kestrix-${PROJECT_VERSION}-linux) # a folder of CPack's alone
set(CPACK_COMPONENTS_ALL kestrix plugin)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)

set(CPACK_DEBIAN_KESTRIX_PACKAGE_NAME kestrix)
set(CPACK_DEBIAN_KESTRIX_PACKAGE_RECOMMENDS "python3, python3-libnbd, libnbd-bin, fuse3")
set(CPACK_DEBIAN_KESTRIX_PACKAGE_SUGGESTS "nbdkit-plugin-kestrix, rclone, python3-libvirt")
set(CPACK_DEBIAN_KESTRIX_DESCRIPTION [[
images whole physical disks, sector by sector
Kestrix captures a whole disk into one image file, full or incremental, plain
or sealed with a password, verifies such images, folds chains of them into
one, and restores them over a whole disk, byte for byte. Images made on Windows
and on Linux are the same. kestrix-image tells what an image is, checks and
compares it, and gives back what is sound of a damaged one. kestrix-keep tells
disks apart, makes an image of them each night, keeps those that rules ask
for, and leads through a restore. kestrix-vm captures the disks of running
QEMU guests from their host.]])

set(CPACK_DEBIAN_PLUGIN_PACKAGE_NAME nbdkit-plugin-kestrix)
set(CPACK_DEBIAN_PLUGIN_PACKAGE_DEPENDS "nbdkit (>= 1.32), procps")
set(CPACK_DEBIAN_PLUGIN_PACKAGE_RECOMMENDS "guestfish, fuse3, fdisk, libnbd-bin, ntfs-3g")
set(CPACK_DEBIAN_PLUGIN_PACKAGE_SUGGESTS "cryptsetup-bin, lvm2, nbd-client, qemu-utils")
set(CPACK_DEBIAN_PLUGIN_PACKAGE_ENHANCES nbdkit)
set(CPACK_DEBIAN_PLUGIN_DESCRIPTION [[
serves and shows what a Kestrix image holds
The plugin lets nbdkit serve the disk in an image, full or thin, plain or
sealed, read-only and checked: to convert it, to start a virtual machine from
it, to get a file out of it. kestrix-browse shows its file systems as folders.]])

# ---- What both have ----

# Manual pages, each in the folder of its section.
function(install_manuals component)
  foreach(name IN LISTS ARGN)
    made_file(${name}.gz [[scdoc <"$1" | gzip -9n >"$0"]] ${CMAKE_SOURCE_DIR}/docs/man/${name}.scd)
    string(REGEX REPLACE ".*\\." "" section ${name})
    install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${name}.gz DESTINATION share/man/man${section} COMPONENT ${component})
  endforeach()
  set(made ${made} PARENT_SCOPE)
endfunction()

# Who wrote what was linked in: a text of ours, and behind it the words of the packages that it came from. And the
# changelog in Debian's form, which leads to ours.
function(install_legal package component)
  list(TRANSFORM ARGN PREPEND ${documents}/)
  list(TRANSFORM ARGN APPEND /copyright)
  made_file(${package}.copyright [[cat "$1" >"$0" && tail -v -n +1 "${@:2}" >>"$0"]]
            ${CMAKE_CURRENT_SOURCE_DIR}/${package}.copyright ${ARGN})
  string(TIMESTAMP day "%a, %d %b %Y %H:%M:%S +0000" UTC)
  configure_file(changelog.in ${package}.changelog @ONLY)
  made_file(${package}.changelog.gz [[gzip -9n <"$1" >"$0"]] ${CMAKE_CURRENT_BINARY_DIR}/${package}.changelog)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${package}.copyright DESTINATION share/doc/${package} RENAME copyright
          COMPONENT ${component})
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${package}.changelog.gz DESTINATION share/doc/${package}
          RENAME changelog.gz COMPONENT ${component})
  set(made ${made} PARENT_SCOPE)
endfunction()

# ---- kestrix ----

set(completions share/bash-completion/completions)
install(TARGETS kestrix kestrix-image kestrix-keep DESTINATION bin COMPONENT kestrix)
install_pages(share/doc/kestrix kestrix)
install_manuals(kestrix ${manuals} kestrix-vm.8)
install_legal(kestrix kestrix libstdc++6 libc6 liburing-dev libcli11-dev nlohmann-json3-dev libtomlplusplus-dev)
# Guests are captured on Linux alone.
file(GLOB modules CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/companions/kestrix-vm/kestrix_vm/*.py)
install(PROGRAMS ${CMAKE_SOURCE_DIR}/companions/kestrix-vm/kestrix-vm DESTINATION bin COMPONENT kestrix)
install(FILES ${modules} DESTINATION share/kestrix-vm/kestrix_vm COMPONENT kestrix)
# One file for all of them, which bash looks for by the name of the program.
install(FILES ${CMAKE_SOURCE_DIR}/completion/bash/kestrix DESTINATION ${completions} COMPONENT kestrix)
foreach(name IN ITEMS kestrix-image kestrix-keep kestrix-vm)
  file(CREATE_LINK kestrix ${CMAKE_CURRENT_BINARY_DIR}/${name} SYMBOLIC)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${name} DESTINATION ${completions} COMPONENT kestrix)
endforeach()
# Units for any job, of the words of schedule.
add_executable(unit_templates EXCLUDE_FROM_ALL unit_templates.cpp)
target_link_libraries(unit_templates PRIVATE kestrix_keep_commands kestrix_keep_configuration companion_report
                                             companion_reader companion_disk_facts companion_host kestrix_warnings)
set(units ${CMAKE_CURRENT_BINARY_DIR}/kestrix-keep@.service ${CMAKE_CURRENT_BINARY_DIR}/kestrix-keep@.timer)
add_custom_command(OUTPUT ${units} DEPENDS unit_templates COMMAND unit_templates)
list(APPEND made ${units})
install(FILES ${units} DESTINATION lib/systemd/system COMPONENT kestrix)
# file's own magic belongs to another package.
install(FILES ${CMAKE_SOURCE_DIR}/share/magic/kestrix DESTINATION share/kestrix RENAME magic COMPONENT kestrix)

# ---- nbdkit-plugin-kestrix: the plugin, where nbdkit looks for it, and the script that mounts what it serves ----

if(TARGET nbdkit-kestrix-plugin)
  install(TARGETS nbdkit-kestrix-plugin DESTINATION lib/${CMAKE_LIBRARY_ARCHITECTURE}/nbdkit/plugins COMPONENT plugin)
  install(PROGRAMS ${CMAKE_BINARY_DIR}/kestrix-browse DESTINATION bin COMPONENT plugin)
  install_manuals(plugin kestrix-browse.1 nbdkit-kestrix-plugin.1)
  install_legal(nbdkit-plugin-kestrix plugin libstdc++6 libc6)
  install(FILES ${CMAKE_SOURCE_DIR}/docs/browse.md DESTINATION share/doc/nbdkit-plugin-kestrix COMPONENT plugin)
  install(FILES ${CMAKE_SOURCE_DIR}/completion/bash/kestrix-browse DESTINATION ${completions} COMPONENT plugin)
endif()
