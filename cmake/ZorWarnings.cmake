function(zor_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra $<$<BOOL:${ZOR_WERROR}>:-Werror>)
endfunction()
