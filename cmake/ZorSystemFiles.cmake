# Installs a file into a directory outside the prefix when it can be written
# (cmake/ZorInstallSystemFile.cmake).
function(zor_install_system_file file dir purpose hint)
  install(CODE "set(ZOR_SYSTEM_FILE \"${file}\")
set(ZOR_SYSTEM_DIR \"${dir}\")
set(ZOR_SYSTEM_PURPOSE \"${purpose}\")
set(ZOR_SYSTEM_HINT \"${hint}\")")
  install(SCRIPT ${PROJECT_SOURCE_DIR}/cmake/ZorInstallSystemFile.cmake)
endfunction()
