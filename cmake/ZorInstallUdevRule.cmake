# Run by `cmake --install`: installs the udev rule ZOR_UDEV_RULE into
# ZOR_UDEV_RULES_DIR (below DESTDIR when that is set) when that directory can
# be made and written, as by root or into a staging root. Otherwise it says
# how to install the rule and lets the rest of the install go on, so a user
# installing into a prefix of their own needs no root. A relative
# ZOR_UDEV_RULES_DIR is below the install prefix, like other destinations.
if(NOT IS_ABSOLUTE "${ZOR_UDEV_RULES_DIR}")
  set(ZOR_UDEV_RULES_DIR "${CMAKE_INSTALL_PREFIX}/${ZOR_UDEV_RULES_DIR}")
endif()
set(zor_rules_dir "$ENV{DESTDIR}${ZOR_UDEV_RULES_DIR}")
execute_process(COMMAND "${CMAKE_COMMAND}" -E make_directory "${zor_rules_dir}"
                RESULT_VARIABLE zor_not_made OUTPUT_QUIET ERROR_QUIET)
execute_process(COMMAND test -w "${zor_rules_dir}" RESULT_VARIABLE zor_not_writable)
if(zor_not_made OR zor_not_writable)
  get_filename_component(zor_rule_name "${ZOR_UDEV_RULE}" NAME)
  message(STATUS "Not installed (${zor_rules_dir} is not writable): ${zor_rule_name}. "
                 "To let non-root users open the focuser, run as root: "
                 "install -m 644 ${ZOR_UDEV_RULE} ${ZOR_UDEV_RULES_DIR}/ && udevadm control --reload")
  return()
endif()
file(INSTALL DESTINATION "${ZOR_UDEV_RULES_DIR}" TYPE FILE FILES "${ZOR_UDEV_RULE}")
