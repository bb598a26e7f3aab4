include(CMakePackageConfigHelpers)

install(TARGETS ZORfocuser EXPORT ZORfocuserTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  PUBLIC_HEADER DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

set(ZOR_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/ZORfocuser)
install(EXPORT ZORfocuserTargets NAMESPACE ZORfocuser:: DESTINATION ${ZOR_CMAKE_DIR})
configure_package_config_file(packaging/ZORfocuserConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/ZORfocuserConfig.cmake INSTALL_DESTINATION ${ZOR_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/ZORfocuserConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/ZORfocuserConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/ZORfocuserConfigVersion.cmake
        DESTINATION ${ZOR_CMAKE_DIR})

# The pkg-config file locates the prefix relative to itself, so an install
# under another prefix (or a staging root) needs no edit.
file(RELATIVE_PATH ZOR_PC_TO_PREFIX /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
# On macOS the library is found through @rpath: a client built from the
# pkg-config flags carries the library directory as its run path.
set(ZOR_PC_RPATH "")
if(APPLE)
  set(ZOR_PC_RPATH " -Wl,-rpath,\${libdir}")
endif()
configure_file(packaging/ZORfocuser.pc.in ${CMAKE_CURRENT_BINARY_DIR}/ZORfocuser.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/ZORfocuser.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

if(NOT APPLE)
  # The udev rule is written with the configured vendor ID.
  math(EXPR zor_vid "${ZOR_VENDOR_ID}" OUTPUT_FORMAT HEXADECIMAL)
  string(REGEX REPLACE "^0x" "" zor_vid "${zor_vid}")
  string(LENGTH "${zor_vid}" zor_vid_len)
  while(zor_vid_len LESS 4)
    string(PREPEND zor_vid "0")
    string(LENGTH "${zor_vid}" zor_vid_len)
  endwhile()
  string(TOLOWER "${zor_vid}" ZOR_VENDOR_ID_HEX)
  # 70-: uaccess only acts in a rule file that sorts before 73-seat-late.rules.
  set(zor_rule ${CMAKE_CURRENT_BINARY_DIR}/70-zor-focuser.rules)
  configure_file(packaging/70-zor-focuser.rules.in ${zor_rule} @ONLY)
  set(ZOR_UDEV_RULES_DIR "/etc/udev/rules.d" CACHE PATH
      "Where cmake --install puts the udev rule: installed when writable (as root, or below DESTDIR), else skipped with a note; empty to never install it")
  if(ZOR_UDEV_RULES_DIR)
    zor_install_system_file(${zor_rule} "${ZOR_UDEV_RULES_DIR}"
      "To let non-root users open the focuser" " && udevadm control --reload")
  endif()
endif()
