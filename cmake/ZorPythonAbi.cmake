# Writes the Python package's _abi.py from its template, with the result-code
# table taken from the C headers: names and meanings from ZOR_result_codes.h,
# values from the ZOR_ERROR_CODE enumeration of ZOR_focuser.h.
#   cmake -DTEMPLATE=... -DHEADER=... -DCODES=... -DOUTPUT=... -P ZorPythonAbi.cmake
file(READ "${HEADER}" header)
string(REGEX MATCH "typedef enum _ZOR_ERROR_CODE {[^}]*}" enum_block "${header}")
string(REGEX MATCHALL "ZOR_[A-Z_]+ = [0-9]+" enumerators "${enum_block}")
foreach(enumerator ${enumerators})
  string(REGEX REPLACE " = .*" "" name "${enumerator}")
  string(REGEX REPLACE ".* = " "" value "${enumerator}")
  set(value_of_${name} ${value})
endforeach()

file(READ "${CODES}" codes)
string(REGEX MATCHALL "X\\(ZOR_[A-Z_]+, \"[^\"]*\"\\)" entries "${codes}")
list(LENGTH entries entry_count)
list(LENGTH enumerators enumerator_count)
if(NOT entry_count EQUAL enumerator_count OR entry_count EQUAL 0)
  message(FATAL_ERROR "${CODES} lists ${entry_count} result codes, ${HEADER} enumerates ${enumerator_count}")
endif()

set(ZOR_PYTHON_RESULT_CODES "")
foreach(entry ${entries})
  string(REGEX REPLACE "^X\\((ZOR_[A-Z_]+), \"([^\"]*)\"\\)$" "\\1" name "${entry}")
  string(REGEX REPLACE "^X\\((ZOR_[A-Z_]+), \"([^\"]*)\"\\)$" "\\2" meaning "${entry}")
  if(NOT DEFINED value_of_${name})
    message(FATAL_ERROR "${name} of ${CODES} is not in the ZOR_ERROR_CODE enumeration of ${HEADER}")
  endif()
  string(APPEND ZOR_PYTHON_RESULT_CODES "    (${value_of_${name}}, \"${name}\", \"${meaning}\"),\n")
endforeach()

configure_file("${TEMPLATE}" "${OUTPUT}" @ONLY)
