# SPDX-License-Identifier: MIT
# CPack post-build script. CPack gives a package with a library under /usr/lib postinst and
# postrm scripts that call ldconfig; Debian's library packages activate libc's ldconfig trigger
# instead (the triggers file, cmake/debian/triggers), and lintian warns about the calls. The
# runtime package is repacked here without those two scripts.
foreach(deb IN LISTS CPACK_PACKAGE_FILES)
  get_filename_component(name ${deb} NAME)
  if(NOT name MATCHES "^${CPACK_DEBIAN_RUNTIME_PACKAGE_NAME}_.*\\.deb$")
    continue()
  endif()
  set(tree ${deb}.tree)
  file(REMOVE_RECURSE ${tree})
  execute_process(COMMAND dpkg-deb -R ${deb} ${tree} COMMAND_ERROR_IS_FATAL ANY)
  file(REMOVE ${tree}/DEBIAN/postinst ${tree}/DEBIAN/postrm)
  execute_process(COMMAND dpkg-deb --root-owner-group -Zgzip -b ${tree} ${deb}
    OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
  file(REMOVE_RECURSE ${tree})
endforeach()
