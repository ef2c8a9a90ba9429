#!/usr/bin/env bash
# Installs the build into a temporary prefix, builds a small plug-in and a
# program against it through find_package(ZarvoTethrix), runs the program,
# and runs the installed zarvo-host, which must load the installed plug-in
# without being told where it is.
#
#   install_test.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
build_dir=$1
source_dir=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --install "$build_dir" --prefix "$work/prefix" >"$work/install.log"
test -f "$work/prefix/lib/zarvo/plugins/libzarvo_tethrix_datasource.so"
test -f "$work/prefix/lib/systemd/system/tethrix-service.service"
grep -q "^ExecStart=$work/prefix/bin/tethrix-service " "$work/prefix/lib/systemd/system/tethrix-service.service"

cmake -S "$source_dir/tests/packaging/consumer" -B "$work/consumer" -G Ninja \
  -DCMAKE_PREFIX_PATH="$work/prefix" >"$work/consumer.log" || { cat "$work/consumer.log"; exit 1; }
cmake --build "$work/consumer"
"$work/consumer/consumer" | grep -qx "consumer: module created, plug-ins in $work/prefix/lib/zarvo/plugins"

# Unconnected, the source shows what loading alone built: the plug-in's
# connected flag is there only if the plug-in was found and loaded.
tree=$(env -u TETHRIX_SERVICE_URL "$work/prefix/bin/zarvo-host" tree \
  --declaration '<sources><now uri="com.tavelorix.content/now"><field name="rank" type="int"/></now></sources>')
grep -qx "  connected (boolean) = false" <<<"$tree" || { echo "$tree"; exit 1; }
