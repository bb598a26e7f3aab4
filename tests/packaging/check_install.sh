#!/usr/bin/env bash
# Installs the build into a staging root, then builds one client with CMake's
# find_package and one with pkg-config, and runs both.
set -euo pipefail
export LC_ALL=C
build_dir=$1 source_dir=$2 work=$3
rm -rf "$work" && mkdir -p "$work"
DESTDIR="$work/root" cmake --install "$build_dir" --prefix /opt/zor >/dev/null
prefix="$work/root/opt/zor"
libdir=$(dirname "$(find "$prefix" -name 'libZORfocuser.so' -o -name 'libZORfocuser.dylib' | head -n1)")

test -f "$prefix/include/ZOR_focuser.h"
# The udev rule is for Linux only.
if [ "$(uname -s)" = Linux ]; then
  # One udev rule, named to sort before the seat rules (73-seat-late.rules), or
  # its uaccess would never act.
  rules=$(ls "$work/root/etc/udev/rules.d")
  [[ "$rules" != *$'\n'* && "$rules" < "73-seat-late.rules" ]]
  grep -q 'idProduct}=="1f10", TAG+="uaccess", GROUP="plugdev", MODE="0660"' "$work/root/etc/udev/rules.d/$rules"
  # Where the rules directory cannot be written (a user's own install), the rule
  # is skipped with a note and the install goes on.
  note=$(cmake -DZOR_SYSTEM_FILE="$work/root/etc/udev/rules.d/$rules" -DZOR_SYSTEM_DIR=/proc/zor-rules.d \
               -P "$source_dir/../../cmake/ZorInstallSystemFile.cmake")
  echo "$note" | grep -q "Not installed (/proc/zor-rules.d is not writable): $rules"
fi

# The INDI driver, where it was built, with its entry in INDI's list of
# drivers, and the library found from bin/.
if [ -x "$build_dir/indi/indi_zor_focuser" ]; then
  grep -q 'mdpd="true"' "$work/root/usr/share/indi/indi_zor_focuser.xml"
  grep -q '<driver name="ZOR Focuser">indi_zor_focuser</driver>' "$work/root/usr/share/indi/indi_zor_focuser.xml"
  if ldd "$prefix/bin/indi_zor_focuser" | grep 'not found'; then exit 1; fi
fi

cmake -S "$source_dir/consumer" -B "$work/consumer" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/consumer" >/dev/null
LD_LIBRARY_PATH="$libdir" "$work/consumer/consumer"

export PKG_CONFIG_PATH="$libdir/pkgconfig"
cc -std=c99 "$source_dir/consumer/main.c" -o "$work/pc_consumer" $(pkg-config --cflags --libs ZORfocuser)
LD_LIBRARY_PATH="$libdir" "$work/pc_consumer"

# The installed zorctl finds the library (and on Linux the virtual focusers)
# from where it is.
if [ -x "$prefix/bin/zorctl" ] && [ "$(uname -s)" = Linux ]; then
  test -f "$libdir/ZORfocuser/libzor_hidsim.so"
  HOME="$work/home" "$prefix/bin/zorctl" --simulate list | grep -q 'ZOR Pro'
elif [ -x "$prefix/bin/zorctl" ]; then
  "$prefix/bin/zorctl" --version >/dev/null
fi
# The Python package, where it was built: it imports from the prefix's Python
# directory and loads the installed library, found from where it is.
if [ -d "$build_dir/python/zorfocuser" ]; then
  package=$(dirname "$(find "$prefix" -path '*/zorfocuser/__init__.py' | head -n1)")
  loaded=$(cd "$work" && env -u ZOR_LIBRARY PYTHONPATH="$(dirname "$package")" \
             python3 -c 'import zorfocuser; print(zorfocuser.library_path)')
  [[ "$loaded" == "$libdir/libZORfocuser."* ]] || { echo "the installed package loads $loaded" >&2; exit 1; }
  if [ "$(uname -s)" = Linux ]; then
    (cd "$work" && env -u ZOR_LIBRARY PYTHONPATH="$(dirname "$package")" HOME="$work/home" ZOR_SIM=pro \
       LD_PRELOAD="$libdir/ZORfocuser/libzor_hidsim.so" \
       python3 -c 'import zorfocuser; assert zorfocuser.focusers()[0].model == "ZOR Pro"')
  fi
fi
echo "install check passed"
