# The public header in the source tree is complete on its own; the copy the
# build uses and installs carries the configured vendor ID.
set(ZOR_GENERATED_INCLUDE_DIR ${CMAKE_CURRENT_BINARY_DIR}/include)
file(READ ${CMAKE_CURRENT_SOURCE_DIR}/include/ZOR_focuser.h zor_header_text)
string(REGEX REPLACE "#define ZOR_VENDOR_ID [0-9A-Fa-fx]+" "#define ZOR_VENDOR_ID ${ZOR_VENDOR_ID}"
       zor_header_text "${zor_header_text}")
file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/ZOR_focuser.h.tmp "${zor_header_text}")
configure_file(${CMAKE_CURRENT_BINARY_DIR}/ZOR_focuser.h.tmp
               ${ZOR_GENERATED_INCLUDE_DIR}/ZOR_focuser.h COPYONLY)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS
             ${CMAKE_CURRENT_SOURCE_DIR}/include/ZOR_focuser.h)
# The result-code texts sit beside it, so that they include the configured copy.
configure_file(${CMAKE_CURRENT_SOURCE_DIR}/include/ZOR_result_codes.h
               ${ZOR_GENERATED_INCLUDE_DIR}/ZOR_result_codes.h COPYONLY)

# Only the interface leaves the shared library, whatever the headers it
# includes mark as visible.
function(zor_export_interface_only target)
  if(APPLE)
    target_link_options(${target} PRIVATE
      -Wl,-exported_symbols_list,${CMAKE_CURRENT_SOURCE_DIR}/cmake/exports.macos)
  else()
    target_link_options(${target} PRIVATE
      -Wl,--version-script=${CMAKE_CURRENT_SOURCE_DIR}/cmake/exports.map -Wl,--no-undefined)
    set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/cmake/exports.map)
  endif()
endfunction()
