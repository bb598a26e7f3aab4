# Applies to every target of the tree, so the library, the virtual focuser and
# the tests all carry the same instrumentation.
if(ZOR_SANITIZE STREQUAL "address")
  add_compile_options(-fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
  add_link_options(-fsanitize=address,undefined)
elseif(ZOR_SANITIZE STREQUAL "thread")
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
elseif(NOT ZOR_SANITIZE STREQUAL "")
  message(FATAL_ERROR "ZOR_SANITIZE must be empty, 'address' or 'thread'")
endif()
