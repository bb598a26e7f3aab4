#!/usr/bin/env bash
# Compiles the macOS Objective-C++ sources on Linux, without linking: clang
# with GNUstep's Foundation, against declarations of Apple's frameworks kept
# under tests/mac_sdk. It catches a misspelt selector, a wrong argument type
# or a C++ error before a macOS build does; it cannot show behaviour.
# Debian's Objective-C runtime has no ARC, so the files compile here with
# manual reference counting; ARC itself is checked by the macOS build only.
set -euo pipefail
cd "$(dirname "$0")/.."

gnustep_headers=$(gnustep-config --variable=GNUSTEP_SYSTEM_HEADERS)
objc_runtime_headers=$(gcc -print-file-name=include)

flags=(
  -std=c++17 -fsyntax-only -x objective-c++
  -fobjc-runtime=gcc -fblocks -fobjc-exceptions -fconstant-string-class=NSConstantString
  -DGNUSTEP -DGNUSTEP_BASE_LIBRARY=1 -DGNU_RUNTIME=1
  -Wall -Wextra -Werror -Wno-import -Werror=objc-method-access -Wundeclared-selector
  -Itests/mac_sdk -I"${gnustep_headers}" -I"${objc_runtime_headers}" -I.
)

status=0
for source in ble_transport/mac/*.mm; do
  clang++ "${flags[@]}" "$source" || status=1
done
[ $status -eq 0 ] && echo "macOS sources: compiled against the declared frameworks"
exit $status
