# Run by `cmake --install`: installs the systemd units KZQ_UNITS into
# share/kzq/systemd below the prefix, each path they name below /usr (the
# package's layout) moved below the prefix given at install time.
foreach(unit IN LISTS KZQ_UNITS)
  get_filename_component(name "${unit}" NAME)
  file(READ "${unit}" text)
  string(REGEX REPLACE "(=|file://)/usr/" "\\1${CMAKE_INSTALL_PREFIX}/" text "${text}")
  file(WRITE "${KZQ_STAGING}/${name}" "${text}")
  file(INSTALL DESTINATION "${CMAKE_INSTALL_PREFIX}/share/kzq/systemd" TYPE FILE FILES "${KZQ_STAGING}/${name}")
endforeach()
