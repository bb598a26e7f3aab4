# Run by `cmake --install`: installs ZOR_SYSTEM_FILE into ZOR_SYSTEM_DIR
# (below DESTDIR when that is set) when that directory can be made and
# written, as by root or into a staging root. Otherwise it says how to
# install the file (ZOR_SYSTEM_HINT is added to the command) and lets the
# rest of the install go on, so a user installing into a prefix of their own
# needs no root. A relative ZOR_SYSTEM_DIR is below the install prefix, like
# other destinations. Used for the udev rule and INDI's drivers file.
if(NOT IS_ABSOLUTE "${ZOR_SYSTEM_DIR}")
  set(ZOR_SYSTEM_DIR "${CMAKE_INSTALL_PREFIX}/${ZOR_SYSTEM_DIR}")
endif()
set(zor_target_dir "$ENV{DESTDIR}${ZOR_SYSTEM_DIR}")
execute_process(COMMAND "${CMAKE_COMMAND}" -E make_directory "${zor_target_dir}"
                RESULT_VARIABLE zor_not_made OUTPUT_QUIET ERROR_QUIET)
execute_process(COMMAND test -w "${zor_target_dir}" RESULT_VARIABLE zor_not_writable)
if(zor_not_made OR zor_not_writable)
  get_filename_component(zor_file_name "${ZOR_SYSTEM_FILE}" NAME)
  message(STATUS "Not installed (${zor_target_dir} is not writable): ${zor_file_name}. "
                 "${ZOR_SYSTEM_PURPOSE}, run as root: "
                 "install -m 644 ${ZOR_SYSTEM_FILE} ${ZOR_SYSTEM_DIR}/${ZOR_SYSTEM_HINT}")
  return()
endif()
file(INSTALL DESTINATION "${ZOR_SYSTEM_DIR}" TYPE FILE FILES "${ZOR_SYSTEM_FILE}")
