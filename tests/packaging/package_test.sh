#!/usr/bin/env bash
# Makes the Debian packages from the build with cpack, unpacks each into a
# throw-away root with dpkg -x, checks what each holds, and runs the programs
# from that root: zarvo-host must find its libraries and the plug-in there.
#
#   package_test.sh BUILD_DIR
set -euo pipefail
build_dir=$(cd "$1" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cpack --config "$build_dir/CPackConfig.cmake" -B "$work/packages" >"$work/cpack.log" 2>&1 ||
  { cat "$work/cpack.log"; exit 1; }
arch=$(dpkg --print-architecture)
version=$(sed -n 's/^set(CPACK_PACKAGE_VERSION "\(.*\)")$/\1/p' "$build_dir/CPackConfig.cmake")
for package in zarvo-tethrix tethrix-service zarvo-tethrix-dev; do
  deb="$work/packages/${package}_${version}_${arch}.deb"
  test -f "$deb" || { echo "no package $deb"; ls "$work/packages"; exit 1; }
  dpkg-deb --field "$deb" Package Depends
  dpkg -x "$deb" "$work/root"
done

root=$work/root
for file in usr/lib/zarvo/plugins/libzarvo_tethrix_datasource.so \
            "usr/lib/$(dpkg-architecture -qDEB_HOST_MULTIARCH)/cmake/ZarvoTethrix/ZarvoTethrixConfig.cmake" \
            usr/include/zarvo/module.h lib/systemd/system/tethrix-service.service etc/tethrix-service.conf \
            usr/share/doc/tethrix-service/copyright; do
  test -e "$root/$file" || { echo "no $file in the packages"; exit 1; }
done
grep -q '^ExecStart=/usr/bin/tethrix-service --db ${TETHRIX_DB} --port ${TETHRIX_PORT} --bind ${TETHRIX_BIND} ' \
  "$root/lib/systemd/system/tethrix-service.service"
grep -qx 'EnvironmentFile=-/etc/tethrix-service.conf' "$root/lib/systemd/system/tethrix-service.service"
dpkg-deb --ctrl-tarfile "$work/packages/tethrix-service_${version}_${arch}.deb" | tar -xO ./conffiles |
  grep -qx /etc/tethrix-service.conf

"$root/usr/bin/zarvo-host" --help | head -1 | grep -q '^Usage: zarvo-host'
"$root/usr/bin/tethrix-service" --help | grep -q -- '--bind'
tree=$(env -u TETHRIX_SERVICE_URL "$root/usr/bin/zarvo-host" tree \
  --declaration '<sources><now uri="com.tavelorix.content/now"><field name="rank" type="int"/></now></sources>')
grep -qx "  connected (boolean) = false" <<<"$tree" || { echo "$tree"; exit 1; }
